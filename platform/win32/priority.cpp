// Thread priority on the 256-level scale. Windows CE has the scale itself; desktop Windows has
// seven levels, so the real-time band (0..247) maps to THREAD_PRIORITY_TIME_CRITICAL and the
// CE levels 248..255 to the seven, and the level set is remembered per thread so that a saved
// level is given back exactly.
#include <windows.h>

#include "platform/platform.h"
#include "platform/win32/backend.h"

namespace dv::win32 {

#if defined(_WIN32_WCE)

int32_t GetThreadLevel() {
    const int level = CeGetThreadPriority(GetCurrentThread());
    if (level == THREAD_PRIORITY_ERROR_RETURN) {
        Failed();
        return kPriorityError;
    }
    return level;
}

bool SetThreadLevel(int32_t level) {
    return CeSetThreadPriority(GetCurrentThread(), level) || Failed();
}

#else

namespace {
constexpr int32_t kLowestRealTime = 247;

// CE levels 248..255 as desktop priorities (CE: time critical, highest, above normal, normal,
// below normal, lowest, above idle, idle).
constexpr int kDesktop[8] = {THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_HIGHEST,
                             THREAD_PRIORITY_ABOVE_NORMAL,  THREAD_PRIORITY_NORMAL,
                             THREAD_PRIORITY_BELOW_NORMAL,  THREAD_PRIORITY_LOWEST,
                             THREAD_PRIORITY_LOWEST,        THREAD_PRIORITY_IDLE};

int DesktopOf(int32_t level) {
    return level <= kLowestRealTime ? THREAD_PRIORITY_TIME_CRITICAL : kDesktop[level - 248];
}

thread_local int32_t tLevel = 251;
} // namespace

int32_t GetThreadLevel() {
    const int priority = GetThreadPriority(GetCurrentThread());
    if (priority == THREAD_PRIORITY_ERROR_RETURN) {
        Failed();
        return kPriorityError;
    }
    if (DesktopOf(tLevel) == priority) {
        return tLevel;
    }
    for (int32_t level = 248; level <= 255; ++level) {
        if (kDesktop[level - 248] == priority) {
            return level;
        }
    }
    return 251;
}

bool SetThreadLevel(int32_t level) {
    if (level < 0 || level > 255) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    if (!SetThreadPriority(GetCurrentThread(), DesktopOf(level))) {
        return Failed();
    }
    tLevel = level;
    return true;
}

#endif

} // namespace dv::win32
