// The exchange section and the clock (Part 1.4).
#include "frame/frame.h"
#include "frame/state.h"

namespace dv {
namespace {
constexpr int32_t kRaisedPriority = 64;
} // namespace

uint32_t ExchangeBegin() {
    gFrame.logLength = 0;
    gFrame.buffering = true;
    const Platform &platform = PlatformGet();
    gFrame.savedPriority = platform.getThreadPriority();
    if (gFrame.savedPriority == kPriorityError) {
        LogFlush();
        return 1;
    }
    if (platform.setThreadPriority(kRaisedPriority)) {
        return 0;
    }
    LogMessage(1, u"Could not set thread priority (0x%08X)\r\n", platform.lastError());
    gFrame.savedPriority = kPriorityError;
    LogFlush();
    return 1;
}

void ExchangeEnd() {
    // With no priority saved this asks for 0x7FFFFFFF, which the platform refuses quietly.
    PlatformGet().setThreadPriority(gFrame.savedPriority);
    gFrame.savedPriority = kPriorityError;
    LogFlush();
}

void DelayMs(uint32_t ms) {
    if (ms == 0) {
        return;
    }
    const Platform &platform = PlatformGet();
    const int64_t start = platform.counterNow();
    platform.spinUntil(start + static_cast<int64_t>(ms) * gFrame.ticksPerMs);
}

void SleepMs(uint32_t ms) {
    PlatformGet().sleep(ms);
}

uint32_t SwapBytes16(uint32_t v) {
    return ((v >> 8) | (v << 8)) & 0xFFFF;
}

int64_t TicksPerMs() {
    return gFrame.ticksPerMs;
}

int64_t CounterNow() {
    return PlatformGet().counterNow();
}

uint32_t TickCount() {
    return PlatformGet().tickCount();
}

} // namespace dv
