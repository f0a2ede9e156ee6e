// Selection of the platform in force: the native backend unless another was installed.
#include "platform/platform.h"

namespace dv {
namespace {
const Platform *gInstalled = nullptr;
}

const Platform &PlatformGet() { return gInstalled != nullptr ? *gInstalled : NativePlatform(); }

void PlatformInstall(const Platform *platform) { gInstalled = platform; }

} // namespace dv
