// The message log (Part 1.3): the scrambled line format, truncation, immediate and buffered
// delivery, the timestamp and hex texts.
#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/fake_platform.h"
#include "frame/frame.h"
#include "support/log_capture.h"

namespace {

using dv::bench::Fake;
using dv::bench::kFakeTicksPerMs;

// The raw texts the host received, before decoding.
std::vector<std::u16string> gRaw;

void RawCallback(uint32_t context, const DvChar *text) {
    EXPECT_EQ(context, 0x5EEDu);
    gRaw.emplace_back(reinterpret_cast<const char16_t *>(text));
    dvtest::LogCaptureCallback(context, text);
}

int gThrows = 0;

void ThrowingCallback(uint32_t context, const DvChar *text) {
    ++gThrows;
    dvtest::LogCaptureCallback(context, text);
    throw std::runtime_error("host failure");
}

// The scrambling of Part 1.3 written out directly from its steps, independent of the library's
// in-place version: header, keyed bytes, pairs and the lone byte.
std::u16string Scrambled(uint32_t k, const std::u16string &plain) {
    const char16_t *hex = u"0123456789ABCDEF";
    std::u16string out = u"\r\n";
    auto put = [&](uint8_t byte) {
        out += hex[byte >> 4];
        out += hex[byte & 0xF];
    };
    auto pair = [&](uint8_t a, uint8_t b) {
        put(static_cast<uint8_t>((b & 0xAA) | (a & 0x55)));
        put(static_cast<uint8_t>((a & 0xAA) | (b & 0x55)));
    };
    pair(static_cast<uint8_t>(k >> 8), static_cast<uint8_t>(k & 0xFF));
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < plain.size(); ++i) {
        bytes.push_back(static_cast<uint8_t>((plain[i] & 0xFF) ^ dv::kLogKeyTable[(k + i) % 512]));
    }
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        pair(bytes[i], bytes[i + 1]);
    }
    if (bytes.size() % 2 != 0) {
        put(bytes.back());
    }
    return out;
}

class LogMessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        dv::bench::FakeInstall();
        gRaw.clear();
        dvtest::LogCaptureReset();
        ASSERT_EQ(DvConstruct(0x5EED, RawCallback), 0u);
    }
    void TearDown() override {
        DvDestruct();
        dv::bench::FakeUninstall();
    }
    // Makes the next rand() give the key index k (r = ceil(k * 32767 / 511)).
    static void NextKey(uint32_t k) {
        Fake().randomValues.push_back(static_cast<int>((k * 32767 + 510) / 511));
    }
};

TEST_F(LogMessageTest, LineIsHeaderAndScrambledText) {
    NextKey(300);
    dv::LogMessage(2, u"Opening port '%s' at %u baud\r\n", u"COM1", 10400u);
    ASSERT_EQ(gRaw.size(), 1u);
    EXPECT_EQ(gRaw[0], Scrambled(300, u"Opening port 'COM1' at 10400 baud\r\n"));
    EXPECT_EQ(dvtest::LogCalls(),
              std::vector<std::string>{"\r\nOpening port 'COM1' at 10400 baud\r\n"});
}

// Header digits worked by hand: k = 0 gives 00 00; k = 1 gives 00 01; k = 511 (0x01, 0xFF) gives
// (0xFF & 0xAA) | (0x01 & 0x55) = 0xAB, then (0x01 & 0xAA) | (0xFF & 0x55) = 0x55.
TEST_F(LogMessageTest, HeaderDigitsFollowThePairRule) {
    Fake().randomValues = {0, 65, 32767};
    dv::LogMessage(1, u"");
    dv::LogMessage(1, u"");
    dv::LogMessage(1, u"");
    ASSERT_EQ(gRaw.size(), 3u);
    EXPECT_EQ(gRaw[0], u"\r\n0000");
    EXPECT_EQ(gRaw[1], u"\r\n0001");
    EXPECT_EQ(gRaw[2], u"\r\nAB55");
}

TEST_F(LogMessageTest, EmptyMessageIsTheHeaderOnly) {
    NextKey(17);
    dv::LogMessage(1, u"");
    ASSERT_EQ(gRaw.size(), 1u);
    EXPECT_EQ(gRaw[0].size(), 6u);
    EXPECT_EQ(gRaw[0], Scrambled(17, u""));
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\n");
}

// The lone byte: 'A' XOR key[0] as two hex digits, no pair mixing.
TEST_F(LogMessageTest, OneCharacterIsHeaderAndTwoDigits) {
    Fake().randomValues = {0};
    dv::LogMessage(1, u"A");
    ASSERT_EQ(gRaw.size(), 1u);
    const uint8_t byte = 0x41 ^ dv::kLogKeyTable[0];
    const char16_t *hex = u"0123456789ABCDEF";
    EXPECT_EQ(gRaw[0], std::u16string(u"\r\n0000") + hex[byte >> 4] + hex[byte & 0xF]);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\nA");
}

TEST_F(LogMessageTest, OddLengthEndsWithTheLoneByte) {
    NextKey(42);
    dv::LogMessage(1, u"abcde");
    ASSERT_EQ(gRaw.size(), 1u);
    EXPECT_EQ(gRaw[0].size(), 16u);
    EXPECT_EQ(gRaw[0], Scrambled(42, u"abcde"));
}

TEST_F(LogMessageTest, CharacterAboveFFLosesItsHighByte) {
    NextKey(5);
    dv::LogMessage(1, u"x\u20ACy"); // U+20AC keeps only 0xAC
    NextKey(5);
    dv::LogMessage(1, u"x\u00ACy");
    ASSERT_EQ(gRaw.size(), 2u);
    EXPECT_EQ(gRaw[0], gRaw[1]);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\nx\xAC"
                                     "y");
}

TEST_F(LogMessageTest, KeyIndex511FromRand32767AndWrapToZero) {
    Fake().randomValues = {32767};
    dv::LogMessage(1, u"AB");
    ASSERT_EQ(gRaw.size(), 1u);
    // 'A' uses key[511], 'B' wraps to key[0].
    const uint8_t a = 0x41 ^ dv::kLogKeyTable[511];
    const uint8_t b = 0x42 ^ dv::kLogKeyTable[0];
    const char16_t *hex = u"0123456789ABCDEF";
    const uint8_t first = static_cast<uint8_t>((b & 0xAA) | (a & 0x55));
    const uint8_t second = static_cast<uint8_t>((a & 0xAA) | (b & 0x55));
    const std::u16string expected = std::u16string(u"\r\nAB55") + hex[first >> 4] +
                                    hex[first & 0xF] + hex[second >> 4] + hex[second & 0xF];
    EXPECT_EQ(gRaw[0], expected);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\nAB");
}

TEST_F(LogMessageTest, KeyIndexIsIntegerDivision) {
    Fake().randomValues = {64, 65, 32702, 32703};
    for (int i = 0; i < 4; ++i) {
        dv::LogMessage(1, u"");
    }
    ASSERT_EQ(gRaw.size(), 4u);
    EXPECT_EQ(gRaw[0], Scrambled(0, u""));   // 64 * 511 / 32767 = 0
    EXPECT_EQ(gRaw[1], Scrambled(1, u""));   // 65 * 511 / 32767 = 1
    EXPECT_EQ(gRaw[2], Scrambled(509, u"")); // 32702 * 511 / 32767 = 509
    EXPECT_EQ(gRaw[3], Scrambled(510, u"")); // 32703 * 511 / 32767 = 510
}

// N = 1024, M = 508: a 508-character text fills the formatter and is cut to 507 ending "...".
TEST_F(LogMessageTest, Truncation508To507InImmediateMode) {
    const std::u16string message(508, u'x');
    NextKey(9);
    dv::LogMessage(1, u"%s", message.c_str());
    ASSERT_EQ(gRaw.size(), 1u);
    const std::u16string kept = std::u16string(504, u'x') + u"...";
    EXPECT_EQ(gRaw[0], Scrambled(9, kept));
    EXPECT_EQ(gRaw[0].size(), 6u + 2 * 507);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\n" + std::string(504, 'x') + "...");
}

TEST_F(LogMessageTest, FiveHundredSevenCharactersPassWhole) {
    const std::u16string message(507, u'y');
    dv::LogMessage(1, u"%s", message.c_str());
    ASSERT_EQ(dvtest::LogCalls().size(), 1u);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\n" + std::string(507, 'y'));
}

TEST_F(LogMessageTest, OverlongMessageIsCutTo507) {
    const std::u16string message(2000, u'z');
    dv::LogMessage(1, u"%s!", message.c_str());
    ASSERT_EQ(dvtest::LogCalls().size(), 1u);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\n" + std::string(504, 'z') + "...");
}

TEST_F(LogMessageTest, LevelAboveCurrentIsDropped) {
    dv::LogMessage(3, u"trace\r\n");
    EXPECT_TRUE(gRaw.empty());
    DvSetMessagesLevel(3);
    EXPECT_EQ(dv::LogLevel(), 3u);
    dv::LogMessage(3, u"trace\r\n");
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\ntrace\r\n"});
}

TEST_F(LogMessageTest, TwoLinesOfOneSectionArriveInOneCall) {
    Fake().randomValues = {0, 32767};
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"first\r\n");
    dv::LogMessage(2, u"second %u\r\n", 2u);
    EXPECT_TRUE(gRaw.empty());
    dv::ExchangeEnd();
    ASSERT_EQ(gRaw.size(), 1u);
    EXPECT_EQ(gRaw[0], Scrambled(0, u"first\r\n") + Scrambled(511, u"second 2\r\n"));
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\nfirst\r\n\r\nsecond 2\r\n"});
}

// In a section the room is capacity - length, so with a fresh 4096-character buffer a line may
// hold M = (4096 - 7) / 2 = 2044 characters: 2043 pass whole, 2044 are cut to 2043.
TEST_F(LogMessageTest, BufferedLineRoomIsTheBufferRoom) {
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"%s", std::u16string(2043, u'a').c_str());
    dv::ExchangeEnd();
    ASSERT_EQ(dvtest::LogCalls().size(), 1u);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\n" + std::string(2043, 'a'));

    dvtest::LogCaptureReset();
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"%s", std::u16string(2044, u'b').c_str());
    dv::ExchangeEnd();
    ASSERT_EQ(dvtest::LogCalls().size(), 1u);
    EXPECT_EQ(dvtest::LogCalls()[0], "\r\n" + std::string(2040, 'b') + "...");
}

TEST_F(LogMessageTest, BufferedLogGrowsBeyond4096) {
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    std::string expected;
    for (uint32_t i = 0; i < 120; ++i) {
        dv::LogMessage(2, u"line %03u of the section with some text to make it long\r\n", i);
        char line[80];
        std::snprintf(line, sizeof line,
                      "\r\nline %03u of the section with some text to make it long\r\n", i);
        expected += line;
    }
    EXPECT_TRUE(gRaw.empty());
    dv::ExchangeEnd();
    ASSERT_EQ(gRaw.size(), 1u);
    EXPECT_GT(gRaw[0].size(), 3u * 4096);
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{expected});
}

TEST_F(LogMessageTest, BufferIsReusedBySectionAfterSection) {
    for (uint32_t round = 0; round < 3; ++round) {
        dvtest::LogCaptureReset();
        ASSERT_EQ(dv::ExchangeBegin(), 0u);
        dv::LogMessage(1, u"round %u\r\n", round);
        dv::ExchangeEnd();
        EXPECT_EQ(dvtest::LogCalls(),
                  std::vector<std::string>{"\r\nround " + std::to_string(round) + "\r\n"});
    }
}

TEST_F(LogMessageTest, SectionWithoutLinesDeliversNothing) {
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(3, u"above the level\r\n");
    dv::ExchangeEnd();
    EXPECT_TRUE(gRaw.empty());
}

TEST_F(LogMessageTest, AfterTheSectionLinesAreImmediateAgain) {
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"in\r\n");
    dv::ExchangeEnd();
    dv::LogMessage(1, u"out\r\n");
    EXPECT_EQ(dvtest::LogCalls(), (std::vector<std::string>{"\r\nin\r\n", "\r\nout\r\n"}));
}

TEST(LogMessageThrowing, ImmediateCallbackExceptionIsCaught) {
    dv::bench::FakeInstall();
    dvtest::LogCaptureReset();
    gThrows = 0;
    ASSERT_EQ(DvConstruct(0, ThrowingCallback), 0u);
    EXPECT_NO_THROW(dv::LogMessage(1, u"one\r\n"));
    EXPECT_NO_THROW(dv::LogMessage(1, u"two\r\n"));
    EXPECT_EQ(gThrows, 2);
    EXPECT_EQ(dvtest::LogCalls(), (std::vector<std::string>{"\r\none\r\n", "\r\ntwo\r\n"}));
    DvDestruct();
    dv::bench::FakeUninstall();
}

TEST(LogMessageThrowing, BufferedCallbackExceptionIsCaughtAndSectionEnds) {
    dv::bench::FakeInstall();
    dvtest::LogCaptureReset();
    gThrows = 0;
    ASSERT_EQ(DvConstruct(0, ThrowingCallback), 0u);
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"buffered\r\n");
    EXPECT_NO_THROW(dv::ExchangeEnd());
    EXPECT_EQ(gThrows, 1);
    EXPECT_EQ(Fake().priority, 251); // restored before the flush
    dv::LogMessage(1, u"after\r\n"); // the buffering flag was cleared: delivered at once
    EXPECT_EQ(gThrows, 2);
    EXPECT_EQ(dvtest::LogCalls(), (std::vector<std::string>{"\r\nbuffered\r\n", "\r\nafter\r\n"}));
    DvDestruct();
    dv::bench::FakeUninstall();
}

TEST_F(LogMessageTest, TimestampIsMillisecondsSinceStartMark) {
    EXPECT_EQ(std::u16string(dv::LogTimestampText()), u"@ 0.0");
    Fake().now += 12 * kFakeTicksPerMs + 3400; // 12.34 ms
    EXPECT_EQ(std::u16string(dv::LogTimestampText()), u"@ 12.3");
    Fake().now += 1000 * kFakeTicksPerMs + 1600; // 1012.5 ms in all
    EXPECT_EQ(std::u16string(dv::LogTimestampText()), u"@ 1012.5");
    dv::LogResetStartMark();
    EXPECT_EQ(std::u16string(dv::LogTimestampText()), u"@ 0.0");
    Fake().now += 5 * kFakeTicksPerMs;
    EXPECT_EQ(std::u16string(dv::LogTimestampText()), u"@ 5.0");
}

TEST_F(LogMessageTest, TimestampInALine) {
    Fake().now += 250 * kFakeTicksPerMs;
    dv::LogMessage(1, u"%s: wrote %s\r\n", dv::LogTimestampText(), u"'55'");
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\n@ 250.0: wrote '55'\r\n"});
}

TEST(LogHexText, NoBytes) {
    EXPECT_EQ(std::u16string(dv::HexText(nullptr, 0)), u"''");
}

TEST(LogHexText, FewBytes) {
    const uint8_t bytes[] = {0x01, 0xAB, 0xF0};
    EXPECT_EQ(std::u16string(dv::HexText(bytes, 1)), u"'01'");
    EXPECT_EQ(std::u16string(dv::HexText(bytes, 3)), u"'01 AB F0'");
}

std::u16string HexOf(const std::vector<uint8_t> &bytes, size_t count) {
    const char16_t *hex = u"0123456789ABCDEF";
    std::u16string text;
    for (size_t i = 0; i < count; ++i) {
        if (i != 0) {
            text += u' ';
        }
        text += hex[bytes[i] >> 4];
        text += hex[bytes[i] & 0xF];
    }
    return text;
}

TEST(LogHexText, ThreeHundredFortyBytesShowWhole) {
    std::vector<uint8_t> bytes(340);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7);
    }
    const std::u16string text = dv::HexText(bytes.data(), 340);
    EXPECT_EQ(text.size(), 1021u);
    EXPECT_EQ(text, u"'" + HexOf(bytes, 340) + u"'");
}

TEST(LogHexText, ThreeHundredFortyOneBytesShow339AndDots) {
    std::vector<uint8_t> bytes(1000);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 13);
    }
    const std::u16string expected = u"'" + HexOf(bytes, 339) + u"...'";
    EXPECT_EQ(std::u16string(dv::HexText(bytes.data(), 341)), expected);
    EXPECT_EQ(std::u16string(dv::HexText(bytes.data(), 1000)), expected);
    EXPECT_EQ(expected.size(), 1021u);
}

// Each call reuses the static buffer.
TEST(LogHexText, SharedBuffer) {
    const uint8_t one[] = {0x11};
    const uint8_t two[] = {0x22, 0x33};
    const char16_t *first = dv::HexText(one, 1);
    const char16_t *second = dv::HexText(two, 2);
    EXPECT_EQ(first, second);
    EXPECT_EQ(std::u16string(second), u"'22 33'");
}

} // namespace
