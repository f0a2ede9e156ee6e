// The posix backend's table and its error record.
#include <cerrno>
#include <cstdlib>

#include "platform/posix/backend.h"

namespace dv {
namespace posix {
namespace {
uint32_t gLastError = 0;

// The C runtime generator: rand() is 0..RAND_MAX, cut to the 0..32767 of the spec.
void SeedRandom(uint32_t seed) {
    std::srand(seed);
}
int Random() {
    return std::rand() & 0x7FFF;
}

constexpr Platform kPosixPlatform = {
    CounterFrequency,  CounterNow,        TickCount,     Sleep,           SpinUntil,
    GetThreadPriority, SetThreadPriority, Cp1252ToUtf16, SeedRandom,      Random,
    PortOpen,          PortGetState,      PortSetState,  PortGetTimeouts, PortSetTimeouts,
    PortSetMask,       PortSetupQueues,   PortPurge,     PortEscape,      PortClearError,
    PortRead,          PortWrite,         PortClose,     LastError,
};
} // namespace

void RecordError(int error) {
    gLastError = static_cast<uint32_t>(error);
}

bool Fail(int error) {
    RecordError(error);
    return false;
}

bool FailErrno() {
    return Fail(errno);
}

uint32_t LastError() {
    return gLastError;
}

} // namespace posix

const Platform &NativePlatform() {
    return posix::kPosixPlatform;
}

} // namespace dv
