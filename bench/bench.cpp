// The virtual K-line bench (see bench.h): the event queue, the line and adapter, the tester's
// port under the Win32 rules, both clocks, faults, the trace and the "vecu:" ports.
#include "bench/bench.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <limits>
#include <map>
#include <utility>

#include "bench/profiles.h"

namespace dv::bench {
namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
constexpr int64_t kStartTicks = 1'000 * kFakeTicksPerMs; // 1 s, so that 0 stands out
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorInvalidHandle = 6;
constexpr uint32_t kDefaultBaud = 9600;

struct RxByte {
    int64_t at;
    uint8_t value;
};

struct Event {
    enum class Kind {
        TesterByteStart,
        TesterByteEnd,
        EcuByteStart,
        EcuByteEnd,
        Level,
        BreakByte,
        Timer
    };
    Kind kind;
    uint8_t value = 0;    // the byte (as sent)
    uint8_t mask = 0;     // tester bytes: XOR applied on the way to the ECU
    bool dropped = false; // never reaches the other side
    bool high = false;    // Level
    uint32_t baud = 0;    // the sender's baud rate
    uint64_t timer = 0;   // Timer: generation; tester bytes: their number
};

// A byte sent at one baud rate and sampled by a UART at another: the receiver samples each bit
// in the middle of its own bit time, counted from the start bit's falling edge.
struct Sampled {
    uint8_t value;
    bool framing;
};

Sampled Resample(uint8_t byte, uint32_t txBaud, uint32_t rxBaud) {
    // Within 2 % a UART reads the byte right.
    const int64_t diff = static_cast<int64_t>(txBaud) - rxBaud;
    if (txBaud == 0 || rxBaud == 0 || std::abs(diff) * 50 <= rxBaud) {
        return {byte, false};
    }
    auto level = [&](int sample) {
        const int64_t bit = (2 * static_cast<int64_t>(sample) + 1) * txBaud / (2 * rxBaud);
        if (bit == 0) {
            return 0;
        }
        if (bit >= 9) {
            return 1;
        }
        return (byte >> (bit - 1)) & 1;
    };
    uint8_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = static_cast<uint8_t>(value | (level(i + 1) << i));
    }
    return {value, level(9) == 0};
}

class Bench final : public EcuBus {
public:
    Bench(std::unique_ptr<EcuModel> model, BenchClock clockKind, std::string profileName)
        : ecu(std::move(model)), clock(clockKind), profile(std::move(profileName)) {
        if (clock == BenchClock::Real) {
            const Platform &native = NativePlatform();
            realCounter = native.counterFrequency(&realFrequency) && realFrequency > 0;
            if (!realCounter) {
                realFrequency = 1000; // no counter: the millisecond tick count
            }
            realOrigin = realCounter ? native.counterNow() : native.tickCount();
            traceOn = false;
        }
    }

    // ---- EcuBus ----
    int64_t Send(int64_t at, uint8_t byte) override {
        const int64_t start =
            std::max({at + static_cast<int64_t>(faults.ecuLatencyMs) * kFakeTicksPerMs, ecuTxFree,
                      dispatchTime});
        const int64_t end = start + ByteTicksAt(ecu->Baud());
        ecuTxFree = end;
        Event event{Event::Kind::EcuByteStart, byte};
        event.baud = ecu->Baud();
        ++ecuBytes;
        MarkByteFaults(event, ecuBytes, ByteFault::Kind::DropEcuByte,
                       ByteFault::Kind::CorruptEcuByte);
        Schedule(start, event);
        event.kind = Event::Kind::EcuByteEnd;
        Schedule(end, event);
        return end;
    }

    void SetTimer(int64_t at) override {
        ++timerGeneration;
        Event event{Event::Kind::Timer};
        event.timer = timerGeneration;
        Schedule(std::max(at, dispatchTime), event);
    }

    void CancelTimer() override { ++timerGeneration; }

    int64_t TicksPerMs() const override { return kFakeTicksPerMs; }

    void Note(int64_t at, std::string_view text) override {
        if (traceOn) {
            trace.push_back({TraceKind::Note, at, 0, 0, std::string(text)});
        }
    }

    // ---- model time ----
    void Record(TraceKind kind, int64_t at, uint32_t value = 0, uint32_t extra = 0) {
        if (traceOn) {
            trace.push_back({kind, at, value, extra, {}});
        }
    }

    // The byte faults asked for the nth byte of one direction: dropped or corrupted on the line.
    void MarkByteFaults(Event &event, int nth, ByteFault::Kind drop,
                        ByteFault::Kind corrupt) const {
        for (const ByteFault &fault : faults.bytes) {
            if (fault.nth != nth) {
                continue;
            }
            if (fault.kind == drop) {
                event.dropped = true;
            } else if (fault.kind == corrupt) {
                event.mask = fault.mask;
            }
        }
    }

    void Schedule(int64_t at, const Event &event) {
        events.emplace(std::make_pair(at, seq++), event);
    }

    int64_t NextEventAt() const { return events.empty() ? kNever : events.begin()->first.first; }

    // Runs every event due by `until`; the virtual clock then stands at `until`.
    void RunUntil(int64_t until) {
        while (!events.empty() && events.begin()->first.first <= until) {
            const auto it = events.begin();
            const int64_t at = it->first.first;
            const Event event = it->second;
            events.erase(it);
            dispatchTime = std::max(dispatchTime, at);
            Dispatch(at, event);
        }
        now = std::max(now, until);
    }

    int64_t RealNow() const {
        const Platform &native = NativePlatform();
        const int64_t raw =
            realCounter ? native.counterNow() : static_cast<int64_t>(native.tickCount());
        const int64_t delta = raw - realOrigin;
        return kStartTicks + delta / realFrequency * kFakeFrequency +
               delta % realFrequency * kFakeFrequency / realFrequency;
    }

    // Brings the model up to the clock's present.
    void Sync() {
        if (clock == BenchClock::Real) {
            RunUntil(std::max(now, RealNow()));
        } else {
            RunUntil(now);
        }
    }

    // Lets time pass until `target` (a read waiting): the virtual clock jumps, the real one
    // sleeps in whole milliseconds, never spinning.
    void WaitUntil(int64_t target) {
        if (clock == BenchClock::Virtual) {
            RunUntil(target);
            return;
        }
        for (int64_t real = RealNow(); real < target; real = RealNow()) {
            const int64_t ms = (target - real) / kFakeTicksPerMs;
            NativePlatform().sleep(static_cast<uint32_t>(std::clamp<int64_t>(ms, 1, 1000)));
        }
        RunUntil(RealNow());
    }

    void Dispatch(int64_t at, const Event &event) {
        switch (event.kind) {
        case Event::Kind::TesterByteStart: Record(TraceKind::TesterByte, at, event.value); break;
        case Event::Kind::TesterByteEnd: TesterByteEnds(at, event); break;
        case Event::Kind::EcuByteStart:
            Record(TraceKind::EcuByte, at, event.value,
                   (event.dropped ? kByteDropped : 0) | (event.mask != 0 ? kByteCorrupted : 0));
            break;
        case Event::Kind::EcuByteEnd: EcuByteEnds(at, event); break;
        case Event::Kind::Level:
            Record(event.high ? TraceKind::LineHigh : TraceKind::LineLow, at);
            ecu->OnLineLevel(*this, at, event.high);
            break;
        case Event::Kind::BreakByte:
            if (portOpen) {
                Receive(at, 0x00, kCeFrame | kCeBreak);
                Record(TraceKind::BreakByte, at, 0x00, kCeFrame | kCeBreak);
            }
            break;
        case Event::Kind::Timer:
            if (event.timer == timerGeneration) {
                ++timerGeneration;
                ecu->OnTimer(*this, at);
            }
            break;
        }
    }

    void Receive(int64_t at, uint8_t value, uint32_t errors) {
        rx.push_back({at, value});
        lineErrors |= errors;
    }

    void TesterByteEnds(int64_t at, const Event &event) {
        if (portOpen) {
            Receive(at, event.value, 0);
            Record(TraceKind::Echo, at, event.value);
        }
        if (event.dropped) {
            return;
        }
        const Sampled heard =
            Resample(static_cast<uint8_t>(event.value ^ event.mask), event.baud, ecu->Baud());
        Record(TraceKind::EcuHears, at, heard.value);
        ecu->OnByte(*this, at, heard.value);
    }

    void EcuByteEnds(int64_t at, const Event &event) {
        if (event.dropped || !portOpen) {
            return;
        }
        const Sampled heard =
            Resample(static_cast<uint8_t>(event.value ^ event.mask), event.baud, testerBaud);
        const uint32_t errors = heard.framing ? kCeFrame : 0;
        Receive(at, heard.value, errors);
        Record(TraceKind::TesterHears, at, heard.value, errors);
    }

    // ---- the tester's side ----
    void TesterWrites(uint8_t byte) {
        const int64_t start = std::max(now, testerTxFree);
        const int64_t end = start + ByteTicksAt(testerBaud);
        testerTxFree = end;
        Event event{Event::Kind::TesterByteStart, byte};
        event.baud = testerBaud;
        ++testerBytes;
        event.timer = static_cast<uint64_t>(testerBytes); // names the byte for a purge
        MarkByteFaults(event, testerBytes, ByteFault::Kind::DropTesterByte,
                       ByteFault::Kind::CorruptTesterByte);
        Schedule(start, event);
        event.kind = Event::Kind::TesterByteEnd;
        Schedule(end, event);
    }

    // Bytes the tester's UART has not begun are dropped by a transmit purge.
    void PurgeTransmit() {
        std::vector<uint64_t> unsent;
        for (const auto &[key, event] : events) {
            if (event.kind == Event::Kind::TesterByteStart && key.first > now) {
                unsent.push_back(event.timer);
            }
        }
        int64_t free = now;
        for (auto it = events.begin(); it != events.end();) {
            const Event &event = it->second;
            const bool tester = event.kind == Event::Kind::TesterByteStart ||
                                event.kind == Event::Kind::TesterByteEnd;
            if (tester && std::find(unsent.begin(), unsent.end(), event.timer) != unsent.end()) {
                it = events.erase(it);
                continue;
            }
            if (event.kind == Event::Kind::TesterByteEnd) {
                free = std::max(free, it->first.first);
            }
            ++it;
        }
        testerTxFree = free;
    }

    void SetLine(bool high) {
        Event event{Event::Kind::Level};
        event.high = high;
        Schedule(now, event);
        if (!high) {
            // The adapter's receiver sees a 0x00 with a framing error once the stop bit is due.
            Schedule(now + ByteTicksAt(testerBaud), Event{Event::Kind::BreakByte});
        }
    }

    std::unique_ptr<EcuModel> ecu;
    BenchClock clock;
    std::string profile;
    int64_t now = kStartTicks;
    int64_t dispatchTime = 0;
    int64_t realOrigin = 0;
    int64_t realFrequency = 0;
    bool realCounter = false;

    std::map<std::pair<int64_t, uint64_t>, Event> events;
    uint64_t seq = 0;
    uint64_t timerGeneration = 0;
    int64_t testerTxFree = 0;
    int64_t ecuTxFree = 0;
    int testerBytes = 0;
    int ecuBytes = 0;

    bool portOpen = false;
    CommState state{};
    CommTimeouts timeouts{};
    uint32_t testerBaud = kDefaultBaud;
    std::deque<RxByte> rx;
    uint32_t lineErrors = 0;
    bool breakOn = false;
    int32_t priority = 251;
    uint32_t randomState = 1;

    BenchFaults faults;
    std::array<int, static_cast<int>(FakeCall::Count)> calls{};
    bool traceOn = true;
    std::vector<TraceEntry> trace;
};

std::unique_ptr<Bench> gBench;
uint32_t gLastError = 0;
const std::vector<TraceEntry> kNoTrace;

// Counts the call and tells whether the tests asked it to fail.
bool Fails(FakeCall call) {
    if (!gBench) {
        return false;
    }
    const auto index = static_cast<int>(call);
    const int number = ++gBench->calls[index];
    const FakeFailure &failure = gBench->faults.calls[index];
    if (failure.nth != 0 && failure.nth == number) {
        gLastError = failure.error;
        gBench->Record(TraceKind::CallFails, gBench->now, static_cast<uint32_t>(index),
                       failure.error);
        return true;
    }
    return false;
}

// Every port call: the injected failure, the handle, and the model brought up to now.
bool PortCall(FakeCall call, PortHandle port) {
    if (!gBench) {
        gLastError = kErrorInvalidHandle;
        return false;
    }
    if (Fails(call)) {
        return false;
    }
    if (!gBench->portOpen || port != static_cast<PortHandle>(gBench.get())) {
        gLastError = kErrorInvalidHandle;
        return false;
    }
    gBench->Sync();
    return true;
}

// ---- virtual clock, priority, text, random ----

bool CounterFrequency(int64_t *frequency) {
    if (Fails(FakeCall::CounterFrequency)) {
        return false;
    }
    *frequency = kFakeFrequency;
    return true;
}

int64_t CounterNow() {
    return gBench ? gBench->now : kStartTicks;
}

uint32_t TickCount() {
    return static_cast<uint32_t>(CounterNow() / kFakeTicksPerMs);
}

void Sleep(uint32_t ms) {
    if (!gBench) {
        return;
    }
    gBench->Record(TraceKind::Sleep, gBench->now, ms);
    gBench->RunUntil(gBench->now + static_cast<int64_t>(ms) * kFakeTicksPerMs);
}

void SpinUntil(int64_t counter) {
    if (!gBench) {
        return;
    }
    const int64_t waited = std::max<int64_t>(0, counter - gBench->now);
    gBench->Record(TraceKind::Spin, gBench->now, static_cast<uint32_t>(waited));
    gBench->RunUntil(gBench->now + waited);
}

int32_t GetThreadPriority() {
    if (Fails(FakeCall::GetPriority)) {
        return kPriorityError;
    }
    return gBench ? gBench->priority : 251;
}

bool SetThreadPriority(int32_t priority) {
    if (Fails(FakeCall::SetPriority)) {
        return false;
    }
    if (priority < 0 || priority > 255) {
        gLastError = 87; // ERROR_INVALID_PARAMETER
        return false;
    }
    if (gBench) {
        gBench->priority = priority;
    }
    return true;
}

int AnsiToWide(const char *src, int srcCount, char16_t *dst, int dstCount) {
    if (Fails(FakeCall::AnsiToWide)) {
        return 0;
    }
    return Cp1252ToUtf16(src, srcCount, dst, dstCount);
}

void SeedRandom(uint32_t seed) {
    if (gBench) {
        gBench->randomState = seed;
    }
}

int Random() {
    if (!gBench) {
        return 0;
    }
    gBench->randomState = gBench->randomState * 214013u + 2531011u;
    return static_cast<int>((gBench->randomState >> 16) & 0x7FFF);
}

// ---- the port ----

PortHandle OpenBench() {
    if (Fails(FakeCall::Open)) {
        return kInvalidPort;
    }
    if (gBench->portOpen) {
        gLastError = kErrorAccessDenied; // exclusive, as CreateFileW without sharing
        return kInvalidPort;
    }
    gBench->Sync();
    gBench->portOpen = true;
    gBench->rx.clear();
    gBench->lineErrors = 0;
    gBench->Record(TraceKind::Open, gBench->now);
    return static_cast<PortHandle>(gBench.get());
}

PortHandle PortOpen(const char16_t *) {
    if (!gBench) {
        gLastError = kErrorFileNotFound;
        return kInvalidPort;
    }
    return OpenBench();
}

bool PortGetState(PortHandle port, CommState *state) {
    if (!PortCall(FakeCall::GetState, port)) {
        return false;
    }
    *state = gBench->state;
    return true;
}

bool PortSetState(PortHandle port, const CommState *state) {
    if (!PortCall(FakeCall::SetState, port)) {
        return false;
    }
    gBench->state = *state;
    if (state->baudRate != 0) {
        gBench->testerBaud = state->baudRate;
    }
    gBench->Record(TraceKind::SetState, gBench->now, state->baudRate);
    return true;
}

bool PortGetTimeouts(PortHandle port, CommTimeouts *timeouts) {
    if (!PortCall(FakeCall::GetTimeouts, port)) {
        return false;
    }
    *timeouts = gBench->timeouts;
    return true;
}

bool PortSetTimeouts(PortHandle port, const CommTimeouts *timeouts) {
    if (!PortCall(FakeCall::SetTimeouts, port)) {
        return false;
    }
    gBench->timeouts = *timeouts;
    gBench->Record(TraceKind::SetTimeouts, gBench->now, timeouts->readInterval,
                   (timeouts->readMultiplier & 0xFFFF) << 16 | (timeouts->readConstant & 0xFFFF));
    return true;
}

bool PortSetMask(PortHandle port, uint32_t) {
    return PortCall(FakeCall::SetMask, port);
}

bool PortSetupQueues(PortHandle port, uint32_t, uint32_t) {
    return PortCall(FakeCall::SetupQueues, port);
}

bool PortPurge(PortHandle port, uint32_t flags) {
    if (!PortCall(FakeCall::Purge, port)) {
        return false;
    }
    gBench->Record(TraceKind::Purge, gBench->now, flags);
    if ((flags & kPurgeRxClear) != 0) {
        gBench->rx.clear(); // only what has arrived: bytes on their way arrive later
    }
    if ((flags & kPurgeTxClear) != 0) {
        gBench->PurgeTransmit();
    }
    return true;
}

bool PortEscape(PortHandle port, Escape function) {
    if (!PortCall(FakeCall::Escape, port)) {
        return false;
    }
    gBench->Record(TraceKind::Escape, gBench->now, static_cast<uint32_t>(function));
    if (function == Escape::SetBreak && !gBench->breakOn) {
        gBench->breakOn = true;
        gBench->SetLine(false);
    } else if (function == Escape::ClrBreak && gBench->breakOn) {
        gBench->breakOn = false;
        gBench->SetLine(true);
    }
    return true;
}

bool PortClearError(PortHandle port, uint32_t *errors, uint32_t *inQueue) {
    if (!PortCall(FakeCall::ClearError, port)) {
        return false;
    }
    *errors = gBench->lineErrors;
    gBench->lineErrors = 0;
    *inQueue = static_cast<uint32_t>(gBench->rx.size());
    return true;
}

// ReadFile under COMMTIMEOUTS (Part 2.1): an interval of MAXDWORD with zero multiplier and
// constant returns at once with what is queued; otherwise the total limit is multiplier x count
// + constant ms (none when both are 0) and the interval limit runs between two bytes. A read
// with no limit returns when the model has nothing more that could bring a byte.
bool PortRead(PortHandle port, uint8_t *buffer, uint32_t count, uint32_t *got) {
    *got = 0;
    if (!PortCall(FakeCall::Read, port)) {
        return false;
    }
    Bench &b = *gBench;
    const CommTimeouts &t = b.timeouts;
    const bool immediate =
        t.readInterval == 0xFFFFFFFF && t.readMultiplier == 0 && t.readConstant == 0;
    const bool hasTotal = t.readMultiplier != 0 || t.readConstant != 0;
    const bool hasInterval = t.readInterval != 0 && t.readInterval != 0xFFFFFFFF;
    const int64_t start = b.now;
    const int64_t deadline =
        hasTotal ? start + (static_cast<int64_t>(t.readMultiplier) * count + t.readConstant) *
                               kFakeTicksPerMs
                 : kNever;
    const int64_t interval = static_cast<int64_t>(t.readInterval) * kFakeTicksPerMs;
    int64_t last = start;
    // On the real clock the model may have run past a limit while the tester slept: bytes that
    // arrived after it belong to the next read.
    int64_t cutoff = kNever;
    while (*got < count) {
        if (!b.rx.empty() && b.rx.front().at <= cutoff) {
            last = std::max(last, b.rx.front().at);
            buffer[(*got)++] = b.rx.front().value;
            b.rx.pop_front();
            continue;
        }
        if (immediate) {
            break;
        }
        int64_t limit = deadline;
        if (hasInterval && *got > 0) {
            limit = std::min(limit, last + interval);
        }
        const int64_t next = b.NextEventAt();
        if (next == kNever && limit == kNever) {
            break;
        }
        if (next > limit) {
            b.WaitUntil(limit);
            cutoff = limit;
            if (b.rx.empty() || b.rx.front().at > cutoff) {
                break;
            }
        } else {
            b.WaitUntil(next);
        }
    }
    b.Record(TraceKind::Read, b.now, *got, count);
    return true;
}

bool PortWrite(PortHandle port, const uint8_t *bytes, uint32_t count, uint32_t *written) {
    *written = 0;
    if (!PortCall(FakeCall::Write, port)) {
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        gBench->TesterWrites(bytes[i]);
    }
    *written = count;
    return true;
}

bool PortClose(PortHandle port) {
    if (!PortCall(FakeCall::Close, port)) {
        return false;
    }
    gBench->portOpen = false;
    gBench->rx.clear();
    gBench->Record(TraceKind::Close, gBench->now);
    return true;
}

uint32_t LastError() {
    return gLastError;
}

constexpr Platform kVirtualPlatform = {
    CounterFrequency,  CounterNow,        TickCount,    Sleep,           SpinUntil,
    GetThreadPriority, SetThreadPriority, AnsiToWide,   SeedRandom,      Random,
    PortOpen,          PortGetState,      PortSetState, PortGetTimeouts, PortSetTimeouts,
    PortSetMask,       PortSetupQueues,   PortPurge,    PortEscape,      PortClearError,
    PortRead,          PortWrite,         PortClose,    LastError,
};

// ---- the real clock: the native clock, thread priority, text and random generator ----

bool NativeCounterFrequency(int64_t *frequency) {
    return NativePlatform().counterFrequency(frequency);
}
int64_t NativeCounterNow() {
    return NativePlatform().counterNow();
}
uint32_t NativeTickCount() {
    return NativePlatform().tickCount();
}
void NativeSleep(uint32_t ms) {
    NativePlatform().sleep(ms);
}
void NativeSpinUntil(int64_t counter) {
    NativePlatform().spinUntil(counter);
}
int32_t NativeGetPriority() {
    return NativePlatform().getThreadPriority();
}
bool NativeSetPriority(int32_t priority) {
    return NativePlatform().setThreadPriority(priority);
}
int NativeAnsiToWide(const char *src, int srcCount, char16_t *dst, int dstCount) {
    return NativePlatform().ansiToWide(src, srcCount, dst, dstCount);
}
void NativeSeedRandom(uint32_t seed) {
    NativePlatform().seedRandom(seed);
}
int NativeRandom() {
    return NativePlatform().random();
}

constexpr Platform kRealPlatform = {
    NativeCounterFrequency,
    NativeCounterNow,
    NativeTickCount,
    NativeSleep,
    NativeSpinUntil,
    NativeGetPriority,
    NativeSetPriority,
    NativeAnsiToWide,
    NativeSeedRandom,
    NativeRandom,
    PortOpen,
    PortGetState,
    PortSetState,
    PortGetTimeouts,
    PortSetTimeouts,
    PortSetMask,
    PortSetupQueues,
    PortPurge,
    PortEscape,
    PortClearError,
    PortRead,
    PortWrite,
    PortClose,
    LastError,
};

// ---- "vecu:" ----

std::string AsciiName(const char16_t *name) {
    std::string text;
    for (; *name != 0; ++name) {
        text.push_back(*name < 0x80 ? static_cast<char>(*name) : '?');
    }
    return text;
}

PortHandle VecuOpen(const char16_t *name) {
    if (!VecuIsName(name)) {
        gLastError = kErrorFileNotFound;
        return kInvalidPort;
    }
    const std::string profile = AsciiName(name + kVecuPrefix.size());
    // The same ECU stays on the line between sessions, with what it stored.
    if (!gBench || gBench->clock != BenchClock::Real || gBench->profile != profile) {
        std::unique_ptr<EcuModel> ecu = MakeEcu(profile);
        if (!ecu) {
            gLastError = kErrorFileNotFound;
            return kInvalidPort;
        }
        gBench = std::make_unique<Bench>(std::move(ecu), BenchClock::Real, profile);
    }
    return OpenBench();
}

constexpr Platform kVecuPlatform = {
    NativeCounterFrequency,
    NativeCounterNow,
    NativeTickCount,
    NativeSleep,
    NativeSpinUntil,
    NativeGetPriority,
    NativeSetPriority,
    NativeAnsiToWide,
    NativeSeedRandom,
    NativeRandom,
    VecuOpen,
    PortGetState,
    PortSetState,
    PortGetTimeouts,
    PortSetTimeouts,
    PortSetMask,
    PortSetupQueues,
    PortPurge,
    PortEscape,
    PortClearError,
    PortRead,
    PortWrite,
    PortClose,
    LastError,
};

void Install(std::unique_ptr<EcuModel> ecu, BenchClock clock, std::string profile) {
    gBench = std::make_unique<Bench>(std::move(ecu), clock, std::move(profile));
    gBench->traceOn = true;
    gLastError = 0;
    PlatformInstall(&BenchPlatform(clock));
}

} // namespace

// ---- the public face ----

bool BenchInstall(std::string_view profile, BenchClock clock) {
    std::unique_ptr<EcuModel> ecu = MakeEcu(profile);
    if (!ecu) {
        return false;
    }
    Install(std::move(ecu), clock, std::string(profile));
    return true;
}

void BenchInstall(std::unique_ptr<EcuModel> ecu, BenchClock clock) {
    Install(std::move(ecu), clock, {});
}

void BenchUninstall() {
    PlatformInstall(nullptr);
    gBench.reset();
}

const Platform &BenchPlatform(BenchClock clock) {
    return clock == BenchClock::Virtual ? kVirtualPlatform : kRealPlatform;
}

EcuModel *BenchEcu() {
    return gBench ? gBench->ecu.get() : nullptr;
}

BenchFaults &BenchFault() {
    static BenchFaults none;
    return gBench ? gBench->faults : none;
}

int BenchCallCount(FakeCall call) {
    return gBench ? gBench->calls[static_cast<int>(call)] : 0;
}

int64_t BenchNow() {
    return gBench ? gBench->now : 0;
}

uint32_t BenchQueued() {
    if (!gBench) {
        return 0;
    }
    gBench->Sync();
    return static_cast<uint32_t>(gBench->rx.size());
}

void BenchRunUntil(int64_t at) {
    if (gBench) {
        gBench->WaitUntil(at);
    }
}

const std::vector<TraceEntry> &BenchTrace() {
    return gBench ? gBench->trace : kNoTrace;
}

void BenchTraceClear() {
    if (gBench) {
        gBench->trace.clear();
    }
}

std::vector<TraceEntry> BenchTraceOf(TraceKind kind) {
    std::vector<TraceEntry> result;
    for (const TraceEntry &entry : BenchTrace()) {
        if (entry.kind == kind) {
            result.push_back(entry);
        }
    }
    return result;
}

std::vector<uint8_t> BenchTraceBytes(TraceKind kind) {
    std::vector<uint8_t> result;
    for (const TraceEntry &entry : BenchTrace()) {
        if (entry.kind == kind) {
            result.push_back(static_cast<uint8_t>(entry.value));
        }
    }
    return result;
}

std::string_view TraceKindName(TraceKind kind) {
    switch (kind) {
    case TraceKind::Open: return "open";
    case TraceKind::Close: return "close";
    case TraceKind::SetState: return "baud";
    case TraceKind::SetTimeouts: return "timeouts";
    case TraceKind::Purge: return "purge";
    case TraceKind::Escape: return "escape";
    case TraceKind::LineLow: return "line low";
    case TraceKind::LineHigh: return "line high";
    case TraceKind::TesterByte: return "tester byte";
    case TraceKind::EcuHears: return "ECU hears";
    case TraceKind::EcuByte: return "ECU byte";
    case TraceKind::Echo: return "echo";
    case TraceKind::BreakByte: return "break byte";
    case TraceKind::TesterHears: return "tester hears";
    case TraceKind::Read: return "read";
    case TraceKind::Sleep: return "sleep";
    case TraceKind::Spin: return "spin";
    case TraceKind::CallFails: return "call fails";
    case TraceKind::Note: return "ECU";
    }
    return "?";
}

std::string BenchTraceText() {
    std::string text;
    char line[128];
    for (const TraceEntry &e : BenchTrace()) {
        const long long ms = e.at / kFakeTicksPerMs;
        const long long frac = e.at % kFakeTicksPerMs;
        const std::string name(TraceKindName(e.kind));
        int n = std::snprintf(line, sizeof line, "%9lld.%04lld ms  %-13s", ms, frac, name.c_str());
        switch (e.kind) {
        case TraceKind::TesterByte:
        case TraceKind::EcuHears:
        case TraceKind::Echo:
        case TraceKind::BreakByte:
        case TraceKind::TesterHears:
        case TraceKind::EcuByte:
            n += std::snprintf(line + n, sizeof line - n, "%02X", e.value);
            if (e.kind == TraceKind::EcuByte && e.extra != 0) {
                std::snprintf(line + n, sizeof line - n, "  (%s)",
                              (e.extra & kByteDropped) != 0 ? "dropped" : "corrupted");
            } else if (e.extra != 0) {
                std::snprintf(line + n, sizeof line - n, "  (%s%s)",
                              (e.extra & kCeFrame) != 0 ? "framing" : "",
                              (e.extra & kCeBreak) != 0 ? ", break" : "");
            }
            break;
        case TraceKind::Read:
            std::snprintf(line + n, sizeof line - n, "%u of %u", e.value, e.extra);
            break;
        case TraceKind::Sleep: std::snprintf(line + n, sizeof line - n, "%u ms", e.value); break;
        case TraceKind::Spin:
            std::snprintf(line + n, sizeof line - n, "%.4f ms",
                          static_cast<double>(e.value) / kFakeTicksPerMs);
            break;
        case TraceKind::Note: std::snprintf(line + n, sizeof line - n, "%s", e.note.c_str()); break;
        case TraceKind::Open:
        case TraceKind::Close:
        case TraceKind::LineLow:
        case TraceKind::LineHigh: break;
        case TraceKind::CallFails:
            std::snprintf(line + n, sizeof line - n, "call %u, error %u", e.value, e.extra);
            break;
        default: std::snprintf(line + n, sizeof line - n, "%u", e.value); break;
        }
        text += line;
        text += '\n';
    }
    return text;
}

bool VecuIsName(const char16_t *name) {
    return name != nullptr && std::u16string_view(name).starts_with(kVecuPrefix);
}

const Platform &VecuPorts() {
    return kVecuPlatform;
}

bool VecuOwns(PortHandle port) {
    return gBench && port == static_cast<PortHandle>(gBench.get());
}

} // namespace dv::bench
