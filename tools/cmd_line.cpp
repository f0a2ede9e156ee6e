// Line-level commands: `spy` (capture what a port receives) and `decode-log` (read a scrambled
// message log back).
#include <cstdio>
#include <iostream>
#include <iterator>

#include "commands.h"
#include "common.h"

namespace dvtool {
namespace {

struct SpyOptions {
    CommonOptions common;
    std::string port;
    uint32_t baud = 10400;
    uint32_t max = 256;
    uint32_t timeout = 1000;
};

int RunSpy(const SpyOptions &options) {
    Library library(options.common);
    if (library.status() != 0) {
        return ReportFailure("setting up the library", library.status());
    }
    std::vector<uint8_t> buffer(options.max == 0 ? 1 : options.max);
    uint32_t count = 0;
    const std::vector<DvChar> port = ToDvText(options.port);
    const uint32_t code =
        DvSpy(port.data(), options.baud, options.max, options.timeout, &count, buffer.data());
    if (code != 0) {
        return ReportFailure("spy on " + options.port, code);
    }
    if (options.common.json) {
        Json bytes = Json::array();
        for (uint32_t i = 0; i < count; ++i) {
            bytes.push_back(buffer[i]);
        }
        PrintJson(
            {{"port", options.port}, {"baud", options.baud}, {"count", count}, {"bytes", bytes}});
        return 0;
    }
    for (uint32_t i = 0; i < count; ++i) {
        std::printf("%02X%c", buffer[i], (i % 16 == 15 || i + 1 == count) ? '\n' : ' ');
    }
    std::printf("%u byte%s\n", count, count == 1 ? "" : "s");
    return 0;
}

// The scrambled log as a host saved it: lines that each start with CR LF and a 4-digit header.
// Files that lost their CRs are mended first.
int RunDecodeLog() {
    const std::string input{std::istreambuf_iterator<char>(std::cin),
                            std::istreambuf_iterator<char>()};
    std::string text;
    for (size_t i = 0; i < input.size(); ++i) {
        if (input[i] == '\n' && (i == 0 || input[i - 1] != '\r')) {
            text += '\r';
        }
        text += input[i];
    }
    // A trailing line end of the file belongs to no log line.
    while (text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0) {
        text.resize(text.size() - 2);
    }
    if (text.empty()) {
        return 0;
    }
    const std::vector<DvChar> scrambled = ToDvText(text);
    std::string plain;
    if (!DecodeLog(scrambled.data(), plain)) {
        std::cerr << "dravelin: decode-log: the input is not a scrambled Dravelin log\n";
        return 2;
    }
    std::string out;
    for (char c : plain) {
        if (c != '\r') {
            out += c;
        }
    }
    std::cout << out;
    if (!out.empty() && out.back() != '\n') {
        std::cout << '\n';
    }
    return 0;
}

} // namespace

void AddLineCommands(CLI::App &app, int &exitStatus) {
    auto options = std::make_shared<SpyOptions>();
    CLI::App *spy = app.add_subcommand(
        "spy", "Listen on a port without any protocol and print the bytes that arrive (hex)");
    spy->add_option("port", options->port, "Serial port (COM3, /dev/ttyUSB0, ttyUSB0)")->required();
    spy->add_option("--baud", options->baud, "Baud rate")->capture_default_str();
    spy->add_option("--max", options->max, "Stop after this many bytes")->capture_default_str();
    spy->add_option("--timeout", options->timeout,
                    "Stop when no byte came for this many milliseconds")
        ->capture_default_str();
    AddCommonOptions(*spy, options->common);
    spy->callback([options, &exitStatus] { exitStatus = RunSpy(*options); });

    CLI::App *decode = app.add_subcommand(
        "decode-log", "Read a scrambled message log (as saved with --raw-log) on stdin and print "
                      "the plain text");
    decode->callback([&exitStatus] { exitStatus = RunDecodeLog(); });
}

} // namespace dvtool
