// The clock of the posix backend: CLOCK_MONOTONIC in nanoseconds as the performance counter.
#include <cerrno>
#include <ctime>

#include "platform/posix/backend.h"

namespace dv::posix {
namespace {
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kNsPerMs = 1'000'000;

timespec ToTimespec(int64_t ns) {
    return timespec{static_cast<time_t>(ns / kNsPerSecond), static_cast<long>(ns % kNsPerSecond)};
}
} // namespace

bool CounterFrequency(int64_t *frequency) {
    *frequency = kNsPerSecond;
    return true;
}

int64_t CounterNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec;
}

// GetTickCount: milliseconds, wrapping at 2^32 like the Win32 value.
uint32_t TickCount() {
    return static_cast<uint32_t>(CounterNow() / kNsPerMs);
}

// An absolute deadline, so that a signal interrupting the sleep does not lengthen it.
void Sleep(uint32_t ms) {
    const timespec deadline = ToTimespec(CounterNow() + static_cast<int64_t>(ms) * kNsPerMs);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

void SpinUntil(int64_t counter) {
    while (CounterNow() < counter) {
    }
}

} // namespace dv::posix
