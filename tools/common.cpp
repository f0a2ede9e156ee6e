// Shared pieces of the dravelin host program (see common.h).
#include "common.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

#if defined(_WIN32)
#include <io.h>
#define DV_ISATTY _isatty
#define DV_FILENO _fileno
#else
#include <unistd.h>
#define DV_ISATTY isatty
#define DV_FILENO fileno
#endif

namespace dvtool {
namespace {

// The log callback has only the context word, so where the log goes is module state of the
// program (one library instance a process, as the library itself).
bool gShowLog = false;
std::FILE *gRawLog = nullptr;
std::atomic<int> gInterrupts{0};
bool gCapture = false;
std::string gCaptured;

void AppendUtf8(std::string &out, uint32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void DV_CALL OnLog(uint32_t /*context*/, const DvChar *text) {
    if (gRawLog != nullptr) {
        std::string raw = ToUtf8(text);
        std::fwrite(raw.data(), 1, raw.size(), gRawLog);
        std::fflush(gRawLog);
    }
    if (!gShowLog && !gCapture) {
        return;
    }
    std::string plain;
    if (!DecodeLog(text, plain)) {
        return;
    }
    std::string lines;
    for (char c : plain) {
        if (c != '\r') {
            lines += c;
        }
    }
    if (gCapture) {
        gCaptured += lines;
    }
    if (gShowLog) {
        std::cerr << lines << std::flush;
    }
}

void OnInterrupt(int) {
    if (gInterrupts.fetch_add(1) >= 1) {
        std::_Exit(130);
    }
}

struct SettingField {
    const char *name;
    uint32_t DvSettings::*field;
};

constexpr SettingField kSettingFields[] = {
    {"dtrOn", &DvSettings::dtrOn},
    {"P2max", &DvSettings::P2max},
    {"P1max", &DvSettings::P1max},
    {"isoConnectAttempts", &DvSettings::isoConnectAttempts},
    {"isoRequestAttempts", &DvSettings::isoRequestAttempts},
    {"testerAddress", &DvSettings::testerAddress},
    {"connectRetries", &DvSettings::connectRetries},
    {"serviceRetries", &DvSettings::serviceRetries},
    {"blockSendRetries", &DvSettings::blockSendRetries},
    {"silenceReads", &DvSettings::silenceReads},
    {"initTimeout", &DvSettings::initTimeout},
    {"keywordTimeout", &DvSettings::keywordTimeout},
    {"blockTimeout", &DvSettings::blockTimeout},
    {"byteTimeout", &DvSettings::byteTimeout},
};

} // namespace

void AddCommonOptions(CLI::App &command, CommonOptions &options) {
    command.add_flag("-v,--verbose", options.verbose,
                     "Show the decoded message log on stderr (-v progress, -vv line trace, "
                     "-vvv detail)");
    command.add_flag("--json", options.json, "Print the result as one JSON document");
    command.add_option("--raw-log", options.rawLog,
                       "Append the scrambled log, as the library delivers it, to FILE "
                       "(read it back with `dravelin decode-log`)");
    command
        .add_option("--set", options.settings,
                    "Settings word NAME=VALUE (dtrOn, P2max, P1max, isoConnectAttempts, "
                    "isoRequestAttempts, testerAddress, connectRetries, serviceRetries, "
                    "blockSendRetries, silenceReads, initTimeout, keywordTimeout, "
                    "blockTimeout, byteTimeout)")
        ->type_name("NAME=VALUE");
}

Library::Library(const CommonOptions &options) {
    gShowLog = options.verbose > 0;
    if (!options.rawLog.empty()) {
        gRawLog = std::fopen(options.rawLog.c_str(), "ab");
        if (gRawLog == nullptr) {
            throw std::runtime_error("cannot open " + options.rawLog + " for writing");
        }
    }
    status_ = DvConstruct(0, OnLog);
    if (status_ != 0) {
        return;
    }
    // Without -v the log still goes to --raw-log at the progress level.
    const uint32_t level = options.verbose <= 0 ? 2u : static_cast<uint32_t>(options.verbose + 1);
    DvSetMessagesLevel(level);
    try {
        status_ = ApplySettings(options.settings);
    } catch (...) {
        // The destructor does not run for a constructor that throws: undo the construction.
        DvDestruct();
        if (gRawLog != nullptr) {
            std::fclose(gRawLog);
            gRawLog = nullptr;
        }
        throw;
    }
}

Library::~Library() {
    DvDestruct();
    if (gRawLog != nullptr) {
        std::fclose(gRawLog);
        gRawLog = nullptr;
    }
}

void StartLogCapture() {
    gCapture = true;
    gCaptured.clear();
}

std::string TakeLogCapture() {
    gCapture = false;
    return std::move(gCaptured);
}

std::string ToUtf8(const DvChar *text) {
    std::string out;
    if (text == nullptr) {
        return out;
    }
    for (const DvChar *p = text; *p != 0; ++p) {
        uint32_t c = static_cast<uint16_t>(*p);
        if (c >= 0xD800 && c <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<uint16_t>(p[1]) - 0xDC00);
            ++p;
        }
        AppendUtf8(out, c);
    }
    return out;
}

std::vector<DvChar> ToDvText(const std::string &text) {
    std::vector<DvChar> out;
    for (size_t i = 0; i < text.size();) {
        const auto b = static_cast<unsigned char>(text[i]);
        uint32_t c = b;
        size_t extra = 0;
        if (b >= 0xF0) {
            c = b & 0x07;
            extra = 3;
        } else if (b >= 0xE0) {
            c = b & 0x0F;
            extra = 2;
        } else if (b >= 0xC0) {
            c = b & 0x1F;
            extra = 1;
        }
        ++i;
        for (size_t k = 0; k < extra && i < text.size(); ++k, ++i) {
            c = (c << 6) | (static_cast<unsigned char>(text[i]) & 0x3F);
        }
        if (c >= 0x10000) {
            c -= 0x10000;
            out.push_back(static_cast<DvChar>(0xD800 + (c >> 10)));
            out.push_back(static_cast<DvChar>(0xDC00 + (c & 0x3FF)));
        } else {
            out.push_back(static_cast<DvChar>(c));
        }
    }
    out.push_back(0);
    return out;
}

bool DecodeLog(const DvChar *text, std::string &plain) {
    size_t length = 0;
    while (text[length] != 0) {
        ++length;
    }
    // The plain text is never longer than the scrambled one.
    std::vector<DvChar> buffer(length + 1);
    const uint32_t result = DvLogDecode(text, buffer.data(), static_cast<uint32_t>(buffer.size()));
    if (result == 0xFFFFFFFF) {
        return false;
    }
    plain.clear();
    for (size_t i = 0; i < result && i < length; ++i) {
        AppendUtf8(plain, static_cast<uint16_t>(buffer[i]) & 0xFF);
    }
    return true;
}

std::string ExplainResult(uint32_t code) {
    switch (code) {
    case 0: return "success";
    case 1:
        return "invalid value, the thread priority could not be raised, a text could not be "
               "converted, or a count that differs from the ECU's answer";
    case 2: return "module address not in the KWP2000 address map";
    case 3: return "KWP2000 request too long";
    case 4: return "the platform has no performance counter";
    case 5: return "serial port or line failure (is the port right, present and free?)";
    case 6: return "no adapter echo: is the KKL cable connected and powered by the car?";
    case 7:
        return "bad block or message size, too many answers, or a wrong echoed parameter in the "
               "ECU's answer";
    case 8: return "no answer from the ECU in time (ignition on? right address and baud rate?)";
    case 9: return "bad synchronisation byte (wrong baud rate?)";
    case 10: return "bad keyword or key bytes (protocol not supported by this ECU?)";
    case 11: return "wrong complement from the ECU, or the line did not fall quiet";
    case 12: return "bad KWP2000 answer message (addressing, size or checksum)";
    case 13: return "unexpected answer type from the ECU";
    case 256: return "the ECU refused the request";
    default: break;
    }
    if (code > 256 && code <= 0x1FF) {
        char text[96];
        std::snprintf(text, sizeof text, "the ECU answered negatively with response code 0x%02X",
                      code - 0x100);
        return text;
    }
    return "unknown result code";
}

int ExitStatus(uint32_t code) {
    if (code == 0) {
        return 0;
    }
    if (code < 64) {
        return static_cast<int>(code);
    }
    if (code == 256) {
        return 64;
    }
    return 65; // a KWP2000 negative response (0x100 + n) or anything else
}

int ReportFailure(const std::string &action, uint32_t code) {
    char number[32];
    std::snprintf(number, sizeof number, "%u (0x%X)", code, code);
    std::cerr << "dravelin: " << action << " failed: code " << number << ": " << ExplainResult(code)
              << "\n";
    return ExitStatus(code);
}

uint32_t ParseNumber(const std::string &text) {
    size_t used = 0;
    int base = 10;
    std::string digits = text;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        digits = text.substr(2);
    } else if (text.size() > 2 && text[0] == '0' && (text[1] == 'b' || text[1] == 'B')) {
        base = 2;
        digits = text.substr(2);
    }
    const unsigned long long value = std::stoull(digits, &used, base);
    if (used != digits.size() || value > 0xFFFFFFFFull) {
        throw std::invalid_argument("not a number: " + text);
    }
    return static_cast<uint32_t>(value);
}

uint32_t ApplySettings(const std::vector<std::string> &assignments) {
    if (assignments.empty()) {
        return 0;
    }
    DvSettings settings{};
    DvGetSettings(&settings);
    for (const std::string &assignment : assignments) {
        const size_t equals = assignment.find('=');
        const std::string name = assignment.substr(0, equals);
        bool known = false;
        for (const SettingField &field : kSettingFields) {
            if (name == field.name && equals != std::string::npos) {
                settings.*field.field = ParseNumber(assignment.substr(equals + 1));
                known = true;
            }
        }
        if (!known) {
            throw std::invalid_argument("unknown setting: " + assignment);
        }
    }
    return DvSetSettings(&settings);
}

void InstallInterruptHandler() {
    std::signal(SIGINT, OnInterrupt);
#if !defined(_WIN32)
    std::signal(SIGTERM, OnInterrupt);
#endif
}

bool Interrupted() {
    return gInterrupts.load() > 0;
}

struct Progress::State {
    std::mutex mutex;
    std::condition_variable wake;
    bool done = false;
    std::thread thread;
};

Progress::Progress(std::string text) : state_(nullptr) {
    if (!DV_ISATTY(DV_FILENO(stderr)) || gShowLog) {
        return;
    }
    state_ = new State;
    state_->thread = std::thread([this, text = std::move(text)] {
        const auto start = std::chrono::steady_clock::now();
        std::unique_lock<std::mutex> lock(state_->mutex);
        do {
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            std::fprintf(stderr, "\r%s %.1f s ", text.c_str(), seconds);
            std::fflush(stderr);
        } while (!state_->wake.wait_for(lock, std::chrono::milliseconds(100),
                                        [this] { return state_->done; }));
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
    });
}

Progress::~Progress() {
    if (state_ == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->done = true;
    }
    state_->wake.notify_all();
    state_->thread.join();
    delete state_;
}

std::vector<std::string> TakeDescriptions(DvChar **descriptions) {
    std::vector<std::string> result;
    if (descriptions == nullptr) {
        return result;
    }
    for (DvChar **p = descriptions; *p != nullptr; ++p) {
        result.push_back(ToUtf8(*p));
        DvFree(*p);
    }
    DvFree(descriptions);
    return result;
}

void PrintJson(const Json &document) {
    std::cout << document.dump(2) << "\n";
}

} // namespace dvtool
