// The win32 backend: the real API named by the spec's platform interfaces.
#include <windows.h>

#include <cstdlib>

#include "platform/platform.h"
#include "platform/win32/backend.h"

namespace dv {
namespace win32 {
namespace {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "UTF-16 wchar_t");

uint32_t gLastError = 0;

// ---- clock ------------------------------------------------------------------------------

bool CounterFrequency(int64_t *frequency) {
    LARGE_INTEGER value;
    if (!QueryPerformanceFrequency(&value) || value.QuadPart == 0) {
        return Failed();
    }
    *frequency = value.QuadPart;
    return true;
}

int64_t CounterNow() {
    LARGE_INTEGER value;
    QueryPerformanceCounter(&value);
    return value.QuadPart;
}

uint32_t TickCount() {
    return GetTickCount();
}

void SleepFor(uint32_t ms) {
    ::Sleep(ms);
}

void SpinUntil(int64_t counter) {
    while (CounterNow() < counter) {
    }
}

// ---- text and random --------------------------------------------------------------------

int AnsiToWide(const char *src, int srcCount, char16_t *dst, int dstCount) {
    const int count =
        MultiByteToWideChar(CP_ACP, 0, src, srcCount, reinterpret_cast<wchar_t *>(dst), dstCount);
    if (count == 0) {
        Failed();
    }
    return count;
}

void SeedRandom(uint32_t seed) {
    std::srand(seed);
}

int Random() {
    return std::rand() & 0x7FFF;
}

// ---- serial port ------------------------------------------------------------------------

HANDLE H(PortHandle port) {
    return static_cast<HANDLE>(port);
}

PortHandle PortOpen(const char16_t *name) {
    const HANDLE handle =
        CreateFileW(reinterpret_cast<const wchar_t *>(name), GENERIC_READ | GENERIC_WRITE, 0,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        Failed();
        return kInvalidPort;
    }
    return handle;
}

// The DCB's bit fields, one by one, to and from the flag word at their DCB positions.
uint32_t FlagsOf(const DCB &d) {
    uint32_t flags = 0;
    flags |= d.fBinary ? dcb::kBinary : 0;
    flags |= d.fParity ? dcb::kParity : 0;
    flags |= d.fOutxCtsFlow ? dcb::kOutxCtsFlow : 0;
    flags |= d.fOutxDsrFlow ? dcb::kOutxDsrFlow : 0;
    flags |= static_cast<uint32_t>(d.fDtrControl) << dcb::kDtrControlShift;
    flags |= d.fDsrSensitivity ? dcb::kDsrSensitivity : 0;
    flags |= d.fTXContinueOnXoff ? dcb::kTxContinueOnXoff : 0;
    flags |= d.fOutX ? dcb::kOutX : 0;
    flags |= d.fInX ? dcb::kInX : 0;
    flags |= d.fErrorChar ? dcb::kErrorChar : 0;
    flags |= d.fNull ? dcb::kNull : 0;
    flags |= static_cast<uint32_t>(d.fRtsControl) << dcb::kRtsControlShift;
    flags |= d.fAbortOnError ? dcb::kAbortOnError : 0;
    flags |= static_cast<uint32_t>(d.fDummy2) << 15;
    return flags;
}

void SetFlags(DCB &d, uint32_t flags) {
    d.fBinary = (flags & dcb::kBinary) != 0;
    d.fParity = (flags & dcb::kParity) != 0;
    d.fOutxCtsFlow = (flags & dcb::kOutxCtsFlow) != 0;
    d.fOutxDsrFlow = (flags & dcb::kOutxDsrFlow) != 0;
    d.fDtrControl = (flags & dcb::kDtrControlMask) >> dcb::kDtrControlShift;
    d.fDsrSensitivity = (flags & dcb::kDsrSensitivity) != 0;
    d.fTXContinueOnXoff = (flags & dcb::kTxContinueOnXoff) != 0;
    d.fOutX = (flags & dcb::kOutX) != 0;
    d.fInX = (flags & dcb::kInX) != 0;
    d.fErrorChar = (flags & dcb::kErrorChar) != 0;
    d.fNull = (flags & dcb::kNull) != 0;
    d.fRtsControl = (flags & dcb::kRtsControlMask) >> dcb::kRtsControlShift;
    d.fAbortOnError = (flags & dcb::kAbortOnError) != 0;
    d.fDummy2 = flags >> 15;
}

bool PortGetState(PortHandle port, CommState *state) {
    DCB d{};
    d.DCBlength = sizeof d;
    if (!GetCommState(H(port), &d)) {
        return Failed();
    }
    state->baudRate = d.BaudRate;
    state->flags = FlagsOf(d);
    state->reserved = d.wReserved;
    state->xonLim = d.XonLim;
    state->xoffLim = d.XoffLim;
    state->byteSize = d.ByteSize;
    state->parity = d.Parity;
    state->stopBits = d.StopBits;
    state->xonChar = d.XonChar;
    state->xoffChar = d.XoffChar;
    state->errorChar = d.ErrorChar;
    state->eofChar = d.EofChar;
    state->evtChar = d.EvtChar;
    return true;
}

bool PortSetState(PortHandle port, const CommState *state) {
    DCB d{};
    d.DCBlength = sizeof d;
    d.BaudRate = state->baudRate;
    SetFlags(d, state->flags);
    d.wReserved = state->reserved;
    d.XonLim = state->xonLim;
    d.XoffLim = state->xoffLim;
    d.ByteSize = state->byteSize;
    d.Parity = state->parity;
    d.StopBits = state->stopBits;
    d.XonChar = state->xonChar;
    d.XoffChar = state->xoffChar;
    d.ErrorChar = state->errorChar;
    d.EofChar = state->eofChar;
    d.EvtChar = state->evtChar;
    return SetCommState(H(port), &d) || Failed();
}

bool PortGetTimeouts(PortHandle port, CommTimeouts *timeouts) {
    COMMTIMEOUTS t{};
    if (!GetCommTimeouts(H(port), &t)) {
        return Failed();
    }
    *timeouts = {t.ReadIntervalTimeout, t.ReadTotalTimeoutMultiplier, t.ReadTotalTimeoutConstant,
                 t.WriteTotalTimeoutMultiplier, t.WriteTotalTimeoutConstant};
    return true;
}

bool PortSetTimeouts(PortHandle port, const CommTimeouts *timeouts) {
    COMMTIMEOUTS t{timeouts->readInterval, timeouts->readMultiplier, timeouts->readConstant,
                   timeouts->writeMultiplier, timeouts->writeConstant};
    return SetCommTimeouts(H(port), &t) || Failed();
}

bool PortSetMask(PortHandle port, uint32_t mask) {
    return SetCommMask(H(port), mask) || Failed();
}

bool PortSetupQueues(PortHandle port, uint32_t inQueue, uint32_t outQueue) {
    return SetupComm(H(port), inQueue, outQueue) || Failed();
}

bool PortPurge(PortHandle port, uint32_t flags) {
    return PurgeComm(H(port), flags) || Failed();
}

bool PortEscape(PortHandle port, Escape function) {
    return EscapeCommFunction(H(port), static_cast<DWORD>(function)) || Failed();
}

bool PortClearError(PortHandle port, uint32_t *errors, uint32_t *inQueue) {
    DWORD flags = 0;
    COMSTAT status{};
    if (!ClearCommError(H(port), &flags, &status)) {
        return Failed();
    }
    *errors = flags;
    *inQueue = status.cbInQue;
    return true;
}

bool PortRead(PortHandle port, uint8_t *buffer, uint32_t count, uint32_t *got) {
    DWORD n = 0;
    const bool ok = ReadFile(H(port), buffer, count, &n, nullptr);
    *got = n;
    return ok || Failed();
}

bool PortWrite(PortHandle port, const uint8_t *bytes, uint32_t count, uint32_t *written) {
    DWORD n = 0;
    const bool ok = WriteFile(H(port), bytes, count, &n, nullptr);
    *written = n;
    return ok || Failed();
}

bool PortClose(PortHandle port) {
    return CloseHandle(H(port)) || Failed();
}

} // namespace

bool Failed() {
    gLastError = GetLastError();
    return false;
}

bool FailWith(uint32_t error) {
    gLastError = error;
    return false;
}

uint32_t LastError() {
    return gLastError;
}

namespace {
constexpr Platform kWin32Platform = {
    CounterFrequency, CounterNow,      TickCount,    SleepFor,        SpinUntil,
    GetThreadLevel,   SetThreadLevel,  AnsiToWide,   SeedRandom,      Random,
    PortOpen,         PortGetState,    PortSetState, PortGetTimeouts, PortSetTimeouts,
    PortSetMask,      PortSetupQueues, PortPurge,    PortEscape,      PortClearError,
    PortRead,         PortWrite,       PortClose,    LastError,
};
} // namespace
} // namespace win32

const Platform &NativePlatform() {
    return win32::kWin32Platform;
}

} // namespace dv
