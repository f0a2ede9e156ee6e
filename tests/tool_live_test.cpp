// `dravelin live`: a refreshing table until Ctrl-C, then a clean disconnect. On an emulated ECU
// ("vecu:" port, real clock) the -vv line trace shows the end-of-communication block (title 0x06,
// Part 3.3) going out after the interrupt.
#include <signal.h>

#include <cstdlib>

#include "tool_run.h"

namespace dvtooltest {
namespace {

using nlohmann::json;

// The bytes the program wrote to the line (trace lines "<<< [1] 'XX' @ ...") in `trace`.
std::vector<int> WrittenBytes(const std::string &trace) {
    std::vector<int> bytes;
    const std::string mark = "<<< [1] '";
    for (size_t at = trace.find(mark); at != std::string::npos; at = trace.find(mark, at + 1)) {
        bytes.push_back(
            static_cast<int>(std::strtol(trace.substr(at + mark.size(), 2).c_str(), nullptr, 16)));
    }
    return bytes;
}

TEST(ToolLive, CtrlCOnAnEmulatedEcuDisconnectsWithTheEndBlock) {
    Child live({"live", "1", "--port", "vecu:kw1281-engine", "-vv"});
    // The first table: the title line, then group 1 with its four values.
    ASSERT_TRUE(live.WaitForOutput("Dravelin live: 1 pass", 30)) << live.err();
    ASSERT_TRUE(live.WaitForOutput("  4: ", 5)) << live.out();
    const size_t traceBefore = live.err().size();
    live.Signal(SIGINT);
    const RunResult r = live.Finish(30);
    ASSERT_TRUE(r.exited) << r.err.substr(r.err.size() > 3000 ? r.err.size() - 3000 : 0);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_NE(r.out.find("Group 1:\n  1: "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(formula 1, "), std::string::npos) << r.out;
    ASSERT_GE(r.out.size(), 30u);
    EXPECT_EQ(r.out.rfind("Disconnected after "), r.out.rfind('\n', r.out.size() - 2) + 1) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 8), " passes\n") << r.out;
    // After the interrupt: the acknowledge that closes the group readings (title 0x09), then
    // the end-of-communication block [03, counter, 06, 03] sent on "Disconnecting from ECU".
    const std::string after = r.err.substr(traceBefore);
    const size_t disconnecting = after.find("\nDisconnecting from ECU\n");
    ASSERT_NE(disconnecting, std::string::npos) << after;
    const std::vector<int> endBlock = WrittenBytes(after.substr(disconnecting));
    ASSERT_EQ(endBlock.size(), 4u) << after.substr(disconnecting);
    EXPECT_EQ(endBlock[0], 0x03);
    EXPECT_EQ(endBlock[2], 0x06);
    EXPECT_EQ(endBlock[3], 0x03);
    const std::vector<int> before = WrittenBytes(after.substr(0, disconnecting));
    ASSERT_GE(before.size(), 4u);
    EXPECT_EQ(before[before.size() - 2], 0x09); // the closing acknowledge's title
    EXPECT_EQ(endBlock[1], (before[before.size() - 3] + 2) & 0xFF); // counter: ack, ECU, end
    EXPECT_NE(after.find("\nDisconnected\n", disconnecting), std::string::npos);
    EXPECT_NE(after.find("Reestablishments - 0\n", disconnecting), std::string::npos);
}

TEST(ToolLive, JsonLinesOnTheKwpSimulatorUntilTheTimeIsUp) {
    const RunResult r = RunTool({"live", "1", "--kwp", "--seconds", "1", "--json"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    const std::vector<std::string> lines = Lines(r.out);
    ASSERT_GE(lines.size(), 3u);
    double last = -1;
    for (const std::string &line : lines) {
        const json pass = json::parse(line);
        EXPECT_GT(pass["time"].get<double>(), last);
        last = pass["time"].get<double>();
        ASSERT_EQ(pass["groups"].size(), 1u);
        EXPECT_EQ(pass["groups"][0]["values"][0]["value"], 8000);
    }
}

TEST(ToolLive, Kw1281SimulatorTableForOneSecond) {
    const RunResult r = RunTool({"live", "1", "--seconds", "1"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    const size_t passes = Count(r.out, "Dravelin live: ");
    EXPECT_GE(passes, 3u);
    EXPECT_EQ(Count(r.out, "Group 1:\n  1: 800.0 rpm"), passes);
    EXPECT_NE(r.out.find("Disconnected after " + std::to_string(passes) + " passes\n"),
              std::string::npos)
        << r.out;
}

} // namespace
} // namespace dvtooltest
