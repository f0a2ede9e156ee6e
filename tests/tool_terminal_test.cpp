// On a terminal the program shows a progress line while the slow connection runs (the library
// delivers its log only at the end of it); through a pipe it prints nothing extra (the other
// suites check the empty stderr). The program runs here on a pseudo-terminal.
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace {

// Runs the program with stdin, stdout and stderr on a pseudo-terminal; returns all it wrote.
std::string RunOnTerminal(const std::vector<std::string> &args, int &exitStatus) {
    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        std::vector<char *> argv;
        std::string program = DV_TOOL_PATH;
        argv.push_back(program.data());
        std::vector<std::string> copies = args;
        for (std::string &arg : copies) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    std::string output;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    char buffer[4096];
    while (std::chrono::steady_clock::now() < end) {
        const ssize_t got = read(master, buffer, sizeof buffer);
        if (got <= 0) {
            break; // EIO once the program has ended and closed the terminal
        }
        output.append(buffer, static_cast<size_t>(got));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    close(master);
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return output;
}

TEST(ToolTerminal, ProgressLineWhileConnectingThenCleared) {
    int exitStatus = -1;
    const std::string out = RunOnTerminal({"kw1281", "id"}, exitStatus);
    EXPECT_EQ(exitStatus, 0) << out;
    // The line is redrawn in place with the seconds so far, at least at 0.0 s and near 2.0 s
    // (the simulator's connect takes 3 s), then erased before the result is printed.
    EXPECT_NE(out.find("\rConnecting to ECU 80 on SIM at 9600 baud... 0.0 s "), std::string::npos)
        << out;
    EXPECT_NE(out.find("\rConnecting to ECU 80 on SIM at 9600 baud... 2."), std::string::npos)
        << out;
    const size_t cleared = out.rfind("\r\033[K");
    ASSERT_NE(cleared, std::string::npos) << out;
    EXPECT_LT(cleared, out.find("8D0923512S"));
}

TEST(ToolTerminal, KwpStartShowsItsOwnProgressLine) {
    int exitStatus = -1;
    const std::string out = RunOnTerminal({"kwp", "start"}, exitStatus);
    EXPECT_EQ(exitStatus, 0) << out;
    EXPECT_NE(out.find("\rStarting KWP2000 with module 80 on SIM... 0.0 s "), std::string::npos)
        << out;
    EXPECT_NE(out.find("Communication started; keep-alive interval 4945 ms"), std::string::npos)
        << out;
}

TEST(ToolTerminal, NoProgressLineWithTheLog) {
    // With -v the log itself tells what is happening: no progress line mixed into it.
    int exitStatus = -1;
    const std::string out = RunOnTerminal({"kwp", "start", "-v"}, exitStatus);
    EXPECT_EQ(exitStatus, 0) << out;
    EXPECT_EQ(out.find("Starting KWP2000 with module"), std::string::npos) << out;
    EXPECT_NE(out.find("Connected successfully"), std::string::npos) << out;
}

} // namespace
