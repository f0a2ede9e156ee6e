// `dravelin kw1281 ...`: every KW1281 subcommand once against the built-in simulator (address
// 0x80 at 9600 baud, Parts 3.3 and 4.1 to 4.7), with --json; refusals map to exit status 64.
#include "tool_run.h"

namespace dvtooltest {
namespace {

using nlohmann::json;

const json kSimulatorIdentification = {"8D0923512S", "SIMULATOR", "1.71 B", "$SC:04001",
                                       "$WC:00000"};

void ExpectSimulatorConnection(const json &doc) {
    EXPECT_EQ(doc["protocol"], "KW1281");
    EXPECT_EQ(doc["port"], "SIM");
    EXPECT_EQ(doc["address"], 0x80);
    EXPECT_EQ(doc["baud"], 9600);
}

// The refusal of Part 1.1's table (256) explained in one line, exit status 64.
void ExpectRefused(const std::vector<std::string> &args, const std::string &action) {
    const RunResult r = RunTool(args);
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 64);
    EXPECT_EQ(r.err,
              "dravelin: " + action + " failed: code 256 (0x100): the ECU refused the request\n");
}

TEST(ToolKw1281, IdReadsTheSimulatorDescriptions) {
    const json doc = RunJson({"kw1281", "id", "--json"});
    ExpectSimulatorConnection(doc);
    EXPECT_EQ(doc["identification"], kSimulatorIdentification);
}

TEST(ToolKw1281, IdAsTextPrintsOneDescriptionALine) {
    const RunResult r = RunTool({"kw1281", "id"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.out, "8D0923512S\nSIMULATOR\n1.71 B\n$SC:04001\n$WC:00000\n");
}

TEST(ToolKw1281, FaultsReadsTwoFaultsAndClears) {
    const json doc = RunJson({"kw1281", "faults", "--clear", "--json"});
    ASSERT_EQ(doc["faults"].size(), 2u);
    EXPECT_EQ(doc["faults"][0],
              json({{"code", 522},
                    {"elaboration", 30},
                    {"intermittent", false},
                    {"text", "00522 - Engine Coolant Temperature Sensor (G62): 30 Open or Short "
                             "to Plus"}}));
    EXPECT_EQ(doc["faults"][1]["code"], 518);
    EXPECT_EQ(doc["faults"][1]["elaboration"], 27);
    EXPECT_EQ(doc["faults"][1]["intermittent"], true);
    EXPECT_EQ(doc["cleared"], true);
}

TEST(ToolKw1281, GroupOneMeasuringAndBasicSetting) {
    const json doc = RunJson({"kw1281", "group", "1", "--repeat", "2", "--json"});
    ASSERT_EQ(doc["groups"].size(), 2u);
    for (const json &sample : doc["groups"]) {
        EXPECT_EQ(sample["group"], 1);
        ASSERT_EQ(sample["values"].size(), 4u);
        EXPECT_EQ(sample["values"][0]["value"], 8000);
        EXPECT_EQ(sample["values"][0]["display"], "800.0 rpm");
        EXPECT_EQ(sample["values"][1]["value"], 920);
        EXPECT_EQ(sample["values"][3]["value"], 23360);
    }
    const json basic = RunJson({"kw1281", "group", "1", "--basic", "--json"});
    ASSERT_EQ(basic["groups"].size(), 1u);
    // Basic setting: the swinging value stands still at 1000, the bit field reads 23362.
    EXPECT_EQ(basic["groups"][0]["values"][2]["value"], 1000);
    EXPECT_EQ(basic["groups"][0]["values"][2]["display"], "1.000");
    EXPECT_EQ(basic["groups"][0]["values"][3]["value"], 23362);
}

TEST(ToolKw1281, GroupZeroGivesTenRawValues) {
    const json doc = RunJson({"kw1281", "group", "0", "--json"});
    const json &values = doc["groups"][0]["values"];
    ASSERT_EQ(values.size(), 10u);
    const int expected[] = {19, 15, 32, 85, 19, 252, 254, 5, 174, 2}; // V/4 = 32
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(values[i]["formula"], 0xFF);
        EXPECT_EQ(values[i]["value"], expected[i]);
        EXPECT_EQ(values[i]["display"], "raw " + std::to_string(expected[i]));
    }
}

TEST(ToolKw1281, UnknownGroupIsRefused) {
    ExpectRefused({"kw1281", "group", "7"}, "group");
}

TEST(ToolKw1281, ChannelZeroAndAnUnknownChannel) {
    const json doc = RunJson({"kw1281", "channel", "0", "--json"});
    EXPECT_EQ(doc["channel"], 0);
    EXPECT_EQ(doc["value"], 800); // V * 800 / 128 with V = 128
    ExpectRefused({"kw1281", "channel", "5"}, "channel");
}

TEST(ToolKw1281, RawReadsTenBytes) {
    const json doc = RunJson({"kw1281", "raw", "--json"});
    EXPECT_EQ(doc["bytes"], json({19, 12, 32, 85, 19, 252, 254, 5, 174, 2}));
}

TEST(ToolKw1281, AdaptReadsChannelOneAndTwo) {
    const json one = RunJson({"kw1281", "adapt", "1", "--json"});
    EXPECT_EQ(one["adaptation"]["action"], "read");
    EXPECT_EQ(one["adaptation"]["value"], 128);
    ASSERT_EQ(one["adaptation"]["values"].size(), 4u);
    EXPECT_EQ(one["adaptation"]["values"][0]["value"], 8000);
    const json two = RunJson({"kw1281", "adapt", "2", "--json"});
    EXPECT_EQ(two["adaptation"]["value"], 128);
    EXPECT_EQ(two["adaptation"]["values"], json::array());
}

// Part 4.7: a test value of 40 on channel 1 is clamped to 88, only after the login 24680.
TEST(ToolKw1281, AdaptTestClampsAfterLogin) {
    const json doc =
        RunJson({"kw1281", "adapt", "1", "--test", "40", "--login", "24680", "--json"});
    EXPECT_EQ(doc["adaptation"]["action"], "test");
    EXPECT_EQ(doc["adaptation"]["value"], 88);
    EXPECT_EQ(doc["adaptation"]["values"][0]["value"], 5500); // 88 * 8000 / 128
    ExpectRefused({"kw1281", "adapt", "1", "--test", "40"}, "adapt");
}

TEST(ToolKw1281, AdaptSaveClampsTo168) {
    const json doc = RunJson({"kw1281", "adapt", "1", "--save", "200", "--login", "24680",
                              "--workshop", "42", "--json"});
    EXPECT_EQ(doc["adaptation"]["action"], "save");
    EXPECT_EQ(doc["adaptation"]["value"], 168);
}

TEST(ToolKw1281, AdaptClearNeedsTheLogin) {
    const json doc = RunJson({"kw1281", "adapt-clear", "--login", "24680", "--json"});
    EXPECT_EQ(doc["adaptationsCleared"], true);
    ExpectRefused({"kw1281", "adapt-clear"}, "adapt-clear");
}

TEST(ToolKw1281, LoginAcceptedAndRefused) {
    const json doc = RunJson({"kw1281", "login", "--login", "24680", "--json"});
    EXPECT_EQ(doc["login"], true);
    ExpectRefused({"kw1281", "login", "--login", "1234"}, "login");
}

// Part 4.3: the simulator's coding texts are cut to 9 characters.
TEST(ToolKw1281, CodingRewritesTheDescriptions) {
    const json doc = RunJson({"kw1281", "coding", "1234", "--workshop", "42", "--json"});
    EXPECT_EQ(doc["identification"],
              json({"8D0923512S", "SIMULATOR", "1.71 B", "$SC:01234", "$WC:00042"}));
    const json cut = RunJson({"kw1281", "coding", "123456", "--workshop", "131071", "--json"});
    EXPECT_EQ(cut["identification"][3], "$SC:12345");
    EXPECT_EQ(cut["identification"][4], "$WC:13107");
}

// Part 4.4: 0 -> 282 -> 1247 -> 0, and the fourth step starts again.
TEST(ToolKw1281, ActuatorStepsToTheEnd) {
    const json doc = RunJson({"kw1281", "actuator", "--json"});
    EXPECT_EQ(doc["actuators"], json({282, 1247, 0}));
    const json four = RunJson({"kw1281", "actuator", "--steps", "4", "--json"});
    EXPECT_EQ(four["actuators"], json({282, 1247, 0, 282}));
}

// Part 4.4: RAM at address 10, 20 bytes asked: the 9 bytes "RAM data" and its zero.
TEST(ToolKw1281, MemoryReadsTheSimulatedTexts) {
    const json ram = RunJson({"kw1281", "memory", "ram", "10", "20", "--json"});
    EXPECT_EQ(ram["memory"]["kind"], "ram");
    EXPECT_EQ(ram["memory"]["address"], 10);
    EXPECT_EQ(ram["memory"]["bytes"], json({'R', 'A', 'M', ' ', 'd', 'a', 't', 'a', 0}));
    const RunResult text = RunTool({"kw1281", "memory", "eprom", "0", "21"});
    EXPECT_EQ(text.exitStatus, 0);
    EXPECT_NE(text.out.find("0000  53 69 6D 75 6C 61 74 6F 72 20 45 50 52 4F 4D 20  Simulator "
                            "EPROM \n0010  64 61 74 61 00"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("21 bytes read\n"), std::string::npos);
    const json eeprom = RunJson({"kw1281", "memory", "eeprom", "10", "--json"});
    EXPECT_EQ(eeprom["memory"]["bytes"].size(), 12u); // "EEPROM data" and the zero
    ExpectRefused({"kw1281", "memory", "ram", "19"}, "memory");
}

TEST(ToolKw1281, IdleKeepsTheLinkAlive) {
    const json doc = RunJson({"kw1281", "idle", "--seconds", "1", "--json"});
    EXPECT_GE(doc["keepAlives"].get<int>(), 2);
    EXPECT_LE(doc["keepAlives"].get<int>(), 3);
}

} // namespace
} // namespace dvtooltest
