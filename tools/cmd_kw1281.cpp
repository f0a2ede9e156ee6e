// `dravelin kw1281 ACTION`: every KW1281 service of the library against a port, an emulated ECU
// or the built-in simulator. Each run connects, optionally logs in, does its action and
// disconnects (also after Ctrl-C).
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <thread>

#include "commands.h"
#include "kw1281_session.h"

namespace dvtool {
namespace {

struct KwOptions {
    CommonOptions common;
    KwTarget target;
    uint32_t login = 0;
    CLI::Option *loginOption = nullptr;
    uint32_t workshop = 0;
    // Action arguments.
    std::vector<uint32_t> groups;
    bool basic = false;
    bool clear = false;
    uint32_t repeat = 1;
    uint32_t intervalMs = 0;
    uint32_t channel = 0;
    uint32_t value = 0;
    CLI::Option *testOption = nullptr;
    CLI::Option *saveOption = nullptr;
    uint32_t steps = 0;
    std::string memory = "ram";
    uint32_t address = 0;
    uint32_t count = 16;
    uint32_t seconds = 5;
};

using Action = uint32_t (*)(const KwOptions &, KwLink &, Json &);

bool Text(const KwOptions &options) {
    return !options.common.json;
}

uint32_t ActIdentification(const KwOptions &options, KwLink &link, Json &out) {
    DvChar **list = nullptr;
    const uint32_t code = DvVagGetDescriptions(&list);
    if (code != 0) {
        return code;
    }
    const std::vector<std::string> descriptions = TakeDescriptions(list);
    out["identification"] = descriptions;
    if (Text(options)) {
        for (const std::string &line : descriptions) {
            std::printf("%s\n", line.c_str());
        }
    }
    (void)link;
    return 0;
}

uint32_t ActFaults(const KwOptions &options, KwLink &, Json &out) {
    std::vector<Fault> faults;
    uint32_t code = KwReadFaults(faults);
    if (code != 0) {
        return code;
    }
    Json list = Json::array();
    for (const Fault &fault : faults) {
        list.push_back({{"code", fault.code},
                        {"elaboration", fault.elaboration},
                        {"intermittent", fault.intermittent},
                        {"text", FaultText(fault)}});
        if (Text(options)) {
            std::printf("%s\n", FaultText(fault).c_str());
        }
    }
    out["faults"] = list;
    if (options.clear) {
        code = DvVagClearFaults();
        if (code == 0) {
            out["cleared"] = true;
            if (Text(options)) {
                std::printf("Fault memory cleared\n");
            }
        }
    }
    return code;
}

uint32_t ActGroups(const KwOptions &options, KwLink &, Json &out) {
    const uint32_t mode = options.basic ? 1 : 0;
    Json samples = Json::array();
    for (uint32_t pass = 0; pass < options.repeat && !Interrupted(); ++pass) {
        for (uint32_t group : options.groups) {
            std::vector<Reading> readings;
            const uint32_t code = KwReadGroup(mode, static_cast<uint8_t>(group), readings);
            if (code != 0) {
                return code;
            }
            samples.push_back({{"group", group}, {"values", ReadingsJson(readings)}});
            if (Text(options)) {
                std::printf("Group %03u%s:\n", group, options.basic ? " (basic setting)" : "");
                PrintReadings(readings);
            }
        }
        if (options.intervalMs != 0 && pass + 1 < options.repeat) {
            std::this_thread::sleep_for(std::chrono::milliseconds(options.intervalMs));
        }
    }
    out["groups"] = samples;
    return DvVagCloseGroupMeasurements();
}

uint32_t ActChannel(const KwOptions &options, KwLink &, Json &out) {
    uint16_t value = 0;
    const uint32_t code = DvVagGetMeasurement(static_cast<uint8_t>(options.channel), &value);
    if (code == 0) {
        out["channel"] = options.channel;
        out["value"] = value;
        if (Text(options)) {
            std::printf("Channel %u: %u\n", options.channel, value);
        }
    }
    return code;
}

uint32_t ActRaw(const KwOptions &options, KwLink &, Json &out) {
    uint32_t count = 0;
    uint8_t *bytes = nullptr;
    const uint32_t code = DvVagGetMeasurements(options.basic ? 1 : 0, &count, &bytes);
    if (code != 0) {
        return code;
    }
    Json list = Json::array();
    for (uint32_t i = 0; i < count; ++i) {
        list.push_back(bytes[i]);
        if (Text(options)) {
            std::printf("%02X%c", bytes[i], i + 1 == count ? '\n' : ' ');
        }
    }
    DvFree(bytes);
    out["bytes"] = list;
    return 0;
}

uint32_t ActAdaptation(const KwOptions &options, KwLink &, Json &out) {
    const auto channel = static_cast<uint8_t>(options.channel);
    const auto value = static_cast<uint16_t>(options.value);
    uint16_t result = 0;
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint32_t code = 0;
    const char *what = "read";
    if (options.testOption->count() > 0) {
        what = "test";
        code = DvVagTestGroupAdaption(channel, value, &result, &count, &values);
    } else if (options.saveOption->count() > 0) {
        what = "save";
        code = DvVagSaveGroupAdaption(options.workshop, channel, value, &result, &count, &values);
    } else {
        code = DvVagGetGroupAdaption(channel, &result, &count, &values);
    }
    if (code != 0) {
        return code;
    }
    const std::vector<Reading> readings = TakeReadings(count, values);
    out["adaptation"] = {{"action", what},
                         {"channel", options.channel},
                         {"value", result},
                         {"values", ReadingsJson(readings)}};
    if (Text(options)) {
        std::printf("Adaptation channel %u (%s): value %u\n", options.channel, what, result);
        PrintReadings(readings);
    }
    return 0;
}

uint32_t ActClearAdaptations(const KwOptions &options, KwLink &, Json &out) {
    const uint32_t code = DvVagClearAdaptions(options.workshop);
    if (code == 0) {
        out["adaptationsCleared"] = true;
        if (Text(options)) {
            std::printf("Adaptations reset\n");
        }
    }
    return code;
}

uint32_t ActLogin(const KwOptions &options, KwLink &, Json &out) {
    // The login itself ran before the action (--login); report it.
    out["login"] = true;
    if (Text(options)) {
        std::printf("Login accepted\n");
    }
    return 0;
}

uint32_t ActCoding(const KwOptions &options, KwLink &, Json &out) {
    DvChar **list = nullptr;
    const uint32_t code = DvVagSetCoding(options.workshop, options.value, &list);
    if (code != 0) {
        return code;
    }
    const std::vector<std::string> descriptions = TakeDescriptions(list);
    out["identification"] = descriptions;
    if (Text(options)) {
        std::printf("Coding written; the ECU now reports:\n");
        for (const std::string &line : descriptions) {
            std::printf("  %s\n", line.c_str());
        }
    }
    return 0;
}

uint32_t ActActuator(const KwOptions &options, KwLink &, Json &out) {
    Json steps = Json::array();
    // Without --steps the test runs until the ECU reports its end (code 0), at most 64 steps.
    const uint32_t limit = options.steps == 0 ? 64 : options.steps;
    for (uint32_t step = 0; step < limit && !Interrupted(); ++step) {
        uint16_t actuator = 0;
        const uint32_t code = DvVagTestActuator(&actuator);
        if (code != 0) {
            return code;
        }
        steps.push_back(actuator);
        if (Text(options)) {
            std::printf(actuator == 0 ? "Actuator test ended\n" : "Actuator %05u\n", actuator);
        }
        if (actuator == 0 && options.steps == 0) {
            break;
        }
    }
    out["actuators"] = steps;
    return 0;
}

uint32_t ActMemory(const KwOptions &options, KwLink &, Json &out) {
    std::vector<uint8_t> buffer(options.count == 0 ? 1 : options.count);
    uint8_t got = 0;
    uint32_t code = 0;
    if (options.memory == "ram") {
        code = DvVagGetRamData(options.address, options.count, &got, buffer.data());
    } else if (options.memory == "eprom") {
        code = DvVagGetEpromData(options.address, options.count, &got, buffer.data());
    } else {
        code = DvVagGetEepromData(options.address, options.count, &got, buffer.data());
    }
    if (code != 0) {
        return code;
    }
    Json bytes = Json::array();
    for (uint32_t i = 0; i < got; ++i) {
        bytes.push_back(buffer[i]);
    }
    out["memory"] = {{"kind", options.memory}, {"address", options.address}, {"bytes", bytes}};
    if (Text(options)) {
        for (uint32_t row = 0; row < got; row += 16) {
            std::printf("%04X ", options.address + row);
            std::string ascii;
            for (uint32_t i = row; i < row + 16; ++i) {
                if (i < got) {
                    std::printf(" %02X", buffer[i]);
                    ascii += (buffer[i] >= 0x20 && buffer[i] < 0x7F) ? char(buffer[i]) : '.';
                } else {
                    std::printf("   ");
                }
            }
            std::printf("  %s\n", ascii.c_str());
        }
        std::printf("%u byte%s read\n", got, got == 1 ? "" : "s");
    }
    return 0;
}

uint32_t ActIdle(const KwOptions &options, KwLink &link, Json &out) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.seconds);
    uint32_t keepAlives = 0;
    // Keep the link alive at the connection's interval (the ECU drops it after about a second).
    const auto period = std::chrono::milliseconds(link.interval / 2 == 0 ? 100 : link.interval / 2);
    while (std::chrono::steady_clock::now() < end && !Interrupted()) {
        const uint32_t code = DvVagIdle();
        if (code != 0) {
            return code;
        }
        ++keepAlives;
        std::this_thread::sleep_for(period);
    }
    out["keepAlives"] = keepAlives;
    if (Text(options)) {
        std::printf("Link kept alive with %u acknowledge blocks\n", keepAlives);
    }
    return 0;
}

int Run(const KwOptions &options, Action action, const char *what) {
    Library library(options.common);
    if (library.status() != 0) {
        return ReportFailure("setting up the library", library.status());
    }
    KwLink link;
    uint32_t code = link.Connect(options.target);
    if (code != 0) {
        return ReportFailure("connecting", code);
    }
    Json out = {{"protocol", "KW1281"},
                {"port", link.port},
                {"address", link.address},
                {"baud", link.baud},
                {"identification", link.descriptions}};
    if (options.loginOption->count() > 0 && code == 0) {
        code = DvVagLogin(options.workshop, options.login);
        if (code != 0) {
            link.Disconnect();
            return ReportFailure("login", code);
        }
    }
    if (!options.common.json && action != ActIdentification) {
        for (const std::string &line : link.descriptions) {
            std::printf("%s\n", line.c_str());
        }
        std::printf("\n");
    }
    code = Interrupted() ? 0 : action(options, link, out);
    link.Disconnect();
    if (code != 0) {
        return ReportFailure(what, code);
    }
    if (options.common.json) {
        PrintJson(out);
    }
    return 0;
}

// Each action has its own options record, so that the option handles (was --address given?)
// belong to the subcommand that runs.
struct ActionCommand {
    CLI::App *command;
    std::shared_ptr<KwOptions> options;
};

ActionCommand AddAction(CLI::App &group, int &exitStatus, const char *name, const char *help,
                        Action action) {
    auto options = std::make_shared<KwOptions>();
    CLI::App *command = group.add_subcommand(name, help);
    AddKwTargetOptions(*command, options->target);
    AddCommonOptions(*command, options->common);
    options->loginOption = command->add_option("--login", options->login,
                                               "Log in with this code first (adaptation, coding)");
    command->add_option("--workshop", options->workshop, "Workshop code (0..131071)");
    command->callback([options, action, name, &exitStatus] {
        if (action == ActLogin && options->loginOption->count() == 0) {
            throw CLI::RequiredError("--login");
        }
        exitStatus = Run(*options, action, name);
    });
    return {command, options};
}

} // namespace

void AddKw1281Commands(CLI::App &app, int &exitStatus) {
    CLI::App *group = app.add_subcommand(
        "kw1281", "KW1281 services (identification, faults, measuring groups, adaptation, ...)");
    group->require_subcommand(1);

    AddAction(*group, exitStatus, "id", "Read the ECU identification", ActIdentification);
    auto faults = AddAction(*group, exitStatus, "faults", "Read the fault memory", ActFaults);
    faults.command->add_flag("--clear", faults.options->clear,
                             "Clear the fault memory after reading it");
    auto groups = AddAction(*group, exitStatus, "group",
                            "Read measuring groups (values with their formula id)", ActGroups);
    groups.command->add_option("groups", groups.options->groups, "Group numbers (0..255)")
        ->required()
        ->check(CLI::Range(0, 255));
    groups.command->add_flag("--basic", groups.options->basic,
                             "Basic settings instead of measuring");
    groups.command->add_option("--repeat", groups.options->repeat,
                               "Read the groups this many times");
    groups.command->add_option("--interval", groups.options->intervalMs,
                               "Pause between passes, ms");
    auto channel =
        AddAction(*group, exitStatus, "channel", "Read one measuring channel", ActChannel);
    channel.command->add_option("channel", channel.options->channel, "Channel (0..255)")
        ->required()
        ->check(CLI::Range(0, 255));
    auto raw = AddAction(*group, exitStatus, "raw", "Read the raw measuring bytes", ActRaw);
    raw.command->add_flag("--basic", raw.options->basic, "Basic settings instead of measuring");
    auto adapt = AddAction(*group, exitStatus, "adapt", "Read, test or save an adaptation channel",
                           ActAdaptation);
    adapt.command->add_option("channel", adapt.options->channel, "Channel (0..255)")
        ->required()
        ->check(CLI::Range(0, 255));
    adapt.options->testOption = adapt.command->add_option("--test", adapt.options->value,
                                                          "Try this value without storing it");
    adapt.options->saveOption = adapt.command->add_option("--save", adapt.options->value,
                                                          "Store this value (with --workshop)");
    adapt.options->testOption->excludes(adapt.options->saveOption);
    AddAction(*group, exitStatus, "adapt-clear",
              "Reset all adaptation values (with --login and --workshop)", ActClearAdaptations);
    AddAction(*group, exitStatus, "login", "Log in with --login CODE and report the answer",
              ActLogin);
    auto coding = AddAction(*group, exitStatus, "coding",
                            "Write a new software coding (with --workshop)", ActCoding);
    coding.command->add_option("coding", coding.options->value, "Coding (0..32767)")->required();
    auto actuator = AddAction(*group, exitStatus, "actuator",
                              "Step through the actuator test until its end", ActActuator);
    actuator.command->add_option("--steps", actuator.options->steps, "Run only this many steps");
    auto memory =
        AddAction(*group, exitStatus, "memory", "Read ECU memory and print a hex dump", ActMemory);
    memory.command->add_option("kind", memory.options->memory, "ram, eprom or eeprom")
        ->required()
        ->check(CLI::IsMember({"ram", "eprom", "eeprom"}));
    memory.command->add_option("address", memory.options->address, "Start address (0..65535)")
        ->required()
        ->check(CLI::Range(0, 65535));
    memory.command->add_option("count", memory.options->count, "Number of bytes (1..255)")
        ->check(CLI::Range(1, 255));
    auto idle =
        AddAction(*group, exitStatus, "idle", "Hold the link with keep-alive blocks", ActIdle);
    idle.command->add_option("--seconds", idle.options->seconds, "How long");
}

} // namespace dvtool
