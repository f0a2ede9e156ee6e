// The win32 backend's shared pieces: the error record of failing calls, the thread priority.
#pragma once

#include <cstdint>

namespace dv::win32 {

// Records GetLastError() of the call that just failed and returns false, so that the value is
// the one of the failure even if later calls (unwinding, logging) change the thread's error.
bool Failed();
// Records an error chosen by the backend itself.
bool FailWith(uint32_t error);
uint32_t LastError();

// Thread priority on the 256-level scale (priority.cpp).
int32_t GetThreadLevel();
bool SetThreadLevel(int32_t level);

} // namespace dv::win32
