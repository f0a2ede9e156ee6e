// Part 2.2: the line transfer primitives and the two slow signals on the break line.
#include "frame/frame.h"
#include "serial/serial.h"

namespace dv {
namespace {

constexpr uint32_t kSlowBitMargin = 20; // ms of a slow bit busy-waited instead of slept
constexpr uint32_t kLineErrorFlags = kCeFrame | kCeBreak;

bool Admits(uint32_t level) {
    return LogLevel() >= level;
}

int64_t Ticks(uint32_t ms) {
    return static_cast<int64_t>(ms) * TicksPerMs();
}

uint32_t LastError() {
    return PlatformGet().lastError();
}

struct LineStatus {
    uint32_t errors = 0;
    uint32_t queued = 0;
};

uint32_t ReadStatus(LineStatus *status) {
    if (!PlatformGet().portClearError(PortCurrentHandle(), &status->errors, &status->queued)) {
        LogMessage(1, u"Could not clear communication port error (0x%08X)\r\n", LastError());
        return 5;
    }
    return 0;
}

// One bit on the break line, '0' as break + RTS raised, '1' as both released. The bit starts
// at *start and lasts holdMs; *start becomes the end of its wait, the start of the next bit.
// `midway` runs after the sleep, before the final busy-wait.
template <typename Midway>
uint32_t SendSlowBit(bool one, uint32_t holdMs, int64_t *start, Midway midway) {
    const Platform &platform = PlatformGet();
    if (Admits(3)) {
        LogMessage(3, one ? u"<<< [.1] '1' %s" : u"<<< [.1] '0' %s", LogTimestampText());
    }
    const PortHandle port = PortCurrentHandle();
    const bool done = one ? platform.portEscape(port, Escape::ClrBreak) &&
                                platform.portEscape(port, Escape::ClrRts)
                          : platform.portEscape(port, Escape::SetBreak) &&
                                platform.portEscape(port, Escape::SetRts);
    if (!done) {
        LogMessage(3, u" - Failed (0x%08X)\r\n", LastError());
        return 5;
    }
    if (Admits(3)) {
        LogMessage(3, u" - Ok [.1] %s\r\n", LogTimestampText());
    }
    // Unsigned on purpose: a hold under 20 ms wraps to a very long sleep, as specified.
    SleepMs(holdMs - kSlowBitMargin);
    if (const uint32_t code = midway(); code != 0) {
        return code;
    }
    platform.spinUntil(*start + Ticks(holdMs));
    *start = CounterNow();
    return 0;
}

uint32_t SendSlowBit(bool one, uint32_t holdMs, int64_t *start) {
    return SendSlowBit(one, holdMs, start, [] { return 0u; });
}

// Steps 6 and 7 of LineSendAddress, shared by LineSendWakeUp: the status line and whether the
// adapter's echo can be trusted.
bool EchoKnown(const LineStatus &before, const LineStatus &after) {
    const uint32_t n = after.queued - before.queued;
    if (Admits(4)) {
        LogMessage(4, u"Status 0x%08X, size %u\r\n", after.errors, n);
    }
    return !(n > 1 || (n == 0 && (after.errors & kLineErrorFlags) != 0));
}

// The start bit, with the second status read after its sleep.
uint32_t SendStartBit(uint32_t holdMs, int64_t *start, LineStatus *after) {
    return SendSlowBit(false, holdMs, start, [after] { return ReadStatus(after); });
}

} // namespace

uint32_t LineWrite(uint32_t traceLevel, uint32_t count, const uint8_t *bytes) {
    const Platform &platform = PlatformGet();
    if (Admits(traceLevel)) {
        LogMessage(traceLevel, u"<<< [%u] %s %s", count, HexText(bytes, count), LogTimestampText());
    }
    const uint32_t delay = PortByteDelay();
    uint32_t written = 0;
    if (delay == 0) {
        if (!platform.portWrite(PortCurrentHandle(), bytes, count, &written)) {
            LogMessage(traceLevel, u" - Failed (0x%08X)\r\n", LastError());
            return 5;
        }
    } else {
        int64_t start = CounterNow();
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t one = 0;
            if (!platform.portWrite(PortCurrentHandle(), bytes + i, 1, &one)) {
                LogMessage(traceLevel, u" - Failed (0x%08X)\r\n", LastError());
                return 5;
            }
            if (one == 0) {
                break;
            }
            platform.spinUntil(start + Ticks(delay));
            start = CounterNow();
            ++written;
        }
    }
    if (Admits(traceLevel)) {
        LogMessage(traceLevel, u" - Ok [%u] %s\r\n", written, LogTimestampText());
    }
    return written < count ? 5 : 0;
}

uint32_t LineRead(uint32_t traceLevel, uint32_t count, uint8_t *buffer, uint32_t *got) {
    if (Admits(traceLevel)) {
        LogMessage(traceLevel, u">>> [%u] %s", count, LogTimestampText());
    }
    if (!PlatformGet().portRead(PortCurrentHandle(), buffer, count, got)) {
        LogMessage(traceLevel, u" - Failed (0x%08X)\r\n", LastError());
        return 5;
    }
    if (Admits(traceLevel)) {
        LogMessage(traceLevel, u" - Ok [%u] %s %s\r\n", *got, HexText(buffer, *got),
                   LogTimestampText());
    }
    return 0;
}

uint32_t LineWaitForInput(uint32_t count, uint32_t *queued) {
    const Platform &platform = PlatformGet();
    if (Admits(4)) {
        LogMessage(4, u"=== [%u] %s", count, LogTimestampText());
    }
    CommTimeouts timeouts{};
    if (!platform.portGetTimeouts(PortCurrentHandle(), &timeouts)) {
        LogMessage(4, u" - Failed (0x%08X)\r\n", LastError());
        return 5;
    }
    const int64_t deadline =
        (timeouts.readConstant + static_cast<int64_t>(timeouts.readMultiplier) * count) *
        TicksPerMs();
    const int64_t start = CounterNow();
    for (;;) {
        uint32_t errors = 0;
        uint32_t inQueue = 0;
        if (!platform.portClearError(PortCurrentHandle(), &errors, &inQueue)) {
            LogMessage(4, u" - Failed (0x%08X)\r\n", LastError());
            return 5;
        }
        if (inQueue >= count || CounterNow() - start >= deadline) {
            *queued = inQueue;
            if (Admits(4)) {
                LogMessage(4, u" - Ok [%u] %s\r\n", inQueue, LogTimestampText());
            }
            return 0;
        }
        SleepMs(1);
    }
}

uint32_t LineSendAddress(uint32_t bitTimeMs, uint8_t address, int32_t *echo) {
    LineStatus before;
    LineStatus after;
    if (const uint32_t code = ReadStatus(&before); code != 0) {
        return code;
    }
    int64_t start = CounterNow();
    if (const uint32_t code = SendStartBit(bitTimeMs, &start, &after); code != 0) {
        return code;
    }
    // Seven data bits, least significant first, then odd parity; a falling edge is a '0' after
    // a '1' (the start bit's edge is the first).
    int32_t edges = 1;
    bool previous = false;
    uint32_t ones = 0;
    for (int i = 0; i < 8; ++i) {
        const bool bit = i < 7 ? ((address >> i) & 1) != 0 : (ones % 2) == 0;
        ones += bit ? 1 : 0;
        if (previous && !bit) {
            ++edges;
        }
        previous = bit;
        if (const uint32_t code = SendSlowBit(bit, bitTimeMs, &start); code != 0) {
            return code;
        }
    }
    if (const uint32_t code = SendSlowBit(true, bitTimeMs / 2, &start); code != 0) {
        return code;
    }
    *echo = EchoKnown(before, after) ? edges : -1;
    return 0;
}

uint32_t LineSendWakeUp(uint32_t ms, int32_t *echo) {
    LineStatus before;
    LineStatus after;
    if (const uint32_t code = ReadStatus(&before); code != 0) {
        return code;
    }
    int64_t start = CounterNow();
    if (const uint32_t code = SendStartBit(ms, &start, &after); code != 0) {
        return code;
    }
    if (const uint32_t code = SendSlowBit(true, ms, &start); code != 0) {
        return code;
    }
    *echo = EchoKnown(before, after) ? 1 : -1;
    return 0;
}

} // namespace dv
