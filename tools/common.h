// What every command of the dravelin host program shares: the library's lifetime, the decoded
// log, text conversion, result codes, settings options, Ctrl-C and the progress line.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "dravelin/dravelin.h"

namespace dvtool {

using Json = nlohmann::ordered_json;

// Options every command takes.
struct CommonOptions {
    int verbose = 0;    // -v: progress (level 2), -vv: line trace (3), -vvv: detail (4)
    bool json = false;  // --json: one JSON document on stdout
    std::string rawLog; // --raw-log FILE: the scrambled log as the library delivered it
    std::vector<std::string> settings; // --set NAME=VALUE, words of DvSettings
};

void AddCommonOptions(CLI::App &command, CommonOptions &options);

// DvConstruct for the life of a command, with the log shown on stderr (decoded) at -v and
// written to --raw-log. Applies --set options.
class Library {
public:
    explicit Library(const CommonOptions &options);
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    uint32_t status() const { return status_; }

private:
    uint32_t status_ = 0;
};

// UTF-16 (DvChar) <-> UTF-8.
std::string ToUtf8(const DvChar *text);
std::vector<DvChar> ToDvText(const std::string &text);

// Keeps the decoded log lines delivered from now on (at the message level in force), so that a
// command can show a part of the log, such as the statistics report, without -v.
void StartLogCapture();
std::string TakeLogCapture();

// Decodes a scrambled log text (one or several lines) to plain text; empty when malformed.
bool DecodeLog(const DvChar *text, std::string &plain);

// One line explaining a result code (Part 1.1's table).
std::string ExplainResult(uint32_t code);
// The process exit status for a result code: non-zero, and the same code where it fits.
int ExitStatus(uint32_t code);
// Prints "dravelin: ACTION failed: code N (0x...): explanation" to stderr, returns ExitStatus.
int ReportFailure(const std::string &action, uint32_t code);

// Numbers given as 17, 0x11 or 0b10001.
uint32_t ParseNumber(const std::string &text);
// Applies NAME=VALUE settings words on top of the current settings; throws on a bad name.
uint32_t ApplySettings(const std::vector<std::string> &assignments);

// Ctrl-C: the first press asks the running command to stop at the next safe point (so the link
// is closed cleanly); a second press ends the program at once.
void InstallInterruptHandler();
bool Interrupted();

// A one-line "what is happening" indicator on a terminal while a long library call runs
// (the 5-baud initialisation takes seconds and the log is delivered only at its end).
class Progress {
public:
    explicit Progress(std::string text);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

private:
    struct State;
    State *state_;
};

// The descriptions array of DvVagConnect & co, copied out and freed.
std::vector<std::string> TakeDescriptions(DvChar **descriptions);

// Prints a JSON document on stdout.
void PrintJson(const Json &document);

} // namespace dvtool
