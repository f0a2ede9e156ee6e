// The message log seen from the program: -v shows it decoded on stderr, --raw-log keeps it
// scrambled as the library delivered it, and `decode-log` reads that file back to the same text.
#include <fstream>

#include "tool_run.h"

namespace dvtooltest {
namespace {

std::string WithoutCarriageReturns(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c != '\r') {
            out += c;
        }
    }
    return out;
}

void ExpectRoundTrip(const std::vector<std::string> &command, const std::string &connecting) {
    TempDir dir;
    const std::string raw = dir.File("session.log");
    std::vector<std::string> args = command;
    args.insert(args.end(), {"-v", "--raw-log", raw});
    const RunResult session = RunTool(args);
    ASSERT_TRUE(session.exited);
    ASSERT_EQ(session.exitStatus, 0) << session.err;
    // The scrambled file reads as nothing of the plain text.
    const std::string scrambled = ReadFile(raw);
    ASSERT_FALSE(scrambled.empty());
    EXPECT_EQ(scrambled.find("Connect"), std::string::npos);
    EXPECT_EQ(scrambled.substr(0, 2), "\r\n");
    EXPECT_NE(session.err.find(connecting), std::string::npos) << session.err;
    EXPECT_NE(session.err.find("\nConnected successfully\n"), std::string::npos);
    EXPECT_NE(session.err.find("\nDisconnected\n"), std::string::npos);

    const RunResult decoded = RunTool({"decode-log"}, 10, raw);
    ASSERT_TRUE(decoded.exited);
    EXPECT_EQ(decoded.exitStatus, 0) << decoded.err;
    EXPECT_EQ(decoded.out, session.err);

    // A copy that lost its carriage returns (an editor, a mail) still decodes.
    const std::string mangled = dir.File("mangled.log");
    std::ofstream(mangled, std::ios::binary) << WithoutCarriageReturns(scrambled);
    const RunResult mended = RunTool({"decode-log"}, 10, mangled);
    EXPECT_EQ(mended.exitStatus, 0) << mended.err;
    EXPECT_EQ(mended.out, session.err);
}

TEST(ToolLog, Kw1281RawLogDecodesToTheVerboseLog) {
    ExpectRoundTrip({"kw1281", "id"}, "\nConnecting to ECU at address 80h at 9600 baud rate\n");
}

TEST(ToolLog, KwpRawLogDecodesToTheVerboseLog) {
    ExpectRoundTrip({"kwp", "id"}, "Connected successfully");
}

TEST(ToolLog, DecodeLogRefusesTextThatIsNoLog) {
    TempDir dir;
    const std::string path = dir.File("plain.txt");
    std::ofstream(path) << "hello, this is not a scrambled log\n";
    const RunResult r = RunTool({"decode-log"}, 10, path);
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "dravelin: decode-log: the input is not a scrambled Dravelin log\n");
}

TEST(ToolLog, WithoutVerboseNothingGoesToStderr) {
    TempDir dir;
    const std::string raw = dir.File("quiet.log");
    const RunResult r = RunTool({"kwp", "capabilities", "--raw-log", raw});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "Capabilities: 0x00000005\n");
    // The raw log is still written, at the progress level.
    const RunResult decoded = RunTool({"decode-log"}, 10, raw);
    EXPECT_NE(decoded.out.find("\nDisconnecting from ECU\n"), std::string::npos) << decoded.out;
}

} // namespace
} // namespace dvtooltest
