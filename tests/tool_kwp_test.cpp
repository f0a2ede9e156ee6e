// `dravelin kwp ...`: every KWP2000 subcommand once against the built-in simulator (module 0x80,
// the simulated link of Parts 5.2, 5.3 and 6.1 to 6.3), with --json; negative answers map to
// exit status 65.
#include "tool_run.h"

namespace dvtooltest {
namespace {

using nlohmann::json;

void ExpectSimulatedLink(const json &doc) {
    EXPECT_EQ(doc["protocol"], "KWP2000");
    EXPECT_EQ(doc["port"], "SIM");
    EXPECT_EQ(doc["target"], "module 0x80");
    EXPECT_EQ(doc["init"], "5-baud");
}

// The simulator's "not available" (0x111) explained in one line, exit status 65.
void ExpectNotAvailable(const std::vector<std::string> &args, const std::string &action) {
    const RunResult r = RunTool(args);
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 65);
    EXPECT_EQ(r.err, "dravelin: " + action +
                         " failed: code 273 (0x111): the ECU answered negatively with response "
                         "code 0x11\n");
}

TEST(ToolKwp, StartReportsTheKeepAliveInterval) {
    const json doc = RunJson({"kwp", "start", "--json"});
    ExpectSimulatedLink(doc);
    EXPECT_EQ(doc["keepAlive"], 4945); // P3max - P3min of the default timing: 5000 - 55
}

TEST(ToolKwp, FastStartOfTheSimulator) {
    const json doc = RunJson({"kwp", "start", "--fast", "--json"});
    EXPECT_EQ(doc["init"], "fast");
    EXPECT_EQ(doc["target"], "module 0x80");
}

TEST(ToolKwp, SessionStandardAndManufacturer) {
    const json standard = RunJson({"kwp", "session", "1", "--json"});
    EXPECT_EQ(standard["session"], 1);
    const json vag = RunJson({"kwp", "session", "1", "--vag", "--json"});
    EXPECT_EQ(vag["session"], 1);
}

TEST(ToolKwp, StopSession) {
    const json doc = RunJson({"kwp", "stop-session", "--json"});
    EXPECT_EQ(doc["sessionStopped"], true);
}

TEST(ToolKwp, TesterPresentBothForms) {
    EXPECT_EQ(RunJson({"kwp", "tester-present", "--json"})["testerPresent"], true);
    EXPECT_EQ(RunJson({"kwp", "tester-present", "--no-response", "--json"})["testerPresent"], true);
}

// Part 5.3: the simulated link answers service 13 with 0x0102 and 0x0119.
TEST(ToolKwp, DtcReadsTheTwoSimulatedCodes) {
    const json doc = RunJson({"kwp", "dtc", "--json"});
    EXPECT_EQ(doc["dtcs"], json({0x0102, 0x0119}));
    const RunResult text = RunTool({"kwp", "dtc"});
    EXPECT_EQ(text.out, "DTC 0102\nDTC 0119\n");
}

TEST(ToolKwp, ClearDtcAllAndByGroup) {
    EXPECT_EQ(RunJson({"kwp", "clear-dtc", "--json"})["cleared"], true);
    EXPECT_EQ(RunJson({"kwp", "clear-dtc", "--group", "0x020A", "--json"})["cleared"], true);
}

// Part 6.2: set 1 is 0x020A status 10, set 2 is 0x0206 status 8; a group selects one.
TEST(ToolKwp, DtcStatusAllAndOneGroup) {
    const json all = RunJson({"kwp", "dtc-status", "--json"});
    EXPECT_EQ(all["dtcs"], json::parse(R"([{"index":0,"code":522,"status":10},
                                           {"index":1,"code":518,"status":8}])"));
    const json group = RunJson({"kwp", "dtc-status", "--group", "0x0206", "--json"});
    ASSERT_EQ(group["dtcs"].size(), 1u);
    EXPECT_EQ(group["dtcs"][0]["code"], 518);
}

TEST(ToolKwp, FreezeFrameOf518AndOfACodeWithout) {
    const json doc = RunJson({"kwp", "freeze-frame", "518", "--json"});
    EXPECT_EQ(doc["freezeFrame"]["code"], 518);
    const json &values = doc["freezeFrame"]["values"];
    ASSERT_EQ(values.size(), 4u);
    const int formulas[] = {1, 5, 11, 16};
    const int numbers[] = {8000, 920, 1082, 23360};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(values[i]["formula"], formulas[i]);
        EXPECT_EQ(values[i]["value"], numbers[i]);
    }
    EXPECT_EQ(values[2]["display"], "1.082");
    ExpectNotAvailable({"kwp", "freeze-frame", "522"}, "freeze-frame");
}

TEST(ToolKwp, IdReadsTheGeneralIdentification) {
    const json doc = RunJson({"kwp", "id", "--json"});
    EXPECT_EQ(doc["identification"], json({{"partNumber", "8D0923512S"},
                                           {"component", "SIMULATOR"},
                                           {"coding", 4001},
                                           {"workshopCode", 0},
                                           {"extraCode", 0}}));
}

TEST(ToolKwp, CapabilitiesMaskIs5) {
    EXPECT_EQ(RunJson({"kwp", "capabilities", "--json"})["capabilities"], 5);
}

TEST(ToolKwp, LocalIdOneAndAnUnknownOne) {
    const json doc = RunJson({"kwp", "local-id", "1", "--repeat", "2", "--json"});
    ASSERT_EQ(doc["localIds"].size(), 2u);
    for (const json &sample : doc["localIds"]) {
        EXPECT_EQ(sample["localId"], 1);
        ASSERT_EQ(sample["values"].size(), 4u);
        EXPECT_EQ(sample["values"][0]["value"], 8000);
        const int wave = sample["values"][2]["value"].get<int>();
        EXPECT_GE(wave, 900);
        EXPECT_LE(wave, 1100);
    }
    ExpectNotAvailable({"kwp", "local-id", "2"}, "local-id");
}

// Part 6.3: start, step, 1264, step, none; the step after that ends the test (0x111).
TEST(ToolKwp, ActuatorStepsThroughBothActuators) {
    const json doc = RunJson({"kwp", "actuator", "--json"});
    const json &steps = doc["actuatorSteps"];
    ASSERT_EQ(steps.size(), 5u);
    ASSERT_EQ(steps[0]["values"].size(), 1u);
    EXPECT_EQ(steps[0]["values"][0]["formula"], 0);
    EXPECT_EQ(steps[0]["values"][0]["value"], 1262);
    ASSERT_EQ(steps[1]["values"].size(), 4u);
    EXPECT_EQ(steps[1]["values"][1]["formula"], 52);
    EXPECT_EQ(steps[1]["values"][1]["value"], 2220);
    EXPECT_EQ(steps[2]["values"][0]["value"], 1264);
    EXPECT_EQ(steps[3]["values"], json::array()); // no data for 1264 under test
    EXPECT_EQ(steps[3]["dataResult"], 0x111);
    EXPECT_EQ(steps[4]["values"][0]["value"], 0);
    EXPECT_EQ(doc["ended"], 0x111);
}

// An emulated ECU refuses the step past its last actuator with 0x22: also the end of the test.
TEST(ToolKwp, ActuatorOfAnEmulatedEcuEndsOnItsRefusal) {
    const RunResult r = RunTool({"kwp", "actuator", "--port", "vecu:kwp2000-engine"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_NE(r.out.find("Step 0:\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Actuator test ended (the ECU answered 0x22)\n"), std::string::npos)
        << r.out;
}

TEST(ToolKwp, KeepAliveSendsTesterPresent) {
    const json doc = RunJson({"kwp", "keep-alive", "--seconds", "1", "--json"});
    EXPECT_EQ(doc["testerPresents"], 1); // one every half keep-alive interval (2472 ms)
}

} // namespace
} // namespace dvtooltest
