// KWP2000 connection handling shared by the kwp, scan, live and record commands.
#include "kwp2000_session.h"

#include <cstdio>

namespace dvtool {

void AddKwpTargetOptions(CLI::App &command, KwpTarget &target) {
    command.add_option("-p,--port", target.port,
                       "Serial port of the KKL cable (COM3, /dev/ttyUSB0) or an emulated ECU "
                       "(vecu:kwp2000-engine); without it the built-in simulator answers");
    target.moduleOption = command.add_option("-m,--module", target.module,
                                             "Manufacturer module address (0x01 engine, ...; 0x80 "
                                             "simulator)");
    target.addressOption = command.add_option("-a,--address", target.address,
                                              "KWP2000 ECU address (instead of --module)");
    target.moduleOption->excludes(target.addressOption);
    command.add_flag("--fast", target.fast, "Fast initialisation instead of the 5-baud one");
}

uint32_t KwpLink::Start(const KwpTarget &target) {
    port = target.port.empty() ? std::string("SIM") : target.port;
    fast = target.fast;
    const std::vector<DvChar> name = ToDvText(port);
    const uint32_t mode = target.fast ? 1 : 0;
    char text[128];
    uint32_t code = 0;
    if (target.addressOption->count() > 0) {
        std::snprintf(text, sizeof text, "address 0x%02X", target.address);
        how = text;
        std::snprintf(text, sizeof text, "Starting KWP2000 with ECU %02X on %s...", target.address,
                      port.c_str());
        Progress progress(text);
        code = DvIsoStartCommunication(name.data(), mode, target.address, &keepAlive);
    } else {
        const uint32_t module = target.moduleOption->count() > 0
                                    ? target.module
                                    : (target.port.empty() ? 0x80u : 0x01u);
        std::snprintf(text, sizeof text, "module 0x%02X", module);
        how = text;
        std::snprintf(text, sizeof text, "Starting KWP2000 with module %02X on %s...", module,
                      port.c_str());
        Progress progress(text);
        code = DvVagIsoStartCommunication(name.data(), mode, module, &keepAlive);
    }
    started_ = code == 0;
    return code;
}

void KwpLink::Stop() {
    if (started_) {
        started_ = false;
        DvIsoStopCommunication();
    }
}

uint32_t KwpReadDtcByStatus(uint32_t status, uint32_t group, std::vector<Dtc> &dtcs) {
    uint32_t count = 0;
    DtcEntry *entries = nullptr;
    const uint32_t code = group == 0
                              ? DvVagIsoReadDtcByStatus(status, &count, &entries)
                              : DvVagIsoReadDtcByStatusExtended(status, group, &count, &entries);
    dtcs.clear();
    // On a failure the library keeps (or has freed) what it allocated: nothing to free here.
    if (code == 0 && entries != nullptr) {
        for (uint32_t i = 0; i < count; ++i) {
            dtcs.push_back({entries[i].index, entries[i].code, entries[i].status});
        }
        DvFree(entries);
    }
    return code;
}

uint32_t KwpReadLocalId(uint32_t localId, std::vector<Reading> &readings) {
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    const uint32_t code = DvVagIsoReadDataByLocalId(localId, &count, &values);
    readings = code == 0 ? TakeReadings(count, values) : std::vector<Reading>{};
    return code;
}

} // namespace dvtool
