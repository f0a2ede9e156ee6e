// DvLogDecode: the host's reader of the scrambled message log (the ABI's addition to Part 1.3).
#include <algorithm>

#include "frame/frame.h"

namespace dv {
namespace {

constexpr uint32_t kMalformed = 0xFFFFFFFF;
constexpr uint32_t kKeyCount = 512;

int HexValue(char16_t c) {
    if (c >= u'0' && c <= u'9') {
        return c - u'0';
    }
    if (c >= u'A' && c <= u'F') {
        return c - u'A' + 10;
    }
    if (c >= u'a' && c <= u'f') {
        return c - u'a' + 10;
    }
    return -1;
}

// Two hex digits as one byte; -1 when either is not a hex digit.
int HexByte(const char16_t *p) {
    const int high = HexValue(p[0]);
    if (high < 0) {
        return -1;
    }
    const int low = HexValue(p[1]);
    return low < 0 ? -1 : high << 4 | low;
}

// The inverse of the pair rule: the two written bytes give back the earlier and the later byte.
void UnmixPair(uint8_t first, uint8_t second, uint8_t &a, uint8_t &b) {
    a = static_cast<uint8_t>((second & 0xAA) | (first & 0x55));
    b = static_cast<uint8_t>((first & 0xAA) | (second & 0x55));
}

// Collects the plain text, writing what fits and counting all of it.
struct PlainOut {
    char16_t *plain;
    uint32_t capacity;
    uint32_t length = 0;

    void Put(char16_t c) {
        if (capacity != 0 && length < capacity - 1) {
            plain[length] = c;
        }
        ++length;
    }
};

// Decodes one line starting at its CR LF; returns the position after it, or null when the line
// is malformed.
const char16_t *DecodeLine(const char16_t *p, PlainOut &out) {
    if (p[0] != u'\r' || p[1] != u'\n') {
        return nullptr;
    }
    const int first = HexByte(p + 2);
    const int second = first < 0 ? -1 : HexByte(p + 4);
    if (second < 0) {
        return nullptr;
    }
    uint8_t high = 0;
    uint8_t low = 0;
    UnmixPair(static_cast<uint8_t>(first), static_cast<uint8_t>(second), high, low);
    const uint32_t key = static_cast<uint32_t>(high) << 8 | low;
    if (key >= kKeyCount) {
        return nullptr;
    }
    out.Put(u'\r');
    out.Put(u'\n');
    p += 6;
    uint32_t index = 0;
    auto emit = [&](uint8_t byte) {
        out.Put(static_cast<char16_t>(byte ^ kLogKeyTable[(key + index) % kKeyCount]));
        ++index;
    };
    while (*p != 0 && *p != u'\r') {
        const int x = HexByte(p);
        if (x < 0) {
            return nullptr;
        }
        if (p[2] == 0 || p[2] == u'\r') { // the lone last byte of an odd-length line
            emit(static_cast<uint8_t>(x));
            p += 2;
            break;
        }
        const int y = HexByte(p + 2);
        if (y < 0) {
            return nullptr;
        }
        uint8_t a = 0;
        uint8_t b = 0;
        UnmixPair(static_cast<uint8_t>(x), static_cast<uint8_t>(y), a, b);
        emit(a);
        emit(b);
        p += 4;
    }
    return p;
}

} // namespace
} // namespace dv

extern "C" DV_API uint32_t DV_CALL DvLogDecode(const DvChar *text, DvChar *plain,
                                               uint32_t capacity) {
    dv::PlainOut out{reinterpret_cast<char16_t *>(plain), plain == nullptr ? 0 : capacity};
    const auto *p = reinterpret_cast<const char16_t *>(text);
    bool wellFormed = p != nullptr && *p != 0;
    while (wellFormed && *p != 0) {
        p = dv::DecodeLine(p, out);
        wellFormed = p != nullptr;
    }
    if (out.capacity == 0) {
        return wellFormed ? out.length : dv::kMalformed;
    }
    if (!wellFormed) {
        out.plain[0] = 0;
        return dv::kMalformed;
    }
    out.plain[std::min(out.length, out.capacity - 1)] = 0;
    return out.length;
}
