// The KW1281 layer's set-up and tear-down (Part 1.1 step 6) and its settings sub-block (1.2).
#include "frame/frame.h"

namespace dv {
namespace {
KwSettings gKwSettings;
} // namespace

uint32_t KwLayerSetUp() {
    gKwSettings = KwSettings{};
    return 0;
}

void KwLayerTearDown() {}

void KwApplySettings(const KwSettings &settings) { gKwSettings = settings; }

const KwSettings &KwSettingsInForce() { return gKwSettings; }

} // namespace dv
