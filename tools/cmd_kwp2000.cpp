// `dravelin kwp ACTION`: the KWP2000 (ISO 14230) services of the library, standard and
// manufacturer's, against a port, an emulated ECU or the built-in simulator.
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "commands.h"
#include "kwp2000_session.h"

namespace dvtool {
namespace {

struct KwpOptions {
    CommonOptions common;
    KwpTarget target;
    uint32_t mode = 0;
    bool vag = false;
    bool noResponse = false;
    uint32_t status = 0;
    uint32_t group = 0;
    uint32_t code = 0;
    uint32_t localId = 1;
    uint32_t repeat = 1;
    uint32_t intervalMs = 0;
    uint32_t steps = 0;
    uint32_t seconds = 5;
};

using Action = uint32_t (*)(const KwpOptions &, KwpLink &, Json &);

bool Text(const KwpOptions &options) {
    return !options.common.json;
}

uint32_t ActStart(const KwpOptions &options, KwpLink &link, Json &out) {
    out["keepAlive"] = link.keepAlive;
    if (Text(options)) {
        std::printf("Communication started; keep-alive interval %u ms\n", link.keepAlive);
    }
    return 0;
}

uint32_t ActSession(const KwpOptions &options, KwpLink &, Json &out) {
    const uint32_t code = options.vag ? DvVagIsoStartDiagnosticSession(options.mode)
                                      : DvIsoStartDiagnosticSession(options.mode);
    if (code == 0) {
        out["session"] = options.mode;
        if (Text(options)) {
            std::printf("Diagnostic session %u started\n", options.mode);
        }
    }
    return code;
}

uint32_t ActStopSession(const KwpOptions &options, KwpLink &, Json &out) {
    const uint32_t code = DvIsoStopDiagnosticSession();
    if (code == 0) {
        out["sessionStopped"] = true;
        if (Text(options)) {
            std::printf("Diagnostic session stopped\n");
        }
    }
    return code;
}

uint32_t ActTesterPresent(const KwpOptions &options, KwpLink &, Json &out) {
    const uint32_t code = options.noResponse ? DvIsoTesterPresentExtended(0) : DvIsoTesterPresent();
    if (code == 0) {
        out["testerPresent"] = true;
        if (Text(options)) {
            std::printf("Tester present acknowledged\n");
        }
    }
    return code;
}

uint32_t ActDtc(const KwpOptions &options, KwpLink &, Json &out) {
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    const uint32_t code = DvIsoReadDtc(&count, &codes);
    if (code != 0) {
        return code;
    }
    Json list = Json::array();
    for (uint32_t i = 0; i < count; ++i) {
        list.push_back(codes[i]);
        if (Text(options)) {
            std::printf("DTC %04X\n", codes[i]);
        }
    }
    if (Text(options) && count == 0) {
        std::printf("No trouble codes\n");
    }
    DvFree(codes);
    out["dtcs"] = list;
    return 0;
}

uint32_t ActClearDtc(const KwpOptions &options, KwpLink &, Json &out) {
    const uint32_t code = options.group != 0
                              ? DvVagIsoClearDiagnosticInformationExtended(options.group)
                              : DvIsoClearDiagnosticInformation();
    if (code == 0) {
        out["cleared"] = true;
        if (Text(options)) {
            std::printf("Trouble codes cleared\n");
        }
    }
    return code;
}

uint32_t ActDtcStatus(const KwpOptions &options, KwpLink &, Json &out) {
    std::vector<Dtc> dtcs;
    const uint32_t code = KwpReadDtcByStatus(options.status, options.group, dtcs);
    if (code != 0) {
        return code;
    }
    Json list = Json::array();
    for (const Dtc &dtc : dtcs) {
        list.push_back({{"index", dtc.index}, {"code", dtc.code}, {"status", dtc.status}});
        if (Text(options)) {
            std::printf("%05u (0x%04X) status 0x%X\n", dtc.code, dtc.code, dtc.status);
        }
    }
    if (Text(options) && dtcs.empty()) {
        std::printf("No trouble codes\n");
    }
    out["dtcs"] = list;
    return 0;
}

uint32_t ActFreezeFrame(const KwpOptions &options, KwpLink &, Json &out) {
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    const uint32_t code = DvVagIsoReadFreezeFrameDataByDtc(options.code, &count, &values);
    if (code != 0) {
        return code;
    }
    const std::vector<Reading> readings = TakeReadings(count, values);
    out["freezeFrame"] = {{"code", options.code}, {"values", ReadingsJson(readings)}};
    if (Text(options)) {
        std::printf("Freeze frame of %05u:\n", options.code);
        PrintReadings(readings);
    }
    return 0;
}

uint32_t ActIdentification(const KwpOptions &options, KwpLink &, Json &out) {
    EcuIdentification record{};
    const uint32_t code = DvVagIsoReadEcuIdentificationGeneral(&record);
    if (code != 0) {
        return code;
    }
    const std::string part = ToUtf8(record.partNumber);
    const std::string component = ToUtf8(record.componentText);
    DvFree(record.partNumber);
    DvFree(record.componentText);
    out["identification"] = {{"partNumber", part},
                             {"component", component},
                             {"coding", record.coding},
                             {"workshopCode", record.workshopCode},
                             {"extraCode", record.extraCode}};
    if (Text(options)) {
        std::printf("Part number:   %s\nComponent:     %s\nCoding:        %05u\n"
                    "Workshop code: %05u\nExtra code:    %u\n",
                    part.c_str(), component.c_str(), record.coding, record.workshopCode,
                    record.extraCode);
    }
    return 0;
}

uint32_t ActCapabilities(const KwpOptions &options, KwpLink &, Json &out) {
    uint32_t mask = 0;
    const uint32_t code = DvVagIsoReadCapabilities(&mask);
    if (code == 0) {
        out["capabilities"] = mask;
        if (Text(options)) {
            std::printf("Capabilities: 0x%08X\n", mask);
        }
    }
    return code;
}

uint32_t ActLocalId(const KwpOptions &options, KwpLink &, Json &out) {
    Json samples = Json::array();
    for (uint32_t pass = 0; pass < options.repeat && !Interrupted(); ++pass) {
        std::vector<Reading> readings;
        const uint32_t code = KwpReadLocalId(options.localId, readings);
        if (code != 0) {
            return code;
        }
        samples.push_back({{"localId", options.localId}, {"values", ReadingsJson(readings)}});
        if (Text(options)) {
            std::printf("Local id %u:\n", options.localId);
            PrintReadings(readings);
        }
        if (options.intervalMs != 0 && pass + 1 < options.repeat) {
            std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
        }
    }
    out["localIds"] = samples;
    return 0;
}

uint32_t ActActuator(const KwpOptions &options, KwpLink &, Json &out) {
    Json steps = Json::array();
    const uint32_t limit = options.steps == 0 ? 64 : options.steps;
    for (uint32_t step = 0; step < limit && !Interrupted(); ++step) {
        const uint32_t code = DvVagIsoTestActuator(step == 0 ? 0 : 1);
        // A step past the last actuator is refused: the simulator says 0x11, ECUs also 0x22
        // (conditions not correct). Any negative answer to a step ends the test.
        if (code >= 0x100 && code <= 0x1FF && step > 0) {
            out["ended"] = code;
            if (Text(options)) {
                std::printf("Actuator test ended (the ECU answered 0x%02X)\n", code - 0x100);
            }
            break;
        }
        if (code != 0) {
            return code;
        }
        uint32_t count = 0;
        MeasuringValue *values = nullptr;
        const uint32_t dataCode = DvVagIsoReadActuatorData(&count, &values);
        const std::vector<Reading> readings =
            dataCode == 0 ? TakeReadings(count, values) : std::vector<Reading>{};
        // Not every step has data (the simulator has none while 1264 runs): shown, not fatal.
        Json entry = {{"step", step}, {"values", ReadingsJson(readings)}};
        if (dataCode != 0) {
            entry["dataResult"] = dataCode;
        }
        steps.push_back(entry);
        if (Text(options)) {
            std::printf("Step %u:\n", step);
            PrintReadings(readings);
            if (dataCode != 0) {
                std::printf("  no data (%s)\n", ExplainResult(dataCode).c_str());
            }
        }
    }
    out["actuatorSteps"] = steps;
    return 0;
}

uint32_t ActKeepAlive(const KwpOptions &options, KwpLink &link, Json &out) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.seconds);
    const auto period =
        std::chrono::milliseconds(link.keepAlive / 2 == 0 ? 100 : link.keepAlive / 2);
    uint32_t sent = 0;
    while (std::chrono::steady_clock::now() < end && !Interrupted()) {
        const uint32_t code = DvIsoTesterPresent();
        if (code != 0) {
            return code;
        }
        ++sent;
        std::this_thread::sleep_for(period);
    }
    out["testerPresents"] = sent;
    if (Text(options)) {
        std::printf("Link kept alive with %u tester-present requests\n", sent);
    }
    return 0;
}

int Run(const KwpOptions &options, Action action, const char *what) {
    Library library(options.common);
    if (library.status() != 0) {
        return ReportFailure("setting up the library", library.status());
    }
    KwpLink link;
    uint32_t code = link.Start(options.target);
    if (code != 0) {
        return ReportFailure("starting communication", code);
    }
    Json out = {{"protocol", "KWP2000"},
                {"port", link.port},
                {"target", link.how},
                {"init", link.fast ? "fast" : "5-baud"}};
    code = Interrupted() ? 0 : action(options, link, out);
    link.Stop();
    if (code != 0) {
        return ReportFailure(what, code);
    }
    if (options.common.json) {
        PrintJson(out);
    }
    return 0;
}

struct ActionCommand {
    CLI::App *command;
    std::shared_ptr<KwpOptions> options;
};

ActionCommand AddAction(CLI::App &group, int &exitStatus, const char *name, const char *help,
                        Action action) {
    auto options = std::make_shared<KwpOptions>();
    CLI::App *command = group.add_subcommand(name, help);
    AddKwpTargetOptions(*command, options->target);
    AddCommonOptions(*command, options->common);
    command->callback(
        [options, action, name, &exitStatus] { exitStatus = Run(*options, action, name); });
    return {command, options};
}

} // namespace

void AddKwp2000Commands(CLI::App &app, int &exitStatus) {
    CLI::App *group = app.add_subcommand(
        "kwp", "KWP2000 (ISO 14230) services: sessions, trouble codes, identification, data");
    group->require_subcommand(1);
    AddAction(*group, exitStatus, "start", "Start and stop communication", ActStart);
    auto session =
        AddAction(*group, exitStatus, "session", "Start a diagnostic session", ActSession);
    session.command
        ->add_option("mode", session.options->mode,
                     "0 default (0x81), 1 (0x82; 0x89 with --vag), 2 (0x85), 4 (0x87)")
        ->required();
    session.command->add_flag("--vag", session.options->vag, "The manufacturer's session");
    AddAction(*group, exitStatus, "stop-session", "Stop the diagnostic session", ActStopSession);
    auto present =
        AddAction(*group, exitStatus, "tester-present", "Send tester present", ActTesterPresent);
    present.command->add_flag("--no-response", present.options->noResponse,
                              "Ask the ECU not to answer (3E 02)");
    AddAction(*group, exitStatus, "dtc", "Read the trouble codes (service 13)", ActDtc);
    auto clear = AddAction(*group, exitStatus, "clear-dtc", "Clear the trouble codes", ActClearDtc);
    clear.command->add_option("--group", clear.options->group,
                              "Clear only this group (manufacturer service)");
    auto status = AddAction(*group, exitStatus, "dtc-status",
                            "Read trouble codes by status (manufacturer service)", ActDtcStatus);
    status.command->add_option("--status", status.options->status,
                               "0 all (0x03), 1 (0x02), 2 (0x11), or a raw selector");
    status.command->add_option("--group", status.options->group, "Only this group");
    auto freeze = AddAction(*group, exitStatus, "freeze-frame",
                            "Read the freeze frame of a trouble code", ActFreezeFrame);
    freeze.command->add_option("code", freeze.options->code, "Trouble code")->required();
    AddAction(*group, exitStatus, "id", "Read the general ECU identification", ActIdentification);
    AddAction(*group, exitStatus, "capabilities", "Read the ECU's capability mask",
              ActCapabilities);
    auto local =
        AddAction(*group, exitStatus, "local-id", "Read data by local identifier", ActLocalId);
    local.command->add_option("id", local.options->localId, "Local identifier")->required();
    local.command->add_option("--repeat", local.options->repeat, "Read this many times");
    local.command->add_option("--interval", local.options->intervalMs, "Pause between reads, ms");
    auto actuator =
        AddAction(*group, exitStatus, "actuator",
                  "Step through the actuator test, with each actuator's data", ActActuator);
    actuator.command->add_option("--steps", actuator.options->steps, "Run only this many steps");
    auto keep = AddAction(*group, exitStatus, "keep-alive",
                          "Hold the link with tester-present requests", ActKeepAlive);
    keep.command->add_option("--seconds", keep.options->seconds, "How long");
}

} // namespace dvtool
