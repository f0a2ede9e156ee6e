// Windows-1252, the ANSI code page of every backend that has none of its own.
#include <array>

#include "platform/platform.h"

namespace dv {
namespace {
// 0x80..0x9F; the rest of the page equals Latin-1. Unassigned bytes map to the C1 control of
// the same value, as MultiByteToWideChar does.
constexpr std::array<char16_t, 32> kHighControls = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

char16_t Cp1252Char(unsigned char c) {
    if (c >= 0x80 && c <= 0x9F) {
        return kHighControls[c - 0x80];
    }
    return c;
}
} // namespace

int Cp1252ToUtf16(const char *src, int srcCount, char16_t *dst, int dstCount) {
    if (src == nullptr || srcCount == 0 || dstCount < 0) {
        return 0;
    }
    int count = srcCount;
    if (srcCount < 0) { // NUL-terminated: the NUL is converted too
        count = 0;
        while (src[count] != '\0') {
            ++count;
        }
        ++count;
    }
    if (dstCount == 0) {
        return count;
    }
    if (dst == nullptr || dstCount < count) {
        return 0;
    }
    for (int i = 0; i < count; ++i) {
        dst[i] = Cp1252Char(static_cast<unsigned char>(src[i]));
    }
    return count;
}

} // namespace dv
