// The KWP2000 layers' set-up and tear-down (Part 1.1 step 6), their settings sub-block (1.2),
// the link state and the two message buffers of Part 5.1.
#include <algorithm>
#include <cstdlib>

#include "frame/frame.h"
#include "kwp2000/kwp2000.h"

namespace dv {
namespace {

IsoSettings gIsoSettings;
IsoLink gIsoLink;
VagIsoSimulator gSimulator;

// Grows a buffer to hold n bytes in steps of 256; keep copies the old contents over.
uint8_t *GrowBuffer(IsoBuffer &buffer, uint32_t n, bool keep) {
    if (n > buffer.capacity) {
        const uint32_t capacity = (n + 255) & ~255u;
        if (keep) {
            buffer.data = static_cast<uint8_t *>(std::realloc(buffer.data, capacity));
        } else {
            std::free(buffer.data);
            buffer.data = static_cast<uint8_t *>(std::malloc(capacity));
        }
        buffer.capacity = capacity;
    }
    return buffer.data;
}

void FreeBuffer(IsoBuffer &buffer) {
    std::free(buffer.data);
    buffer = IsoBuffer{};
}

} // namespace

IsoLink &IsoLinkState() {
    return gIsoLink;
}

VagIsoSimulator &VagIsoSimulatorState() {
    return gSimulator;
}

bool IsoIsSimulated() {
    return gIsoLink.targetAddress == kIsoSimulatedTarget;
}

void VagIsoResetSimulator() {
    gSimulator = VagIsoSimulator{};
}

void IsoLoadDefaultTiming() {
    gIsoLink.timing = IsoTiming{};
}

void IsoLoadSettingsTiming() {
    IsoTiming timing;
    timing.P1max = gIsoSettings.P1max;
    timing.P2min = std::max<uint32_t>(timing.P1max, 20) + 5;
    timing.P2max = gIsoSettings.P2max;
    timing.P3min = timing.P2max + 5;
    gIsoLink.timing = timing;
}

uint8_t *IsoAcquireRequestBuffer(uint32_t n) {
    gIsoLink.request.inUse = 1;
    return GrowBuffer(gIsoLink.request, n, false);
}

void IsoReleaseRequestBuffer() {
    gIsoLink.request.inUse = 0;
}

uint8_t *IsoAcquireResponseBuffer(uint32_t n) {
    gIsoLink.response.inUse = 1;
    return GrowBuffer(gIsoLink.response, n, false);
}

uint8_t *IsoGrowResponseBuffer(bool keep, uint32_t n) {
    if (!keep) {
        return IsoAcquireResponseBuffer(n);
    }
    return GrowBuffer(gIsoLink.response, n, true);
}

void IsoReleaseResponseBuffer() {
    gIsoLink.response.inUse = 0;
}

void IsoFreeBuffers() {
    FreeBuffer(gIsoLink.request);
    FreeBuffer(gIsoLink.response);
}

uint32_t IsoLayerSetUp() {
    gIsoSettings = IsoSettings{};
    IsoFreeBuffers();
    gIsoLink = IsoLink{};
    gIsoLink.testerAddress = gIsoSettings.testerAddress;
    gSimulator = VagIsoSimulator{};
    return 0;
}

void IsoLayerTearDown() {
    IsoFreeBuffers();
}

// The manufacturer services keep their simulator state in the link layer.
uint32_t VagIsoLayerSetUp() {
    return 0;
}

void VagIsoLayerTearDown() {}

// The frame has validated the values. A connection on the settings timing (key byte 1 bit 0x20)
// takes the new times at once.
void IsoApplySettings(const IsoSettings &settings) {
    gIsoSettings = settings;
    gIsoLink.testerAddress = settings.testerAddress;
    if (gIsoLink.connected != 0 && (gIsoLink.keyByte1 & kKb1ExtendedTiming) != 0) {
        IsoTiming &timing = gIsoLink.timing;
        timing.P1max = settings.P1max;
        timing.P2min = std::max<uint32_t>(settings.P1max, 20) + 5;
        timing.P2max = settings.P2max;
        timing.P3min = settings.P2max + 5;
    }
}

const IsoSettings &IsoSettingsInForce() {
    return gIsoSettings;
}

} // namespace dv
