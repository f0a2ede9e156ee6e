// The platform seam: one table of functions through which every layer reaches the OS.
//
// Its contract is the Win32 serial model the spec is written in (DCB, COMMTIMEOUTS,
// EscapeCommFunction, ClearCommError, PurgeComm), so that Parts 2.1 and 2.2 read the same on every
// platform. Backends: win32/ (the real API), posix/ (termios2 + poll), and the virtual K-line
// bench (bench/), which tests install with PlatformInstall.
#pragma once

#include <cstdint>

namespace dv {

using PortHandle = void *;
inline PortHandle const kInvalidPort = reinterpret_cast<PortHandle>(~static_cast<uintptr_t>(0));

// The port configuration in the shape of the Win32 DCB. `flags` holds the DCB bit fields at
// their DCB positions (fBinary bit 0 ... fAbortOnError bit 14, the rest kept as found).
struct CommState {
    uint32_t baudRate = 0;
    uint32_t flags = 0;
    uint16_t reserved = 0;
    uint16_t xonLim = 0;
    uint16_t xoffLim = 0;
    uint8_t byteSize = 8;
    uint8_t parity = 0;   // 0 none
    uint8_t stopBits = 0; // 0 one stop bit
    char xonChar = 0;
    char xoffChar = 0;
    char errorChar = 0;
    char eofChar = 0;
    char evtChar = 0;
};

// DCB flag bits.
namespace dcb {
constexpr uint32_t kBinary = 1u << 0;
constexpr uint32_t kParity = 1u << 1;
constexpr uint32_t kOutxCtsFlow = 1u << 2;
constexpr uint32_t kOutxDsrFlow = 1u << 3;
constexpr uint32_t kDtrControlShift = 4; // 2 bits: 0 disable, 1 enable, 2 handshake
constexpr uint32_t kDtrControlMask = 3u << kDtrControlShift;
constexpr uint32_t kDsrSensitivity = 1u << 6;
constexpr uint32_t kTxContinueOnXoff = 1u << 7;
constexpr uint32_t kOutX = 1u << 8;
constexpr uint32_t kInX = 1u << 9;
constexpr uint32_t kErrorChar = 1u << 10;
constexpr uint32_t kNull = 1u << 11;
constexpr uint32_t kRtsControlShift = 12; // 2 bits: 0 disable, 1 enable, 2 handshake, 3 toggle
constexpr uint32_t kRtsControlMask = 3u << kRtsControlShift;
constexpr uint32_t kAbortOnError = 1u << 14;
constexpr uint32_t kDefinedMask = (1u << 15) - 1; // bits 15..31 are fDummy2, kept as found
} // namespace dcb

// The Win32 COMMTIMEOUTS, in milliseconds.
struct CommTimeouts {
    uint32_t readInterval = 0;
    uint32_t readMultiplier = 0;
    uint32_t readConstant = 0;
    uint32_t writeMultiplier = 0;
    uint32_t writeConstant = 0;
};

// EscapeCommFunction codes (Win32 values).
enum class Escape : uint32_t {
    SetRts = 3,
    ClrRts = 4,
    SetDtr = 5,
    ClrDtr = 6,
    SetBreak = 8,
    ClrBreak = 9,
};

// PurgeComm flags (Win32 values).
constexpr uint32_t kPurgeTxClear = 0x0004;
constexpr uint32_t kPurgeRxClear = 0x0008;

// ClearCommError line error flags (Win32 values).
constexpr uint32_t kCeOverrun = 0x0002;
constexpr uint32_t kCeRxParity = 0x0004;
constexpr uint32_t kCeFrame = 0x0008;
constexpr uint32_t kCeBreak = 0x0010;

// The priority error value of the 256-level scale.
constexpr int32_t kPriorityError = 0x7FFFFFFF;

struct Platform {
    // Clock. counterFrequency returns false where the platform has no performance counter.
    bool (*counterFrequency)(int64_t *frequency);
    int64_t (*counterNow)();
    uint32_t (*tickCount)();
    void (*sleep)(uint32_t ms);
    // Busy-waits until counterNow() >= counter; a virtual clock jumps there at once.
    void (*spinUntil)(int64_t counter);

    // Thread priority on the 256-level scale (0 most urgent); kPriorityError on failure.
    int32_t (*getThreadPriority)();
    bool (*setThreadPriority)(int32_t priority);

    // ANSI code page to UTF-16 with the MultiByteToWideChar contract: returns the number of
    // UTF-16 units written (or needed when dstCount is 0), 0 on failure (a zero-length input
    // fails, as on Windows).
    int (*ansiToWide)(const char *src, int srcCount, char16_t *dst, int dstCount);

    // C runtime random generator (0..32767), injectable so tests can pick the log key index.
    void (*seedRandom)(uint32_t seed);
    int (*random)();

    // Serial port. Every call returns false on failure and leaves the error for lastError.
    PortHandle (*portOpen)(const char16_t *name); // kInvalidPort on failure
    bool (*portGetState)(PortHandle port, CommState *state);
    bool (*portSetState)(PortHandle port, const CommState *state);
    bool (*portGetTimeouts)(PortHandle port, CommTimeouts *timeouts);
    bool (*portSetTimeouts)(PortHandle port, const CommTimeouts *timeouts);
    bool (*portSetMask)(PortHandle port, uint32_t mask);
    bool (*portSetupQueues)(PortHandle port, uint32_t inQueue, uint32_t outQueue);
    bool (*portPurge)(PortHandle port, uint32_t flags);
    bool (*portEscape)(PortHandle port, Escape function);
    // Line error flags (kCe...) since the last call, and the bytes waiting in the receive queue.
    bool (*portClearError)(PortHandle port, uint32_t *errors, uint32_t *inQueue);
    // ReadFile under the current CommTimeouts; *got may be < count on a timeout.
    bool (*portRead)(PortHandle port, uint8_t *buffer, uint32_t count, uint32_t *got);
    bool (*portWrite)(PortHandle port, const uint8_t *bytes, uint32_t count, uint32_t *written);
    bool (*portClose)(PortHandle port);

    // The platform error value of the most recent failing call (GetLastError / errno).
    uint32_t (*lastError)();
};

// The platform every layer uses: the native one unless a test or the bench installed another.
const Platform &PlatformGet();
// Installs a platform (nullptr restores the native one). Not thread-safe, like the library.
void PlatformInstall(const Platform *platform);
// The native backend of this build (posix or win32); defined by the backend's files.
const Platform &NativePlatform();

} // namespace dv

namespace dv {
// Windows-1252 to UTF-16 with the MultiByteToWideChar contract: the ANSI code page of the posix
// and bench backends. Bytes 0x81, 0x8D, 0x8F, 0x90, 0x9D map to the same code points as Windows.
int Cp1252ToUtf16(const char *src, int srcCount, char16_t *dst, int dstCount);
} // namespace dv
