// The virtual K-line bench: one tester, one adapter, one emulated ECU, as a platform backend.
//
// A discrete-event model. The tester's calls through the platform seam (write, read, break,
// sleep, spin) are events at the bench clock's current time; the adapter echoes every tester
// byte; bytes take 10 bit times at the sender's baud rate and reach the other side when their
// stop bit ends; a tester byte reaches the ECU (EcuModel::OnByte) and an ECU byte the tester's
// receive queue garbled when the two baud rates differ; a break pulls the line low
// (EcuModel::OnLineLevel), and each falling edge gives the tester one 0x00 byte with framing
// and break flags, as a KKL cable does. The ECU answers through EcuBus::Send and its timer.
//
// Clocks: virtual (sleeps, spins and read deadlines advance the clock at once; fully
// deterministic) or real (the same model in wall-clock time: every call advances the model to
// the real time, and reads sleep until the next event or deadline; no threads).
//
// Reads follow the Win32 COMMTIMEOUTS rules (Part 2.1), like the fake port of fake_platform.h.
// Times are counter ticks of kFakeTicksPerMs a millisecond on both clocks.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/ecu_model.h"
#include "bench/fake_platform.h"
#include "platform/platform.h"

namespace dv::bench {

enum class BenchClock { Virtual, Real };

// ---- trace ------------------------------------------------------------------------------------

enum class TraceKind : uint8_t {
    Open,        // the tester opened the port
    Close,       // the tester closed the port
    SetState,    // the tester set its port state (value: baud rate)
    SetTimeouts, // value: interval, extra: multiplier << 16 | constant (both cut to 16 bits)
    Purge,       // value: purge flags
    Escape,      // value: escape function
    LineLow,     // the break pulled the K-line low (a falling edge)
    LineHigh,    // the K-line went back high
    TesterByte,  // the tester's UART starts a byte on the line (value: the byte)
    EcuHears,    // a tester byte reaches the ECU (value: as the ECU's UART read it)
    EcuByte,     // the ECU starts a byte on the line (value: the byte; extra: kByteDropped...)
    Echo,        // the adapter's echo of a tester byte lands in the receive queue (value, extra:
                 // line error flags)
    BreakByte,   // the 0x00 of a falling edge lands in the receive queue (extra: error flags)
    TesterHears, // an ECU byte lands in the receive queue (value: as the tester's UART read it;
                 // extra: line error flags)
    Read,        // a read returned (value: bytes returned, extra: bytes asked)
    Sleep,       // value: ms
    Spin,        // value: ticks waited
    CallFails,   // an injected platform failure (value: FakeCall, extra: the error value)
    Note,        // the ECU's own words (note)
};

// EcuByte extra flags: what a fault did to the byte.
constexpr uint32_t kByteDropped = 1;
constexpr uint32_t kByteCorrupted = 2;

struct TraceEntry {
    TraceKind kind;
    int64_t at; // bench clock, counter ticks
    uint32_t value = 0;
    uint32_t extra = 0;
    std::string note; // Note entries only
};

// Every event so far, in time order (on the real clock, ECU events may be recorded a little
// after the tester call that made them visible).
const std::vector<TraceEntry> &BenchTrace();
void BenchTraceClear();
// The entries of one kind, and the bytes (value) of the entries of one kind, in order.
std::vector<TraceEntry> BenchTraceOf(TraceKind kind);
std::vector<uint8_t> BenchTraceBytes(TraceKind kind);
// The trace as text for a person, one event a line ("    2012.3400 ms  ECU byte     55").
std::string BenchTraceText();
// The name of a kind as BenchTraceText writes it.
std::string_view TraceKindName(TraceKind kind);

// ---- fault injection ---------------------------------------------------------------------------

// Byte-level faults on the line, counted from the installation (1-based): they apply to any
// ECU model. Faults that need the protocol (wrong complement, wrong keyword, silence for a
// request, a dropped link) belong to the ECU model (kw1281_ecu.h).
struct ByteFault {
    enum class Kind {
        DropEcuByte,       // the Nth ECU byte never reaches the tester
        CorruptEcuByte,    // the Nth ECU byte reaches the tester XORed with mask
        DropTesterByte,    // the Nth tester byte never reaches the ECU (the echo still comes)
        CorruptTesterByte, // the Nth tester byte reaches the ECU XORed with mask
    };
    Kind kind;
    int nth;
    uint8_t mask = 0xFF;
};

struct BenchFaults {
    std::vector<ByteFault> bytes;
    // Every ECU byte goes on the line this much later than the ECU asked (a slow ECU).
    uint32_t ecuLatencyMs = 0;
    // The Nth port or clock call of a kind fails with the given error value.
    std::array<FakeFailure, static_cast<int>(FakeCall::Count)> calls{};

    void DropEcuByte(int nth) { bytes.push_back({ByteFault::Kind::DropEcuByte, nth}); }
    void CorruptEcuByte(int nth, uint8_t mask) {
        bytes.push_back({ByteFault::Kind::CorruptEcuByte, nth, mask});
    }
    void DropTesterByte(int nth) { bytes.push_back({ByteFault::Kind::DropTesterByte, nth}); }
    void CorruptTesterByte(int nth, uint8_t mask) {
        bytes.push_back({ByteFault::Kind::CorruptTesterByte, nth, mask});
    }
    void Fail(FakeCall call, int nth, uint32_t error) {
        calls[static_cast<int>(call)] = {nth, error};
    }
};

// ---- installation ------------------------------------------------------------------------------

// Installs the bench with the ECU of a profile (profiles.h) as the platform; false when no
// profile has that name (nothing is installed then).
bool BenchInstall(std::string_view profile, BenchClock clock = BenchClock::Virtual);
// Installs the bench with a given ECU model as the platform.
void BenchInstall(std::unique_ptr<EcuModel> ecu, BenchClock clock = BenchClock::Virtual);
// Restores the native platform and drops the bench.
void BenchUninstall();
// The platform table of the bench for a clock (the real one uses the native clock).
const Platform &BenchPlatform(BenchClock clock);

// The ECU on the line (nullptr when no bench is set up), for model-specific faults and state.
EcuModel *BenchEcu();
BenchFaults &BenchFault();
// How many calls of a kind the tester made (failed ones included).
int BenchCallCount(FakeCall call);
// The bench clock now, in counter ticks (on the real clock: the model time of the last call).
int64_t BenchNow();
inline int64_t BenchNowMs() {
    return BenchNow() / kFakeTicksPerMs;
}
// Bytes in the tester's receive queue now.
uint32_t BenchQueued();
// Runs the model up to `at` (virtual clock: moves the clock there, as a sleep would).
void BenchRunUntil(int64_t at);
// Ticks of one byte (10 bit times) at a baud rate.
inline int64_t ByteTicksAt(uint32_t baud) {
    return baud == 0 ? 0 : 10 * kFakeFrequency / baud;
}

// ---- "vecu:" ports -----------------------------------------------------------------------------

// Port names with this prefix select an emulated ECU on the real clock: "vecu:kw1281-engine".
inline constexpr std::u16string_view kVecuPrefix = u"vecu:";
bool VecuIsName(const char16_t *name);
// The bench's port functions on the real clock, for the native platform's routing
// (platform.cpp): opening a "vecu:" name sets up a real-clock bench with that profile's ECU
// (error 2, file not found, for an unknown profile); the other port calls take its handle.
const Platform &VecuPorts();
bool VecuOwns(PortHandle port);

} // namespace dv::bench
