// The log-capture fixture: a MessageCallback that records every call decoded with DvLogDecode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "dravelin/dravelin.h"

namespace dvtest {

// Forgets the captured calls.
void LogCaptureReset();
// The callback to pass to DvConstruct.
void LogCaptureCallback(uint32_t context, const DvChar *text);
// One entry per callback call, decoded with DvLogDecode; each character U+0000..U+00FF is stored
// as one byte. A text DvLogDecode refuses fails the running test and is stored as "<malformed>".
const std::vector<std::string> &LogCalls();
// All calls concatenated.
std::string LogText();
// How often `part` stands in `text` (overlapping matches counted), for counting log lines.
size_t Occurrences(const std::string &text, const std::string &part);
// LogCaptureReset, DvConstruct(0, LogCaptureCallback), DvSetMessagesLevel(level); returns
// DvConstruct's result. Installs no platform: install the fake or the bench first.
uint32_t ConstructLibrary(uint32_t level = 2);

} // namespace dvtest
