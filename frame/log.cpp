// The message log (Part 1.3): scrambled lines delivered at once or collected during an exchange
// section, the timestamp and hex texts of the trace lines.
#include <cstdlib>
#include <iterator>

#include "frame/format.h"
#include "frame/frame.h"
#include "frame/state.h"

namespace dv {
namespace {

constexpr uint32_t kLineRoom = 1024;  // immediate line buffer; room guaranteed before a line
constexpr uint32_t kGrowth = 4096;    // buffered log growth step
constexpr uint32_t kHeaderLength = 6; // CR, LF, 4 hex digits of the key index
constexpr uint32_t kKeyCount = 512;
constexpr uint32_t kHexTextLimit = 1019; // write position past which HexText stops

constexpr char16_t kHexDigits[] = u"0123456789ABCDEF";

char16_t gTimestampText[128];
char16_t gHexText[1024];

// Two bytes written as one scrambled pair: the even bits of one mixed with the odd bits of the
// other, four hex digits in all.
void WritePair(char16_t *out, uint8_t a, uint8_t b) {
    const uint8_t first = static_cast<uint8_t>((b & 0xAA) | (a & 0x55));
    const uint8_t second = static_cast<uint8_t>((a & 0xAA) | (b & 0x55));
    out[0] = kHexDigits[first >> 4];
    out[1] = kHexDigits[first & 0xF];
    out[2] = kHexDigits[second >> 4];
    out[3] = kHexDigits[second & 0xF];
}

uint8_t KeyedByte(const char16_t *text, uint32_t i, uint32_t key) {
    return static_cast<uint8_t>((text[i] & 0xFF) ^ gFrame.keyTable[(key + i) % kKeyCount]);
}

// Scrambles the L plain characters at text into 2 * L hex digits in place. The output is twice
// as long as its input, so it is written from the end: every character read lies before every
// character still to be written over it.
void ScrambleInPlace(char16_t *text, uint32_t length, uint32_t key) {
    uint32_t pairs = length / 2;
    if (length % 2 != 0) {
        const uint8_t lone = KeyedByte(text, length - 1, key);
        text[2 * (length - 1)] = kHexDigits[lone >> 4];
        text[2 * (length - 1) + 1] = kHexDigits[lone & 0xF];
    }
    while (pairs > 0) {
        --pairs;
        const uint8_t a = KeyedByte(text, 2 * pairs, key);
        const uint8_t b = KeyedByte(text, 2 * pairs + 1, key);
        WritePair(text + 4 * pairs, a, b);
    }
    text[2 * length] = 0;
}

// The line formatter: one scrambled line into room for `room` characters; returns the characters
// written without the NUL.
uint32_t FormatLine(char16_t *out, uint32_t room, const char16_t *format, va_list args) {
    const int r = PlatformGet().random();
    const auto key = static_cast<uint32_t>(r * 511 / 32767);
    out[0] = u'\r';
    out[1] = u'\n';
    WritePair(out + 2, static_cast<uint8_t>(key >> 8), static_cast<uint8_t>(key & 0xFF));

    char16_t *text = out + kHeaderLength;
    const uint32_t limit = (room - 7) / 2;
    const int count = FormatWideV(text, limit, format, args);
    uint32_t length = 0;
    if (count < 0 || static_cast<uint32_t>(count) == limit) {
        text[limit - 4] = u'.';
        text[limit - 3] = u'.';
        text[limit - 2] = u'.';
        text[limit - 1] = 0;
        length = limit - 1;
    } else {
        length = static_cast<uint32_t>(count);
    }
    ScrambleInPlace(text, length, key);
    return kHeaderLength + 2 * length;
}

// Runs the host callback; whatever it throws stays on this side of the ABI.
void Deliver(const char16_t *text) {
    try {
        gFrame.callback(gFrame.context, reinterpret_cast<const DvChar *>(text));
    } catch (...) {
    }
}

// Makes kLineRoom characters of room at the end of the buffered log; false when the heap is
// exhausted (the line is then dropped rather than written through a null buffer).
bool EnsureLogRoom() {
    if (gFrame.logCapacity - gFrame.logLength >= kLineRoom) {
        return true;
    }
    const uint32_t capacity = gFrame.logCapacity + kGrowth;
    void *grown = std::realloc(gFrame.logBuffer, static_cast<size_t>(capacity) * 2);
    if (grown == nullptr) {
        return false;
    }
    gFrame.logBuffer = static_cast<char16_t *>(grown);
    gFrame.logCapacity = capacity;
    return true;
}

} // namespace

void LogMessageV(uint32_t level, const char16_t *format, va_list args) {
    if (gFrame.callback == nullptr || level > gFrame.level) {
        return;
    }
    if (!gFrame.buffering) {
        char16_t line[kLineRoom];
        FormatLine(line, kLineRoom, format, args);
        Deliver(line);
        return;
    }
    if (!EnsureLogRoom()) {
        return;
    }
    gFrame.logLength += FormatLine(gFrame.logBuffer + gFrame.logLength,
                                   gFrame.logCapacity - gFrame.logLength, format, args);
}

void LogMessage(uint32_t level, const char16_t *format, ...) {
    va_list args;
    va_start(args, format);
    LogMessageV(level, format, args);
    va_end(args);
}

void LogFlush() {
    if (gFrame.logLength != 0 && gFrame.callback != nullptr) {
        Deliver(gFrame.logBuffer);
    }
    gFrame.buffering = false;
}

uint32_t LogLevel() {
    return gFrame.level;
}

const char16_t *LogTimestampText() {
    const int64_t elapsed = PlatformGet().counterNow() - gFrame.startMark;
    const double ms = static_cast<double>(elapsed) / static_cast<double>(gFrame.ticksPerMs);
    FormatWide(gTimestampText, std::size(gTimestampText), u"@ %.1f", ms);
    return gTimestampText;
}

const char16_t *HexText(const uint8_t *bytes, uint32_t count) {
    uint32_t position = 0;
    gHexText[position++] = u'\'';
    for (uint32_t i = 0; i < count; ++i) {
        if (position > kHexTextLimit) {
            gHexText[position - 3] = u'.';
            gHexText[position - 2] = u'.';
            gHexText[position - 1] = u'.';
            break;
        }
        if (i != 0) {
            gHexText[position++] = u' ';
        }
        gHexText[position++] = kHexDigits[bytes[i] >> 4];
        gHexText[position++] = kHexDigits[bytes[i] & 0xF];
    }
    gHexText[position++] = u'\'';
    gHexText[position] = 0;
    return gHexText;
}

void LogResetStartMark() {
    gFrame.startMark = PlatformGet().counterNow();
}

} // namespace dv
