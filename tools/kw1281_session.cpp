// KW1281 connection handling shared by the kw1281, scan, live and record commands.
#include "kw1281_session.h"

#include <cstdio>

namespace dvtool {

void AddKwTargetOptions(CLI::App &command, KwTarget &target) {
    command.add_option("-p,--port", target.port,
                       "Serial port of the KKL cable (COM3, /dev/ttyUSB0) or an emulated ECU "
                       "(vecu:kw1281-engine); without it the built-in simulator answers");
    target.addressOption =
        command.add_option("-a,--address", target.address,
                           "ECU address (0x01 engine, 0x17 instruments, ...; 0x80 simulator)");
    target.baudOption = command.add_option("-b,--baud", target.baud,
                                           "Baud rate (10400; 9600 for the simulator and many "
                                           "instrument clusters)");
}

uint32_t KwLink::Connect(const KwTarget &target) {
    port = target.port.empty() ? std::string("SIM") : target.port;
    const bool given = target.addressOption != nullptr && target.addressOption->count() > 0;
    address = given ? target.address : (target.port.empty() ? 0x80u : 0x01u);
    const bool baudGiven = target.baudOption != nullptr && target.baudOption->count() > 0;
    baud = baudGiven ? target.baud : (address == 0x80 ? 9600u : 10400u);
    char text[128];
    std::snprintf(text, sizeof text, "Connecting to ECU %02X on %s at %u baud...", address,
                  port.c_str(), baud);
    DvChar **list = nullptr;
    uint32_t code = 0;
    {
        Progress progress(text);
        const std::vector<DvChar> name = ToDvText(port);
        code = DvVagConnect(name.data(), baud, address, &list, &interval);
    }
    if (code == 0) {
        connected_ = true;
        descriptions = TakeDescriptions(list);
    }
    return code;
}

void KwLink::Disconnect() {
    if (connected_) {
        connected_ = false;
        DvVagDisconnect();
    }
}

uint32_t KwReadGroup(uint32_t mode, uint8_t group, std::vector<Reading> &readings) {
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    const uint32_t code = DvVagGetGroupMeasurements(mode, group, &count, &values);
    readings = code == 0 ? TakeReadings(count, values) : std::vector<Reading>{};
    return code;
}

uint32_t KwReadFaults(std::vector<Fault> &faults) {
    uint32_t count = 0;
    FaultRecord *records = nullptr;
    const uint32_t code = DvVagGetFaults(&count, &records);
    faults.clear();
    // On a failure the library has freed what it allocated: nothing to free here.
    if (code == 0 && records != nullptr) {
        for (uint32_t i = 0; i < count; ++i) {
            faults.push_back(
                {records[i].code, records[i].elaboration, records[i].intermittent != 0});
        }
        DvFree(records);
    }
    return code;
}

bool IsNoFaultEntry(const Fault &fault) {
    return fault.code == 0xFFFF && fault.elaboration == 8;
}

namespace {

// Elaboration (status) codes of the fault memory, as the public VAG fault code lists give them.
constexpr const char *kElaborations[] = {
    "-",
    "Signal Shorted to Plus",
    "Signal Shorted to Ground",
    "No Signal",
    "Mechanical Malfunction",
    "Input Open",
    "Signal too High",
    "Signal too Low",
    "Control Limit Surpassed",
    "Adaptation Limit Surpassed",
    "Adaptation Limit Not Reached",
    "Control Limit Not Reached",
    "Adaptation Limit (Mul) Exceeded",
    "Adaptation Limit (Mul) Not Reached",
    "Adaptation Limit (Add) Exceeded",
    "Adaptation Limit (Add) Not Reached",
    "Signal Outside Specifications",
    "Control Difference",
    "Upper Limit",
    "Lower Limit",
    "Malfunction in Basic Setting",
    "Front Pressure Build-up Time too Long",
    "Front Pressure Reducing Time too Long",
    "Rear Pressure Build-up Time too Long",
    "Rear Pressure Reducing Time too Long",
    "Unknown Switch Condition",
    "Output Open",
    "Implausible Signal",
    "Short to Plus",
    "Short to Ground",
    "Open or Short to Plus",
    "Open or Short to Ground",
    "Resistance Too High",
    "Resistance Too Low",
    "No Basic Settings",
    "-",
    "Open Circuit",
    "Faulty",
    "Can't Start Test",
    "Short Circuit",
};

struct FaultName {
    uint16_t code;
    const char *text;
};

// A few common engine fault codes; any other code is shown by number only.
constexpr FaultName kFaultNames[] = {
    {513, "Engine Speed Sender (G28)"},
    {515, "Hall Sender (G40)"},
    {518, "Throttle Position Sensor (G69)"},
    {519, "Intake Manifold Pressure Sensor (G71)"},
    {522, "Engine Coolant Temperature Sensor (G62)"},
    {525, "Oxygen Sensor (G39)"},
    {532, "Supply Voltage B+"},
    {533, "Idle Speed Control"},
    {537, "Oxygen Sensor Control"},
    {561, "Mixture Adaptation"},
    {625, "Speed Signal"},
    {16486, "Mass Air Flow Sensor (G70): Signal too Low"},
};

} // namespace

std::string FaultText(const Fault &fault) {
    if (IsNoFaultEntry(fault)) {
        return "No fault code found";
    }
    char text[192];
    const char *name = nullptr;
    for (const FaultName &entry : kFaultNames) {
        if (entry.code == fault.code) {
            name = entry.text;
        }
    }
    const char *elaboration = fault.elaboration < sizeof kElaborations / sizeof kElaborations[0]
                                  ? kElaborations[fault.elaboration]
                                  : nullptr;
    std::string codeText = name != nullptr ? std::string(" - ") + name : std::string();
    // "-" marks an elaboration with no meaning of its own: the number alone is shown.
    const bool named = elaboration != nullptr && std::string(elaboration) != "-";
    std::snprintf(text, sizeof text, "%05u%s: %02u%s%s%s", fault.code, codeText.c_str(),
                  fault.elaboration, named ? " " : "", named ? elaboration : "",
                  fault.intermittent ? " - Intermittent" : "");
    return text;
}

} // namespace dvtool
