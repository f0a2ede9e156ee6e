// The test backend: a virtual clock and a scriptable fake port behind the platform seam.
//
// Sleeps and spins advance the virtual clock at once, so tests of the line primitives and the
// frame run in microseconds and can assert the virtual time of every wait. The port serves
// queued input bytes at their arrival times under the Win32 read-timeout rules, records every
// write and escape call, and can make the Nth call of any kind fail with a chosen error value.
// The virtual K-line bench (bench.h) grows out of this: it uses the same clock.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace dv::bench {

// Performance-counter ticks per second of the virtual clock (100 ns ticks, as on Windows).
constexpr int64_t kFakeFrequency = 10'000'000;
constexpr int64_t kFakeTicksPerMs = kFakeFrequency / 1000;

// Every platform call of the seam, for failure injection and call counting.
enum class FakeCall : int {
    CounterFrequency,
    GetPriority,
    SetPriority,
    AnsiToWide,
    Open,
    GetState,
    SetState,
    GetTimeouts,
    SetTimeouts,
    SetMask,
    SetupQueues,
    Purge,
    Escape,
    ClearError,
    Read,
    Write,
    Close,
    Count
};

struct FakeInput {
    int64_t at; // virtual counter value at which the byte is in the receive queue
    uint8_t value;
};

// One recorded event, with its virtual time in counter ticks.
struct FakeEvent {
    enum class Kind { Open, Close, Write, Read, Escape, Purge, Sleep, Spin, SetTimeouts, SetState };
    Kind kind;
    int64_t at;
    std::vector<uint8_t> bytes; // Write: bytes written; Read: bytes returned
    uint32_t value = 0;         // Escape: function; Purge: flags; Sleep: ms; Read: count asked
    CommTimeouts timeouts{};    // SetTimeouts
    CommState state{};          // SetState
};

struct FakeFailure {
    int nth = 0;        // 1-based call number of its kind that fails; 0 = none
    uint32_t error = 0; // the platform error value reported for it
};

// The state of the fake platform: public, so tests script and inspect it directly.
struct FakeLine {
    // Clock.
    int64_t now = 1'000 * kFakeTicksPerMs; // counter value; starts at 1 s so that 0 stands out
    bool hasCounter = true;

    // Thread priority.
    int32_t priority = 251;
    std::vector<int32_t> prioritySets; // every value passed to setThreadPriority

    // Random generator: scripted values first, then a fixed LCG.
    std::deque<int> randomValues;
    uint32_t randomState = 1;
    uint32_t seed = 0;

    // Port.
    bool portOpen = false;
    std::u16string openedName;
    std::vector<std::u16string> missingPorts; // names whose open fails (ERROR_FILE_NOT_FOUND 2)
    CommState state{};
    CommTimeouts timeouts{};
    uint32_t mask = 0xFFFFFFFF;
    uint32_t inQueueSize = 0, outQueueSize = 0;
    std::deque<FakeInput> input;
    uint32_t lineErrors = 0; // reported and cleared by the next clear-error call
    bool breakOn = false;
    bool rtsOn = false;
    bool dtrOn = false;
    // Adapter behaviour: echo every byte written, and on a falling break edge queue one 0x00
    // with framing and break errors, as a KKL cable does.
    bool echoWrites = false;
    bool breakEchoes = false;
    uint32_t baud = 10400;
    // Called after every write with the bytes written, so a test can answer like an ECU.
    std::function<void(FakeLine &, const std::vector<uint8_t> &)> onWrite;

    // Failure injection and call counts.
    std::array<FakeFailure, static_cast<int>(FakeCall::Count)> failures{};
    std::array<int, static_cast<int>(FakeCall::Count)> calls{};
    uint32_t lastError = 0;

    std::vector<FakeEvent> events;

    // Helpers for tests.
    int64_t NowMs() const { return now / kFakeTicksPerMs; }
    void QueueInput(std::initializer_list<uint8_t> bytes, int64_t atMs = -1);
    void QueueInputAt(int64_t atTicks, const std::vector<uint8_t> &bytes);
    void Fail(FakeCall call, int nth, uint32_t error) {
        failures[static_cast<int>(call)] = {nth, error};
    }
    int CallCount(FakeCall call) const { return calls[static_cast<int>(call)]; }
    std::vector<const FakeEvent *> EventsOf(FakeEvent::Kind kind) const;
    std::vector<uint8_t> Written() const; // every byte written, in order
    int64_t ByteTicks() const { return 10 * kFakeFrequency / baud; }
};

// The fake's state (one per process, like the library's).
FakeLine &Fake();
// Resets the fake to its initial state and installs it as the platform.
void FakeInstall();
// Restores the native platform.
void FakeUninstall();
// The seam table of the fake, for backends that reuse its clock.
const Platform &FakePlatform();

} // namespace dv::bench
