// Runs the dravelin program as a person would (fork and exec, stdout and stderr read through
// pipes, never a terminal) for the command-level suites tests/tool_*_test.cpp. The program's path
// comes from the build (DV_TOOL_PATH).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace dvtooltest {

struct RunResult {
    bool exited = false; // ended by exit (not by a signal, not killed for taking too long)
    int exitStatus = -1; // its exit status when it exited
    bool timedOut = false;
    std::string out; // stdout
    std::string err; // stderr
};

// One running program. Its output is collected while waiting for it.
class Child {
public:
    // args without the program name; stdinPath empty: /dev/null.
    explicit Child(const std::vector<std::string> &args, const std::string &stdinPath = {}) {
        int outPipe[2];
        int errPipe[2];
        if (pipe(outPipe) != 0 || pipe(errPipe) != 0) {
            ADD_FAILURE() << "pipe failed";
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            const int in = open(stdinPath.empty() ? "/dev/null" : stdinPath.c_str(), O_RDONLY);
            dup2(in, 0);
            dup2(outPipe[1], 1);
            dup2(errPipe[1], 2);
            close(outPipe[0]);
            close(errPipe[0]);
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
        close(outPipe[1]);
        close(errPipe[1]);
        outFd_ = outPipe[0];
        errFd_ = errPipe[0];
    }
    ~Child() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        CloseFds();
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    const std::string &out() const { return out_; }
    const std::string &err() const { return err_; }

    // Collects output until stdout holds `text` (true) or the time is up or the program ended.
    bool WaitForOutput(const std::string &text, double seconds) {
        const auto end = Deadline(seconds);
        while (out_.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() >= end || !Pump(end)) {
                return out_.find(text) != std::string::npos;
            }
        }
        return true;
    }

    void Signal(int signal) { kill(pid_, signal); }

    // Collects the rest of the output and the exit status; kills the program after `seconds`.
    RunResult Finish(double seconds) {
        RunResult result;
        const auto end = Deadline(seconds);
        while (Pump(end)) {
        }
        if (std::chrono::steady_clock::now() >= end && (outFd_ >= 0 || errFd_ >= 0)) {
            result.timedOut = true;
            kill(pid_, SIGKILL);
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        reaped_ = true;
        CloseFds();
        result.exited = !result.timedOut && WIFEXITED(status);
        result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = out_;
        result.err = err_;
        return result;
    }

private:
    static std::chrono::steady_clock::time_point Deadline(double seconds) {
        return std::chrono::steady_clock::now() +
               std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
    }

    // Reads what is there; false once both pipes are closed or the deadline passed.
    bool Pump(std::chrono::steady_clock::time_point end) {
        if (outFd_ < 0 && errFd_ < 0) {
            return false;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              end - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0) {
            return false;
        }
        pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(left)) < 0) {
            return false;
        }
        ReadInto(fds[0], outFd_, out_);
        ReadInto(fds[1], errFd_, err_);
        return true;
    }

    static void ReadInto(const pollfd &fd, int &own, std::string &text) {
        if (own < 0 || (fd.revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
            return;
        }
        char buffer[4096];
        const ssize_t got = read(own, buffer, sizeof buffer);
        if (got <= 0) {
            close(own);
            own = -1;
            return;
        }
        text.append(buffer, static_cast<size_t>(got));
    }

    void CloseFds() {
        if (outFd_ >= 0) {
            close(outFd_);
            outFd_ = -1;
        }
        if (errFd_ >= 0) {
            close(errFd_);
            errFd_ = -1;
        }
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
};

// Runs the program to its end (killed after `seconds`).
inline RunResult RunTool(const std::vector<std::string> &args, double seconds = 60,
                         const std::string &stdinPath = {}) {
    Child child(args, stdinPath);
    return child.Finish(seconds);
}

// A fresh directory for one test's files, removed with its files at the end of the test.
class TempDir {
public:
    TempDir() {
        std::string pattern = ::testing::TempDir() + "dravelin-tool-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) {
            path_ = pattern;
        }
    }
    ~TempDir() {
        if (!path_.empty()) {
            std::system(("rm -rf '" + path_ + "'").c_str());
        }
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string File(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string ReadFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline size_t Count(const std::string &text, const std::string &what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

// Runs a command that prints JSON; a failing command or output that is not one JSON document
// fails the test (the document is then null).
inline nlohmann::json RunJson(const std::vector<std::string> &args, double seconds = 60) {
    const RunResult r = RunTool(args, seconds);
    std::string command;
    for (const std::string &arg : args) {
        command += arg + " ";
    }
    EXPECT_TRUE(r.exited) << command;
    EXPECT_EQ(r.exitStatus, 0) << command << r.err;
    EXPECT_EQ(r.err, "") << command;
    nlohmann::json doc = nlohmann::json::parse(r.out, nullptr, false);
    EXPECT_FALSE(doc.is_discarded()) << command << r.out;
    return doc.is_discarded() ? nlohmann::json() : doc;
}

} // namespace dvtooltest
