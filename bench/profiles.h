// The emulated ECUs the bench offers by name: profiles are data (an ECU's contents and timing)
// plus the model that plays them.
//
// A profile entry is a name, a one-line summary and a factory that makes a fresh ECU:
//     {"kw1281-engine", "KW1281 engine ECU, address 0x01, 10400 baud", MakeKw1281Engine}
// where the factory is a plain function `std::unique_ptr<EcuModel> Make...()` declared in the
// model's header. New ECUs are added as one line of the table in profiles.cpp.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "bench/ecu_model.h"

namespace dv::bench {

using EcuFactory = std::unique_ptr<EcuModel> (*)();

struct EcuProfileEntry {
    std::string_view name;    // as used by BenchInstall and after "vecu:"
    std::string_view summary; // for people (docs, the host program's port list)
    EcuFactory make;
};

// Every profile, in the order of the table.
std::span<const EcuProfileEntry> EcuProfiles();
// A fresh ECU of the named profile, or nullptr when there is none.
std::unique_ptr<EcuModel> MakeEcu(std::string_view name);

} // namespace dv::bench
