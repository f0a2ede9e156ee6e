// The test backend: virtual clock and scriptable fake port (see fake_platform.h).
#include "bench/fake_platform.h"

#include <algorithm>

namespace dv::bench {
namespace {

FakeLine gFake;

constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorInvalidHandle = 6;

// Counts the call and tells whether the test asked it to fail.
bool Fails(FakeCall call) {
    const auto index = static_cast<int>(call);
    const int number = ++gFake.calls[index];
    const FakeFailure &failure = gFake.failures[index];
    if (failure.nth != 0 && failure.nth == number) {
        gFake.lastError = failure.error;
        return true;
    }
    return false;
}

bool PortCall(FakeCall call, PortHandle port) {
    if (Fails(call)) {
        return false;
    }
    if (!gFake.portOpen || port != static_cast<PortHandle>(&gFake)) {
        gFake.lastError = kErrorInvalidHandle;
        return false;
    }
    return true;
}

void Record(FakeEvent event) {
    gFake.events.push_back(std::move(event));
}

bool CounterFrequency(int64_t *frequency) {
    if (Fails(FakeCall::CounterFrequency) || !gFake.hasCounter) {
        return false;
    }
    *frequency = kFakeFrequency;
    return true;
}

int64_t CounterNow() {
    return gFake.now;
}

uint32_t TickCount() {
    return static_cast<uint32_t>(gFake.now / kFakeTicksPerMs);
}

void Sleep(uint32_t ms) {
    Record({FakeEvent::Kind::Sleep, gFake.now, {}, ms});
    gFake.now += static_cast<int64_t>(ms) * kFakeTicksPerMs;
}

void SpinUntil(int64_t counter) {
    Record({FakeEvent::Kind::Spin, gFake.now, {}, 0});
    gFake.now = std::max(gFake.now, counter);
}

int32_t GetThreadPriority() {
    if (Fails(FakeCall::GetPriority)) {
        return kPriorityError;
    }
    return gFake.priority;
}

bool SetThreadPriority(int32_t priority) {
    gFake.prioritySets.push_back(priority);
    if (Fails(FakeCall::SetPriority)) {
        return false;
    }
    if (priority < 0 || priority > 255) {
        gFake.lastError = 87; // ERROR_INVALID_PARAMETER, as the platform refuses 0x7FFFFFFF
        return false;
    }
    gFake.priority = priority;
    return true;
}

int AnsiToWide(const char *src, int srcCount, char16_t *dst, int dstCount) {
    if (Fails(FakeCall::AnsiToWide)) {
        return 0;
    }
    return Cp1252ToUtf16(src, srcCount, dst, dstCount);
}

void SeedRandom(uint32_t seed) {
    gFake.seed = seed;
    gFake.randomState = seed;
}

int Random() {
    if (!gFake.randomValues.empty()) {
        const int value = gFake.randomValues.front();
        gFake.randomValues.pop_front();
        return value;
    }
    gFake.randomState = gFake.randomState * 214013u + 2531011u;
    return static_cast<int>((gFake.randomState >> 16) & 0x7FFF);
}

PortHandle PortOpen(const char16_t *name) {
    if (Fails(FakeCall::Open)) {
        return kInvalidPort;
    }
    const std::u16string text = name != nullptr ? std::u16string(name) : std::u16string();
    if (std::find(gFake.missingPorts.begin(), gFake.missingPorts.end(), text) !=
        gFake.missingPorts.end()) {
        gFake.lastError = kErrorFileNotFound;
        return kInvalidPort;
    }
    gFake.portOpen = true;
    gFake.openedName = text;
    Record({FakeEvent::Kind::Open, gFake.now, {}, 0});
    return static_cast<PortHandle>(&gFake);
}

bool PortGetState(PortHandle port, CommState *state) {
    if (!PortCall(FakeCall::GetState, port)) {
        return false;
    }
    *state = gFake.state;
    return true;
}

bool PortSetState(PortHandle port, const CommState *state) {
    if (!PortCall(FakeCall::SetState, port)) {
        return false;
    }
    gFake.state = *state;
    if (state->baudRate != 0) {
        gFake.baud = state->baudRate;
    }
    FakeEvent event{FakeEvent::Kind::SetState, gFake.now, {}, 0};
    event.state = *state;
    Record(event);
    return true;
}

bool PortGetTimeouts(PortHandle port, CommTimeouts *timeouts) {
    if (!PortCall(FakeCall::GetTimeouts, port)) {
        return false;
    }
    *timeouts = gFake.timeouts;
    return true;
}

bool PortSetTimeouts(PortHandle port, const CommTimeouts *timeouts) {
    if (!PortCall(FakeCall::SetTimeouts, port)) {
        return false;
    }
    gFake.timeouts = *timeouts;
    FakeEvent event{FakeEvent::Kind::SetTimeouts, gFake.now, {}, 0};
    event.timeouts = *timeouts;
    Record(event);
    return true;
}

bool PortSetMask(PortHandle port, uint32_t mask) {
    if (!PortCall(FakeCall::SetMask, port)) {
        return false;
    }
    gFake.mask = mask;
    return true;
}

bool PortSetupQueues(PortHandle port, uint32_t inQueue, uint32_t outQueue) {
    if (!PortCall(FakeCall::SetupQueues, port)) {
        return false;
    }
    gFake.inQueueSize = inQueue;
    gFake.outQueueSize = outQueue;
    return true;
}

bool PortPurge(PortHandle port, uint32_t flags) {
    if (!PortCall(FakeCall::Purge, port)) {
        return false;
    }
    Record({FakeEvent::Kind::Purge, gFake.now, {}, flags});
    if ((flags & kPurgeRxClear) != 0) {
        // Only what has arrived is cleared; bytes still on their way arrive later.
        while (!gFake.input.empty() && gFake.input.front().at <= gFake.now) {
            gFake.input.pop_front();
        }
    }
    return true;
}

bool PortEscape(PortHandle port, Escape function) {
    if (!PortCall(FakeCall::Escape, port)) {
        return false;
    }
    Record({FakeEvent::Kind::Escape, gFake.now, {}, static_cast<uint32_t>(function)});
    switch (function) {
    case Escape::SetBreak:
        if (!gFake.breakOn && gFake.breakEchoes) {
            gFake.QueueInputAt(gFake.now + gFake.ByteTicks(), {0x00});
            gFake.lineErrors |= kCeFrame | kCeBreak;
        }
        gFake.breakOn = true;
        break;
    case Escape::ClrBreak: gFake.breakOn = false; break;
    case Escape::SetRts: gFake.rtsOn = true; break;
    case Escape::ClrRts: gFake.rtsOn = false; break;
    case Escape::SetDtr: gFake.dtrOn = true; break;
    case Escape::ClrDtr: gFake.dtrOn = false; break;
    }
    return true;
}

uint32_t QueuedNow() {
    uint32_t count = 0;
    for (const FakeInput &in : gFake.input) {
        if (in.at <= gFake.now) {
            ++count;
        }
    }
    return count;
}

bool PortClearError(PortHandle port, uint32_t *errors, uint32_t *inQueue) {
    if (!PortCall(FakeCall::ClearError, port)) {
        return false;
    }
    *errors = gFake.lineErrors;
    gFake.lineErrors = 0;
    *inQueue = QueuedNow();
    return true;
}

// ReadFile under COMMTIMEOUTS: an interval of MAXDWORD with zero multiplier and constant returns
// at once; otherwise the total limit is multiplier * count + constant (none when both are 0) and
// the interval limit applies between two bytes. A read with no limit at all would block for
// ever on Windows; the fake returns when its script has no more input.
bool PortRead(PortHandle port, uint8_t *buffer, uint32_t count, uint32_t *got) {
    *got = 0;
    if (!PortCall(FakeCall::Read, port)) {
        return false;
    }
    const CommTimeouts &t = gFake.timeouts;
    const bool immediate =
        t.readInterval == 0xFFFFFFFF && t.readMultiplier == 0 && t.readConstant == 0;
    const bool hasTotal = t.readMultiplier != 0 || t.readConstant != 0;
    const int64_t deadline =
        gFake.now +
        (static_cast<int64_t>(t.readMultiplier) * count + t.readConstant) * kFakeTicksPerMs;
    const int64_t interval = static_cast<int64_t>(t.readInterval) * kFakeTicksPerMs;
    int64_t cursor = gFake.now;
    FakeEvent event{FakeEvent::Kind::Read, gFake.now, {}, count};
    while (*got < count) {
        if (gFake.input.empty()) {
            if (!immediate && hasTotal) {
                cursor = deadline;
            }
            break;
        }
        const int64_t arrival = std::max(gFake.input.front().at, cursor);
        if (immediate && arrival > gFake.now) {
            break;
        }
        if (!immediate && hasTotal && arrival > deadline) {
            cursor = deadline;
            break;
        }
        if (!immediate && t.readInterval != 0 && *got > 0 && arrival - cursor > interval) {
            cursor += interval;
            break;
        }
        cursor = arrival;
        buffer[*got] = gFake.input.front().value;
        event.bytes.push_back(buffer[*got]);
        gFake.input.pop_front();
        ++*got;
    }
    gFake.now = std::max(gFake.now, cursor);
    Record(event);
    return true;
}

bool PortWrite(PortHandle port, const uint8_t *bytes, uint32_t count, uint32_t *written) {
    *written = 0;
    if (!PortCall(FakeCall::Write, port)) {
        return false;
    }
    std::vector<uint8_t> data(bytes, bytes + count);
    Record({FakeEvent::Kind::Write, gFake.now, data, 0});
    if (gFake.echoWrites) {
        for (uint32_t i = 0; i < count; ++i) {
            gFake.QueueInputAt(gFake.now + (i + 1) * gFake.ByteTicks(), {bytes[i]});
        }
    }
    *written = count;
    if (gFake.onWrite) {
        gFake.onWrite(gFake, data);
    }
    return true;
}

bool PortClose(PortHandle port) {
    if (!PortCall(FakeCall::Close, port)) {
        return false;
    }
    gFake.portOpen = false;
    Record({FakeEvent::Kind::Close, gFake.now, {}, 0});
    return true;
}

uint32_t LastError() {
    return gFake.lastError;
}

constexpr Platform kFakePlatform = {
    CounterFrequency,  CounterNow,        TickCount,    Sleep,           SpinUntil,
    GetThreadPriority, SetThreadPriority, AnsiToWide,   SeedRandom,      Random,
    PortOpen,          PortGetState,      PortSetState, PortGetTimeouts, PortSetTimeouts,
    PortSetMask,       PortSetupQueues,   PortPurge,    PortEscape,      PortClearError,
    PortRead,          PortWrite,         PortClose,    LastError,
};

} // namespace

void FakeLine::QueueInput(std::initializer_list<uint8_t> bytes, int64_t atMs) {
    const int64_t at = atMs < 0 ? now : atMs * kFakeTicksPerMs;
    QueueInputAt(at, std::vector<uint8_t>(bytes));
}

void FakeLine::QueueInputAt(int64_t atTicks, const std::vector<uint8_t> &bytes) {
    for (uint8_t value : bytes) {
        // Keep the queue in arrival order.
        auto it = std::upper_bound(input.begin(), input.end(), atTicks,
                                   [](int64_t t, const FakeInput &in) { return t < in.at; });
        input.insert(it, FakeInput{atTicks, value});
    }
}

std::vector<const FakeEvent *> FakeLine::EventsOf(FakeEvent::Kind kind) const {
    std::vector<const FakeEvent *> result;
    for (const FakeEvent &event : events) {
        if (event.kind == kind) {
            result.push_back(&event);
        }
    }
    return result;
}

std::vector<uint8_t> FakeLine::Written() const {
    std::vector<uint8_t> result;
    for (const FakeEvent &event : events) {
        if (event.kind == FakeEvent::Kind::Write) {
            result.insert(result.end(), event.bytes.begin(), event.bytes.end());
        }
    }
    return result;
}

FakeLine &Fake() {
    return gFake;
}

void FakeInstall() {
    gFake = FakeLine{};
    PlatformInstall(&kFakePlatform);
}

void FakeUninstall() {
    PlatformInstall(nullptr);
}

const Platform &FakePlatform() {
    return kFakePlatform;
}

} // namespace dv::bench
