// The log-capture fixture (see log_capture.h).
#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace dvtest {
namespace {
std::vector<std::string> gCalls;
}

void LogCaptureReset() {
    gCalls.clear();
}

void LogCaptureCallback(uint32_t /*context*/, const DvChar *text) {
    const uint32_t length = DvLogDecode(text, nullptr, 0);
    if (length == 0xFFFFFFFF) {
        ADD_FAILURE() << "the library delivered a log text DvLogDecode refuses";
        gCalls.emplace_back("<malformed>");
        return;
    }
    std::vector<DvChar> plain(static_cast<size_t>(length) + 1);
    DvLogDecode(text, plain.data(), length + 1);
    std::string call;
    call.reserve(length);
    for (uint32_t i = 0; i < length; ++i) {
        call.push_back(static_cast<char>(plain[i] & 0xFF));
    }
    gCalls.push_back(std::move(call));
}

const std::vector<std::string> &LogCalls() {
    return gCalls;
}

std::string LogText() {
    std::string text;
    for (const std::string &call : gCalls) {
        text += call;
    }
    return text;
}

uint32_t ConstructLibrary(uint32_t level) {
    LogCaptureReset();
    const uint32_t code = DvConstruct(0, LogCaptureCallback);
    DvSetMessagesLevel(level);
    return code;
}

size_t Occurrences(const std::string &text, const std::string &part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

} // namespace dvtest
