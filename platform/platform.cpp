// Selection of the platform in force: the native backend unless another was installed. The
// native backend is reached through a thin routing table: port names with the "vecu:" prefix
// open an emulated ECU of the bench on the real clock, and calls with such a port's handle go
// to the bench; everything else goes to the native backend unchanged.
#include "platform/platform.h"

#include "bench/bench.h"

namespace dv {
namespace {

const Platform *gInstalled = nullptr;
bool gLastCallVecu = false; // whose last error lastError reports

const Platform &Route(PortHandle port) {
    gLastCallVecu = bench::VecuOwns(port);
    return gLastCallVecu ? bench::VecuPorts() : NativePlatform();
}

bool CounterFrequency(int64_t *frequency) {
    return NativePlatform().counterFrequency(frequency);
}
int64_t CounterNow() {
    return NativePlatform().counterNow();
}
uint32_t TickCount() {
    return NativePlatform().tickCount();
}
void Sleep(uint32_t ms) {
    NativePlatform().sleep(ms);
}
void SpinUntil(int64_t counter) {
    NativePlatform().spinUntil(counter);
}
int32_t GetThreadPriority() {
    return NativePlatform().getThreadPriority();
}
bool SetThreadPriority(int32_t priority) {
    return NativePlatform().setThreadPriority(priority);
}
int AnsiToWide(const char *src, int srcCount, char16_t *dst, int dstCount) {
    return NativePlatform().ansiToWide(src, srcCount, dst, dstCount);
}
void SeedRandom(uint32_t seed) {
    NativePlatform().seedRandom(seed);
}
int Random() {
    return NativePlatform().random();
}

PortHandle PortOpen(const char16_t *name) {
    gLastCallVecu = bench::VecuIsName(name);
    return gLastCallVecu ? bench::VecuPorts().portOpen(name) : NativePlatform().portOpen(name);
}
bool PortGetState(PortHandle port, CommState *state) {
    return Route(port).portGetState(port, state);
}
bool PortSetState(PortHandle port, const CommState *state) {
    return Route(port).portSetState(port, state);
}
bool PortGetTimeouts(PortHandle port, CommTimeouts *timeouts) {
    return Route(port).portGetTimeouts(port, timeouts);
}
bool PortSetTimeouts(PortHandle port, const CommTimeouts *timeouts) {
    return Route(port).portSetTimeouts(port, timeouts);
}
bool PortSetMask(PortHandle port, uint32_t mask) {
    return Route(port).portSetMask(port, mask);
}
bool PortSetupQueues(PortHandle port, uint32_t inQueue, uint32_t outQueue) {
    return Route(port).portSetupQueues(port, inQueue, outQueue);
}
bool PortPurge(PortHandle port, uint32_t flags) {
    return Route(port).portPurge(port, flags);
}
bool PortEscape(PortHandle port, Escape function) {
    return Route(port).portEscape(port, function);
}
bool PortClearError(PortHandle port, uint32_t *errors, uint32_t *inQueue) {
    return Route(port).portClearError(port, errors, inQueue);
}
bool PortRead(PortHandle port, uint8_t *buffer, uint32_t count, uint32_t *got) {
    return Route(port).portRead(port, buffer, count, got);
}
bool PortWrite(PortHandle port, const uint8_t *bytes, uint32_t count, uint32_t *written) {
    return Route(port).portWrite(port, bytes, count, written);
}
bool PortClose(PortHandle port) {
    return Route(port).portClose(port);
}
uint32_t LastError() {
    return gLastCallVecu ? bench::VecuPorts().lastError() : NativePlatform().lastError();
}

constexpr Platform kRouted = {
    CounterFrequency,  CounterNow,        TickCount,    Sleep,           SpinUntil,
    GetThreadPriority, SetThreadPriority, AnsiToWide,   SeedRandom,      Random,
    PortOpen,          PortGetState,      PortSetState, PortGetTimeouts, PortSetTimeouts,
    PortSetMask,       PortSetupQueues,   PortPurge,    PortEscape,      PortClearError,
    PortRead,          PortWrite,         PortClose,    LastError,
};

} // namespace

const Platform &PlatformGet() {
    return gInstalled != nullptr ? *gInstalled : kRouted;
}

void PlatformInstall(const Platform *platform) {
    gInstalled = platform;
}

} // namespace dv
