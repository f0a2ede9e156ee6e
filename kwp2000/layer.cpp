// The KWP2000 layers' set-up and tear-down (Part 1.1 step 6) and their settings sub-block (1.2).
#include "frame/frame.h"

namespace dv {
namespace {
IsoSettings gIsoSettings;
} // namespace

uint32_t IsoLayerSetUp() {
    gIsoSettings = IsoSettings{};
    return 0;
}

void IsoLayerTearDown() {}

// The manufacturer services keep no state of their own.
uint32_t VagIsoLayerSetUp() { return 0; }

void VagIsoLayerTearDown() {}

void IsoApplySettings(const IsoSettings &settings) { gIsoSettings = settings; }

const IsoSettings &IsoSettingsInForce() { return gIsoSettings; }

} // namespace dv
