// `dravelin scan`, the main job, run as a person would against the built-in simulators: the
// identification, the fault memory, the first measuring groups (local ids) and the statistics
// report, as text and as JSON; a failing connect; --help of every command.
#include <nlohmann/json.hpp>

#include "tool_run.h"

namespace dvtooltest {
namespace {

using nlohmann::json;

// The KW1281 simulator (Parts 3.3, 4.1, 4.2, 4.6): address 0x80 at 9600 baud.
TEST(ToolScan, Kw1281SimulatorShowsIdentificationFaultsGroupsAndReport) {
    const RunResult r = RunTool({"scan"});
    ASSERT_TRUE(r.exited) << r.err;
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    // Not a terminal: no progress line and no log without -v.
    EXPECT_EQ(r.err, "");
    const std::string &out = r.out;
    EXPECT_NE(out.find("Dravelin scan: KW1281, ECU 80 on SIM at 9600 baud\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("Identification:\n  8D0923512S\n  SIMULATOR\n  1.71 B\n  $SC:04001\n"
                       "  $WC:00000\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Fault memory: 2 faults\n"), std::string::npos) << out;
    EXPECT_NE(out.find("  00522 - Engine Coolant Temperature Sensor (G62): 30 Open or Short to "
                       "Plus\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("  00518 - Throttle Position Sensor (G69): 27 Implausible Signal - "
                       "Intermittent\n"),
              std::string::npos)
        << out;
    // Group 1 of the simulator: (1, 8000) engine speed, (5, 920) coolant, (11, ~1000), (16, 23360).
    EXPECT_NE(out.find("Group 1:\n  1: 800.0 rpm"), std::string::npos) << out;
    EXPECT_NE(out.find("(formula 1, value 8000)"), std::string::npos) << out;
    EXPECT_NE(out.find("  2: 92.0 \xC2\xB0"
                       "C"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("  4: 01011011 01000000"), std::string::npos) << out;
    // The simulator has no groups 2 and 3: the ECU's refusal is shown, the scan goes on.
    EXPECT_NE(out.find("\nGroup 2: not available (the ECU refused the request)\n\nGroup 3: not "
                       "available (the ECU refused the request)\n"),
              std::string::npos)
        << out;
    // The statistics report of Part 3.2, after the disconnect.
    EXPECT_NE(out.find("\nDisconnecting from ECU\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\nDisconnected\n\nConnection duration - "), std::string::npos) << out;
    EXPECT_NE(out.find("Blocks sent - 0, breaks - 0 (0 %)\nBlocks received - 0, resets - 0 (0 %)\n"
                       "Reestablishments - 0\n"),
              std::string::npos)
        << out;
}

// The same job on the real line protocol: an emulated engine ECU of the bench ("vecu:" port,
// real clock) with text values and a curve-coded group.
TEST(ToolScan, EmulatedKw1281EngineOverTheVirtualLine) {
    const RunResult r = RunTool({"scan", "--port", "vecu:kw1281-engine"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    const std::string &out = r.out;
    EXPECT_NE(out.find("Dravelin scan: KW1281, ECU 01 on vecu:kw1281-engine at 10400 baud\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Identification:\n  038906019FR\n  1,9l R4 EDC\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("  $SC:01503\n  $WC:12345\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Fault memory: 5 faults\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Group 1:\n  1: 800.0 rpm"), std::string::npos) << out;
    EXPECT_NE(out.find("  2: 40.0 \xC2\xB0"
                       "C"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("  3: 12.700 V"), std::string::npos) << out;
    EXPECT_NE(out.find("Group 2:\n  1: WARM"), std::string::npos) << out;
    EXPECT_NE(out.find("  2: 2.Kennfeld"), std::string::npos) << out;
    EXPECT_NE(out.find("  3: 12:30"), std::string::npos) << out;
    EXPECT_NE(out.find("Group 3:\n  1: 1600"), std::string::npos) << out;
    EXPECT_NE(out.find("  3: EIN"), std::string::npos) << out;
    // Real blocks this time, none repeated.
    EXPECT_EQ(out.find("Blocks sent - 0,"), std::string::npos) << out;
    EXPECT_NE(out.find(", breaks - 0 (0 %)\n"), std::string::npos) << out;
    EXPECT_NE(out.find(", resets - 0 (0 %)\nReestablishments - 0\n"), std::string::npos) << out;
}

std::string TextOf(const json &value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

TEST(ToolScan, Kw1281JsonParsesAndHoldsTheSameDataAsTheText) {
    const RunResult text = RunTool({"scan"});
    const RunResult r = RunTool({"scan", "--json"});
    ASSERT_TRUE(r.exited);
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    ASSERT_EQ(text.exitStatus, 0) << text.err;
    const json doc = json::parse(r.out); // throws (and fails the test) when it is no JSON
    EXPECT_EQ(doc["protocol"], "KW1281");
    EXPECT_EQ(doc["port"], "SIM");
    EXPECT_EQ(doc["address"], 0x80);
    EXPECT_EQ(doc["baud"], 9600);
    EXPECT_EQ(doc["identification"],
              json::array({"8D0923512S", "SIMULATOR", "1.71 B", "$SC:04001", "$WC:00000"}));
    for (const json &line : doc["identification"]) {
        EXPECT_NE(text.out.find("  " + line.get<std::string>() + "\n"), std::string::npos);
    }
    ASSERT_EQ(doc["faults"].size(), 2u);
    EXPECT_EQ(doc["faults"][0]["code"], 522);
    EXPECT_EQ(doc["faults"][0]["elaboration"], 30);
    EXPECT_EQ(doc["faults"][0]["intermittent"], false);
    EXPECT_EQ(doc["faults"][1]["code"], 518);
    EXPECT_EQ(doc["faults"][1]["elaboration"], 27);
    EXPECT_EQ(doc["faults"][1]["intermittent"], true);
    for (const json &fault : doc["faults"]) {
        EXPECT_NE(text.out.find("  " + fault["text"].get<std::string>() + "\n"), std::string::npos);
    }
    ASSERT_GE(doc["groups"].size(), 1u);
    const json &group1 = doc["groups"][0];
    EXPECT_EQ(group1["group"], 1);
    ASSERT_EQ(group1["values"].size(), 4u);
    EXPECT_EQ(group1["values"][0]["formula"], 1);
    EXPECT_EQ(group1["values"][0]["value"], 8000);
    EXPECT_DOUBLE_EQ(group1["values"][0]["number"].get<double>(), 800.0);
    EXPECT_EQ(group1["values"][0]["unit"], "rpm");
    EXPECT_EQ(group1["values"][1]["formula"], 5);
    EXPECT_EQ(group1["values"][1]["value"], 920);
    EXPECT_EQ(group1["values"][2]["formula"], 11);
    const int wave = group1["values"][2]["value"].get<int>();
    EXPECT_GE(wave, 900);
    EXPECT_LE(wave, 1100);
    EXPECT_EQ(group1["values"][3]["formula"], 16);
    EXPECT_EQ(group1["values"][3]["value"], 23360);
    for (const json &value : group1["values"]) {
        if (value["formula"] != 11) { // the one value that moves between the two runs
            EXPECT_NE(text.out.find(TextOf(value["display"])), std::string::npos);
        }
    }
    EXPECT_NE(doc["report"].get<std::string>().find("Connection duration - "), std::string::npos);
    ASSERT_EQ(doc["groups"].size(), 3u);
    EXPECT_EQ(doc["groups"][1], json({{"group", 2}, {"refused", 256}}));
    EXPECT_EQ(doc["groups"][2], json({{"group", 3}, {"refused", 256}}));
    EXPECT_NE(doc["report"].get<std::string>().find("Reestablishments - 0"), std::string::npos);
}

// The KWP2000 simulator (Parts 5.2, 6.1 to 6.3): module 0x80, the simulated link.
TEST(ToolScan, KwpSimulatorShowsIdentificationTroubleCodesLocalIdAndReport) {
    const RunResult r = RunTool({"scan", "--kwp"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const std::string &out = r.out;
    EXPECT_NE(out.find("Dravelin scan: KWP2000, module 0x80 on SIM (5-baud init)\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Identification:\n  8D0923512S\n  SIMULATOR\n  Coding 04001, workshop "
                       "code 00000\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Trouble codes: 2\n  00522 (0x020A) - status 0xA\n  00518 (0x0206) - "
                       "status 0x8\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Local id 1:\n  1: 800.0 rpm"), std::string::npos) << out;
    EXPECT_NE(out.find("\nDisconnected\n\nConnection duration - "), std::string::npos) << out;
    EXPECT_NE(out.find("Services requested - "), std::string::npos) << out;
    EXPECT_NE(out.find("Restarts - 0\n"), std::string::npos) << out;
}

TEST(ToolScan, KwpJsonParsesAndHoldsTheSameData) {
    const RunResult r = RunTool({"scan", "--kwp", "--json"});
    ASSERT_TRUE(r.exited);
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    const json doc = json::parse(r.out);
    EXPECT_EQ(doc["protocol"], "KWP2000");
    EXPECT_EQ(doc["target"], "module 0x80");
    EXPECT_EQ(doc["identification"]["partNumber"], "8D0923512S");
    EXPECT_EQ(doc["identification"]["component"], "SIMULATOR");
    EXPECT_EQ(doc["identification"]["coding"], 4001);
    EXPECT_EQ(doc["identification"]["workshopCode"], 0);
    ASSERT_EQ(doc["faults"].size(), 2u);
    EXPECT_EQ(doc["faults"][0]["code"], 0x020A);
    EXPECT_EQ(doc["faults"][0]["status"], 10);
    EXPECT_EQ(doc["faults"][1]["code"], 0x0206);
    EXPECT_EQ(doc["faults"][1]["status"], 8);
    ASSERT_EQ(doc["localIds"].size(), 1u);
    EXPECT_EQ(doc["localIds"][0]["group"], 1);
    ASSERT_EQ(doc["localIds"][0]["values"].size(), 4u);
    EXPECT_EQ(doc["localIds"][0]["values"][0]["value"], 8000);
    EXPECT_NE(doc["report"].get<std::string>().find("Services requested - "), std::string::npos);
}

// Part 1.1's table: a port that does not exist is code 5; the program explains it in one line
// and exits with that code.
TEST(ToolScan, MissingPortPrintsTheExplanationAndExitsWithCode5) {
    const RunResult r = RunTool({"scan", "--port", "/dev/does-not-exist"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 5);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "dravelin: connecting failed: code 5 (0x5): serial port or line failure (is "
                     "the port right, present and free?)\n");
}

TEST(ToolScan, MissingPortWithKwpExitsWithCode5) {
    const RunResult r = RunTool({"kwp", "start", "--port", "/dev/does-not-exist", "--json"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 5);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "dravelin: starting communication failed: code 5 (0x5): serial port or line "
                     "failure (is the port right, present and free?)\n");
}

// Part 5.2: a module address outside the map is code 2 before any port is opened.
TEST(ToolScan, UnknownKwpModuleExitsWithCode2) {
    const RunResult r =
        RunTool({"kwp", "start", "--port", "/dev/does-not-exist", "--module", "0x04"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 2);
    EXPECT_EQ(r.err, "dravelin: starting communication failed: code 2 (0x2): module address not "
                     "in the KWP2000 address map\n");
}

// Part 3.3: the simulator answers only at 9600 baud; any other rate is code 9.
TEST(ToolScan, SimulatorAtAnotherBaudRateExitsWithCode9) {
    const RunResult r = RunTool({"scan", "--baud", "10400"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 9);
    EXPECT_EQ(r.err, "dravelin: connecting failed: code 9 (0x9): bad synchronisation byte (wrong "
                     "baud rate?)\n");
}

TEST(ToolScan, EveryCommandHasHelp) {
    const std::vector<std::vector<std::string>> commands = {
        {"scan"},
        {"live"},
        {"record"},
        {"spy"},
        {"decode-log"},
        {"kw1281"},
        {"kwp"},
        {"kw1281", "id"},
        {"kw1281", "faults"},
        {"kw1281", "group"},
        {"kw1281", "channel"},
        {"kw1281", "raw"},
        {"kw1281", "adapt"},
        {"kw1281", "adapt-clear"},
        {"kw1281", "login"},
        {"kw1281", "coding"},
        {"kw1281", "actuator"},
        {"kw1281", "memory"},
        {"kw1281", "idle"},
        {"kwp", "start"},
        {"kwp", "session"},
        {"kwp", "stop-session"},
        {"kwp", "tester-present"},
        {"kwp", "dtc"},
        {"kwp", "clear-dtc"},
        {"kwp", "dtc-status"},
        {"kwp", "freeze-frame"},
        {"kwp", "id"},
        {"kwp", "capabilities"},
        {"kwp", "local-id"},
        {"kwp", "actuator"},
        {"kwp", "keep-alive"},
    };
    for (std::vector<std::string> command : commands) {
        std::string name;
        for (const std::string &word : command) {
            name += word + " ";
        }
        command.push_back("--help");
        const RunResult r = RunTool(command, 10);
        ASSERT_TRUE(r.exited) << name;
        EXPECT_EQ(r.exitStatus, 0) << name;
        EXPECT_NE(r.out.find("Usage:"), std::string::npos) << name << r.out;
        EXPECT_NE(r.out.find("--help"), std::string::npos) << name;
    }
}

TEST(ToolScan, UnknownSettingIsRefused) {
    const RunResult r = RunTool({"scan", "--set", "noSuchWord=1"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "dravelin: unknown setting: noSuchWord=1\n");
}

} // namespace
} // namespace dvtooltest
