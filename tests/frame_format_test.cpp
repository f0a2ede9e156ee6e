// The bounded UTF-16 formatter: every conversion the log strings use, and the _vsnwprintf
// contract at the bound.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "frame/format.h"

namespace {

using dv::FormatWide;

// Formats into a roomy buffer and returns the text (asserting the count matches it).
template <typename... Args> std::u16string Format(const char16_t *format, Args... args) {
    char16_t buffer[256];
    const int count = FormatWide(buffer, std::size(buffer), format, args...);
    EXPECT_GE(count, 0);
    const std::u16string text(buffer);
    EXPECT_EQ(static_cast<size_t>(count), text.size());
    return text;
}

TEST(FrameFormat, StringTakesUtf16) {
    EXPECT_EQ(Format(u"port '%s'", u"COM3"), u"port 'COM3'");
    EXPECT_EQ(Format(u"%s", u"\u00e4\u20ac"), u"\u00e4\u20ac");
    EXPECT_EQ(Format(u"%ls|%hs", u"wide", "narrow"), u"wide|narrow");
    EXPECT_EQ(Format(u"%.2s|%5s|%-5s|", u"abcdef", u"ab", u"ab"), u"ab|   ab|ab   |");
    EXPECT_EQ(Format(u"%s", static_cast<const char16_t *>(nullptr)), u"(null)");
}

TEST(FrameFormat, Unsigned) {
    EXPECT_EQ(Format(u"%u", 0u), u"0");
    EXPECT_EQ(Format(u"%u", 4294967295u), u"4294967295");
    EXPECT_EQ(Format(u"%u %%", 37u), u"37 %");
    EXPECT_EQ(Format(u"%02u:%02u", 7u, 45u), u"07:45");
    EXPECT_EQ(Format(u"%02u", 123u), u"123");
}

TEST(FrameFormat, SignedDAndI) {
    EXPECT_EQ(Format(u"%i", -12), u"-12");
    EXPECT_EQ(Format(u"%d", 2147483647), u"2147483647");
    EXPECT_EQ(Format(u"%d", -2147483647 - 1), u"-2147483648");
    EXPECT_EQ(Format(u"$SC:%05i", 1234), u"$SC:01234");
    EXPECT_EQ(Format(u"%05i", -42), u"-0042");
    EXPECT_EQ(Format(u"%+d|% d|%-4d|", 5, 5, 5), u"+5| 5|5   |");
}

TEST(FrameFormat, Hex) {
    EXPECT_EQ(Format(u"%02X", 0x5u), u"05");
    EXPECT_EQ(Format(u"%02X", 0xABCu), u"ABC");
    EXPECT_EQ(Format(u"%04X", 0xBEEu), u"0BEE");
    EXPECT_EQ(Format(u"(0x%08X)", 0x57u), u"(0x00000057)");
    EXPECT_EQ(Format(u"%08X", 0xFFFFFFFFu), u"FFFFFFFF");
    EXPECT_EQ(Format(u"%X", 0xC0FFEEu), u"C0FFEE");
    EXPECT_EQ(Format(u"%x|%#x|%o", 0xABu, 0xABu, 8u), u"ab|0xab|10");
}

TEST(FrameFormat, SizePrefixes) {
    EXPECT_EQ(Format(u"%hu", 0x12345u), u"9029");
    EXPECT_EQ(Format(u"%hhX", 0x1FFu), u"FF");
    EXPECT_EQ(Format(u"%lld", -9000000000LL), u"-9000000000");
    EXPECT_EQ(Format(u"%I64u", 9000000000ULL), u"9000000000");
    EXPECT_EQ(Format(u"%zu", static_cast<size_t>(77)), u"77");
}

TEST(FrameFormat, FixedPoint) {
    EXPECT_EQ(Format(u"@ %.1f", 0.0), u"@ 0.0");
    EXPECT_EQ(Format(u"@ %.1f", 1234.56), u"@ 1234.6");
    EXPECT_EQ(Format(u"%.1f", -0.25), u"-0.2"); // round half to even, as the C runtime
    EXPECT_EQ(Format(u"%6.2f|%f", 3.14159, 1.5), u"  3.14|1.500000");
}

TEST(FrameFormat, CharacterAndStarArguments) {
    EXPECT_EQ(Format(u"[%c]", static_cast<int>(u'\u20ac')), u"[\u20ac]");
    EXPECT_EQ(Format(u"[%3c][%-3c]", 'a', 'b'), u"[  a][b  ]");
    EXPECT_EQ(Format(u"%*u|%-*u|%.*s", 4, 7u, 3, 8u, 2, u"xyz"), u"   7|8  |xy");
}

TEST(FrameFormat, PercentAndUnknownConversions) {
    EXPECT_EQ(Format(u"100%%"), u"100%");
    EXPECT_EQ(Format(u"%y"), u"y");
    EXPECT_EQ(Format(u"end%"), u"end");
}

// _vsnwprintf: shorter than the room gives the count and a NUL; exactly the room gives the count
// without a NUL; longer gives -1 with the room filled and no NUL.
TEST(FrameFormat, OverflowContract) {
    char16_t buffer[8];
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    EXPECT_EQ(FormatWide(buffer, 5, u"abcd"), 4);
    EXPECT_EQ(std::u16string(buffer, 6), std::u16string(u"abcd\0#", 6));

    std::fill(std::begin(buffer), std::end(buffer), u'#');
    EXPECT_EQ(FormatWide(buffer, 5, u"ab%u", 123u), 5);
    EXPECT_EQ(std::u16string(buffer, 6), u"ab123#");

    std::fill(std::begin(buffer), std::end(buffer), u'#');
    EXPECT_EQ(FormatWide(buffer, 5, u"%s", u"abcdefgh"), -1);
    EXPECT_EQ(std::u16string(buffer, 6), u"abcde#");

    std::fill(std::begin(buffer), std::end(buffer), u'#');
    EXPECT_EQ(FormatWide(buffer, 0, u"x"), -1);
    EXPECT_EQ(buffer[0], u'#');
    EXPECT_EQ(FormatWide(buffer, 0, u""), 0);
    EXPECT_EQ(buffer[0], u'#');
}

// The Part 4.5 and 4.3 uses: texts cut at a limit of 8 and 10 characters.
TEST(FrameFormat, LimitsOfTheProtocolTexts) {
    char16_t buffer[16];
    EXPECT_EQ(FormatWide(buffer, 8, u"%02u:%02u", 12u, 34u), 5);
    EXPECT_EQ(std::u16string(buffer), u"12:34");
    EXPECT_EQ(FormatWide(buffer, 10, u"$SC:%05i", 12345), 9);
    EXPECT_EQ(std::u16string(buffer), u"$SC:12345");
    EXPECT_EQ(FormatWide(buffer, 10, u"$SC:%05i", 123456), 10);
    EXPECT_EQ(std::u16string(buffer, 10), u"$SC:123456");
    EXPECT_EQ(FormatWide(buffer, 10, u"$SC:%05i", 1234567), -1);
    EXPECT_EQ(std::u16string(buffer, 10), u"$SC:123456");
}

TEST(FrameFormat, LongNumberFallsBackToTheLargeBuffer) {
    char16_t buffer[256];
    EXPECT_EQ(FormatWide(buffer, std::size(buffer), u"%.0f", 1e20), 21);
    EXPECT_EQ(std::u16string(buffer), u"100000000000000000000");
    EXPECT_EQ(FormatWide(buffer, std::size(buffer), u"%0200u", 5u), 200);
    EXPECT_EQ(std::u16string(buffer), std::u16string(199, u'0') + u"5");
}

} // namespace
