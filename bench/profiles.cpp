// The table of emulated ECUs (see profiles.h and docs/bench.md).
#include "bench/profiles.h"

#include <array>

#include "bench/kw1281_ecu.h"
#include "bench/kwp2000_ecu.h"

namespace dv::bench {
namespace {

// One line an ECU.
constexpr std::array kProfiles = {
    EcuProfileEntry{"kw1281-engine", "KW1281 engine ECU, address 0x01, 10400 baud, keyword 0x8A01",
                    MakeKw1281Engine},
    EcuProfileEntry{"kw1281-cluster",
                    "KW1281 instrument cluster, address 0x17, 9600 baud, keyword 0x8089",
                    MakeKw1281Cluster},
    EcuProfileEntry{"kwp2000-engine",
                    "KWP2000 engine ECU, module 0x01, target 0x10, 10400 baud, key bytes EF 8F",
                    MakeKwp2000Engine},
};

} // namespace

std::span<const EcuProfileEntry> EcuProfiles() {
    return kProfiles;
}

std::unique_ptr<EcuModel> MakeEcu(std::string_view name) {
    for (const EcuProfileEntry &entry : kProfiles) {
        if (entry.name == name) {
            return entry.make();
        }
    }
    return nullptr;
}

} // namespace dv::bench
