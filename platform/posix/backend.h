// The functions of the posix backend, gathered into the seam's table by native.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "platform/platform.h"

namespace dv::posix {

// Clock (CLOCK_MONOTONIC, nanosecond counter).
bool CounterFrequency(int64_t *frequency);
int64_t CounterNow();
uint32_t TickCount();
void Sleep(uint32_t ms);
void SpinUntil(int64_t counter);

// Thread priority on the 256-level scale.
int32_t GetThreadPriority();
bool SetThreadPriority(int32_t priority);

// Serial port.
// The device path of a port name (see the ABI's port names), in UTF-8.
std::string PortDevicePath(const char16_t *name);
PortHandle PortOpen(const char16_t *name);
bool PortGetState(PortHandle port, CommState *state);
bool PortSetState(PortHandle port, const CommState *state);
bool PortGetTimeouts(PortHandle port, CommTimeouts *timeouts);
bool PortSetTimeouts(PortHandle port, const CommTimeouts *timeouts);
bool PortSetMask(PortHandle port, uint32_t mask);
bool PortSetupQueues(PortHandle port, uint32_t inQueue, uint32_t outQueue);
bool PortPurge(PortHandle port, uint32_t flags);
bool PortEscape(PortHandle port, Escape function);
bool PortClearError(PortHandle port, uint32_t *errors, uint32_t *inQueue);
bool PortRead(PortHandle port, uint8_t *buffer, uint32_t count, uint32_t *got);
bool PortWrite(PortHandle port, const uint8_t *bytes, uint32_t count, uint32_t *written);
bool PortClose(PortHandle port);

// The error of the most recent failing call: every failing function records errno (or the
// error it chose) at the moment of failure, before anything else can overwrite errno.
void RecordError(int error);
bool Fail(int error); // records error, returns false
bool FailErrno();     // records errno, returns false
uint32_t LastError();

} // namespace dv::posix
