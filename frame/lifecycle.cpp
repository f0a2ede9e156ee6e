// Library lifecycle and the exported frame (Part 1.1).
#include <cstdlib>
#include <iterator>

#include "frame/frame.h"
#include "frame/state.h"

namespace dv {

FrameState gFrame;

namespace {

constexpr uint32_t kDefaultLevel = 2;
constexpr uint32_t kNoCounter = 4;

// The four layers in set-up order; a failing set-up tears down those before it, in reverse.
struct Layer {
    uint32_t (*setUp)();
    void (*tearDown)();
};
constexpr Layer kLayers[] = {
    {SerialLayerSetUp, SerialLayerTearDown},
    {IsoLayerSetUp, IsoLayerTearDown},
    {VagIsoLayerSetUp, VagIsoLayerTearDown},
    {KwLayerSetUp, KwLayerTearDown},
};
constexpr int kLayerCount = static_cast<int>(std::size(kLayers));

uint32_t SetUpLayers() {
    for (int i = 0; i < kLayerCount; ++i) {
        const uint32_t code = kLayers[i].setUp();
        if (code != 0) {
            for (int j = i - 1; j >= 0; --j) {
                kLayers[j].tearDown();
            }
            return code;
        }
    }
    return 0;
}

// The reference is reset with the block, so that a log call after DvDestruct grows a new buffer
// instead of writing into freed memory, and DvConstruct can free what an earlier life left.
void FreeLogBuffer() {
    std::free(gFrame.logBuffer);
    gFrame.logBuffer = nullptr;
    gFrame.logLength = 0;
    gFrame.logCapacity = 0;
}

} // namespace

} // namespace dv

using dv::gFrame;

extern "C" {

DV_API uint32_t DV_CALL DvConstruct(uint32_t context, MessageCallback callback) {
    gFrame.context = context;
    gFrame.callback = callback;
    gFrame.level = dv::kDefaultLevel;
    gFrame.keyTable = dv::kLogKeyTable;
    const dv::Platform &platform = dv::PlatformGet();
    platform.seedRandom(platform.tickCount());
    int64_t frequency = 0;
    if (!platform.counterFrequency(&frequency)) {
        return dv::kNoCounter;
    }
    gFrame.ticksPerMs = frequency / 1000;
    gFrame.startMark = platform.counterNow();
    dv::FreeLogBuffer();
    gFrame.buffering = false;
    gFrame.savedPriority = dv::kPriorityError;
    const uint32_t code = dv::SetUpLayers();
    if (code != 0) {
        return code;
    }
    gFrame.constructed = true;
    return 0;
}

DV_API void DV_CALL DvDestruct(void) {
    for (int i = dv::kLayerCount - 1; i >= 0; --i) {
        dv::kLayers[i].tearDown();
    }
    dv::FreeLogBuffer();
    gFrame.constructed = false;
}

DV_API uint32_t DV_CALL DvSetMessagesLevel(uint32_t level) {
    gFrame.level = level;
    return 0;
}

DV_API uint32_t DV_CALL DvGetMessagesLevel(void) {
    return gFrame.level;
}

DV_API void *DV_CALL DvAllocate(uint32_t size) {
    return size == 0 ? nullptr : std::malloc(size);
}

DV_API void DV_CALL DvFree(void *block) {
    std::free(block);
}

} // extern "C"
