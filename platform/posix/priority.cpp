// Thread priority on the 256-level scale of Windows CE (0 most urgent, 251 normal).
//
// Levels 0..247 are the real-time band: SCHED_FIFO, mapped linearly onto the FIFO priorities
// (0 -> the highest, 247 -> the lowest). Levels 248..255 are the time-shared band: SCHED_OTHER.
// The FIFO scale is coarser than the real-time band, so the level set is remembered per thread
// and read back as long as the thread's scheduling is still what that level made it. Where the
// process may not use SCHED_FIFO (EPERM) the thread keeps its priority and the call succeeds:
// timing is then best effort, as the spec's caller cannot do anything else about it.
#include <cerrno>
#include <pthread.h>
#include <sched.h>

#include "platform/posix/backend.h"

namespace dv::posix {
namespace {
constexpr int32_t kLowestRealTime = 247;
constexpr int32_t kNormal = 251;
constexpr int32_t kLowest = 255;

thread_local int32_t tLevel = kNormal;

int FifoPriority(int32_t level) {
    const int low = sched_get_priority_min(SCHED_FIFO);
    const int high = sched_get_priority_max(SCHED_FIFO);
    return high - static_cast<int>((static_cast<int64_t>(level) * (high - low)) / kLowestRealTime);
}

int32_t LevelOfFifo(int priority) {
    const int low = sched_get_priority_min(SCHED_FIFO);
    const int high = sched_get_priority_max(SCHED_FIFO);
    return static_cast<int32_t>((static_cast<int64_t>(high - priority) * kLowestRealTime) /
                                (high - low));
}
} // namespace

int32_t GetThreadPriority() {
    int policy = 0;
    sched_param param{};
    const int error = pthread_getschedparam(pthread_self(), &policy, &param);
    if (error != 0) {
        RecordError(error);
        return kPriorityError;
    }
    const bool realTime = policy == SCHED_FIFO || policy == SCHED_RR;
    if (realTime && tLevel <= kLowestRealTime && FifoPriority(tLevel) == param.sched_priority) {
        return tLevel;
    }
    if (realTime) {
        return LevelOfFifo(param.sched_priority);
    }
    return tLevel > kLowestRealTime ? tLevel : kNormal;
}

bool SetThreadPriority(int32_t priority) {
    if (priority < 0 || priority > kLowest) {
        return Fail(EINVAL);
    }
    sched_param param{};
    int policy = SCHED_OTHER;
    if (priority <= kLowestRealTime) {
        policy = SCHED_FIFO;
        param.sched_priority = FifoPriority(priority);
    }
    const int error = pthread_setschedparam(pthread_self(), policy, &param);
    if (error == EPERM && policy == SCHED_FIFO) {
        return true;
    }
    if (error != 0) {
        return Fail(error);
    }
    tLevel = priority;
    return true;
}

} // namespace dv::posix
