// DvLogDecode, the host's reader of the message log: round trips, the capacity cut and the
// malformed texts it refuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "bench/fake_platform.h"
#include "frame/frame.h"

namespace {

using dv::bench::Fake;

constexpr uint32_t kMalformed = 0xFFFFFFFF;

std::vector<std::u16string> gRaw;

void RawCallback(uint32_t, const DvChar *text) {
    gRaw.emplace_back(reinterpret_cast<const char16_t *>(text));
}

const DvChar *Dv(const std::u16string &text) {
    return reinterpret_cast<const DvChar *>(text.c_str());
}

// Decodes with a roomy buffer; the text, or "<malformed>".
std::u16string Decode(const std::u16string &text) {
    std::vector<DvChar> plain(text.size() + 16, 0x7777);
    const uint32_t length =
        DvLogDecode(Dv(text), plain.data(), static_cast<uint32_t>(plain.size()));
    if (length == kMalformed) {
        EXPECT_EQ(plain[0], 0) << "a refused text leaves an empty string";
        return u"<malformed>";
    }
    const std::u16string result(reinterpret_cast<const char16_t *>(plain.data()));
    EXPECT_EQ(result.size(), length);
    return result;
}

class LogDecodeTest : public ::testing::Test {
protected:
    void SetUp() override {
        dv::bench::FakeInstall();
        gRaw.clear();
        ASSERT_EQ(DvConstruct(0, RawCallback), 0u);
        DvSetMessagesLevel(4);
    }
    void TearDown() override {
        DvDestruct();
        dv::bench::FakeUninstall();
    }
    // Logs one line with the key index k and returns what the host received.
    static std::u16string Line(uint32_t k, const char16_t *text) {
        Fake().randomValues.push_back(static_cast<int>((k * 32767 + 510) / 511));
        dv::LogMessage(1, u"%s", text);
        EXPECT_FALSE(gRaw.empty());
        return gRaw.empty() ? std::u16string() : gRaw.back();
    }
};

TEST_F(LogDecodeTest, RoundTripEveryKeyIndex) {
    std::u16string text;
    for (char16_t c = 1; c < 0x100; ++c) {
        text += c;
    }
    for (uint32_t k = 0; k < 512; k += 7) {
        EXPECT_EQ(Decode(Line(k, text.c_str())), u"\r\n" + text) << "key index " << k;
    }
    EXPECT_EQ(Decode(Line(511, text.c_str())), u"\r\n" + text);
}

TEST_F(LogDecodeTest, RoundTripOddEvenAndEmpty) {
    EXPECT_EQ(Decode(Line(3, u"")), u"\r\n");
    EXPECT_EQ(Decode(Line(3, u"a")), u"\r\na");
    EXPECT_EQ(Decode(Line(3, u"ab")), u"\r\nab");
    EXPECT_EQ(Decode(Line(3, u"abc")), u"\r\nabc");
    EXPECT_EQ(Decode(Line(3, u"\r\nConnected successfully\r\n")),
              u"\r\n\r\nConnected successfully\r\n");
}

TEST_F(LogDecodeTest, SeveralLinesOfOneSection) {
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"one\r\n");
    dv::LogMessage(1, u"");
    dv::LogMessage(1, u"x");
    dv::LogMessage(1, u"three %u\r\n", 3u);
    dv::ExchangeEnd();
    ASSERT_EQ(gRaw.size(), 1u);
    EXPECT_EQ(Decode(gRaw[0]), u"\r\none\r\n\r\n\r\nx\r\nthree 3\r\n");
}

TEST_F(LogDecodeTest, LowerCaseDigitsAreRead) {
    std::u16string text = Line(200, u"lower case");
    for (char16_t &c : text) {
        if (c >= u'A' && c <= u'F') {
            c = static_cast<char16_t>(c - u'A' + u'a');
        }
    }
    EXPECT_EQ(Decode(text), u"\r\nlower case");
}

// The result is the full length; at most capacity - 1 characters and a NUL are written.
TEST_F(LogDecodeTest, CapacityCutReturnsTheFullLength) {
    const std::u16string text = Line(77, u"abcdefgh"); // plain: CR LF + 8 = 10 characters
    DvChar plain[6];
    std::fill(std::begin(plain), std::end(plain), 0x7777);
    EXPECT_EQ(DvLogDecode(Dv(text), plain, 5), 10u);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(plain)), u"\r\nab");
    EXPECT_EQ(plain[5], 0x7777);

    EXPECT_EQ(DvLogDecode(Dv(text), plain, 1), 10u);
    EXPECT_EQ(plain[0], 0);

    std::fill(std::begin(plain), std::end(plain), 0x7777);
    EXPECT_EQ(DvLogDecode(Dv(text), plain, 0), 10u);
    EXPECT_EQ(plain[0], 0x7777);
    EXPECT_EQ(DvLogDecode(Dv(text), nullptr, 0), 10u);

    std::vector<DvChar> exact(11);
    EXPECT_EQ(DvLogDecode(Dv(text), exact.data(), 11), 10u);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(exact.data())), u"\r\nabcdefgh");
}

TEST_F(LogDecodeTest, MissingHeaderIsMalformed) {
    EXPECT_EQ(Decode(u""), u"<malformed>");
    EXPECT_EQ(Decode(u"0000"), u"<malformed>");
    EXPECT_EQ(Decode(u"\r\n"), u"<malformed>");
    EXPECT_EQ(Decode(u"\r\n00"), u"<malformed>");
    EXPECT_EQ(Decode(u"\n\r0000"), u"<malformed>");
    EXPECT_EQ(Decode(u"\r0000"), u"<malformed>");
    // A well-formed line followed by a broken one.
    EXPECT_EQ(Decode(Line(1, u"ok") + u"\r\n00"), u"<malformed>");
    EXPECT_EQ(Decode(Line(1, u"ok") + u"\r"), u"<malformed>");
    EXPECT_EQ(DvLogDecode(nullptr, nullptr, 0), kMalformed);
}

TEST_F(LogDecodeTest, NonHexDigitIsMalformed) {
    const std::u16string text = Line(12, u"text");
    EXPECT_EQ(Decode(text), u"\r\ntext");
    for (size_t i = 2; i < text.size(); ++i) {
        std::u16string broken = text;
        broken[i] = u'G';
        EXPECT_EQ(Decode(broken), u"<malformed>") << "position " << i;
    }
    EXPECT_EQ(Decode(u"\r\n0000 1"), u"<malformed>");
    EXPECT_EQ(Decode(u"\r\n00000"), u"<malformed>"); // an odd number of digits
}

// Header digits decode to the key index by the pair rule; 512 and above are refused. "AB55" is
// 511. "AB57": a = (0x57 & 0xAA) | (0xAB & 0x55) = 0x03, b = (0xAB & 0xAA) | (0x57 & 0x55) = 0xFF,
// 1023. "0002": a = 0x02, b = 0x00, 512. "0200": a = 0x00, b = 0x02, 2.
TEST_F(LogDecodeTest, KeyIndexAbove511IsMalformed) {
    EXPECT_EQ(Decode(u"\r\nAB55"), u"\r\n");
    EXPECT_EQ(Decode(u"\r\nAB57"), u"<malformed>");
    EXPECT_EQ(Decode(u"\r\n0002"), u"<malformed>");
    EXPECT_EQ(Decode(u"\r\n0200"), u"\r\n");
    EXPECT_EQ(Decode(u"\r\nFFFF"), u"<malformed>");
}

TEST_F(LogDecodeTest, MalformedWritesEmptyStringEvenWhenCut) {
    DvChar plain[4] = {0x7777, 0x7777, 0x7777, 0x7777};
    const std::u16string text = Line(0, u"good") + u"\r\nZZZZ";
    EXPECT_EQ(DvLogDecode(Dv(text), plain, 4), kMalformed);
    EXPECT_EQ(plain[0], 0);
}

} // namespace
