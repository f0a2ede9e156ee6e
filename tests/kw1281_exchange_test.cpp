// Part 3.1 (KW1281 byte exchange) on the fake platform's virtual clock.
#include <gtest/gtest.h>

#include "bench/fake_platform.h"
#include "frame/frame.h"
#include "kw1281/kw1281.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace dv {
namespace {

using bench::Fake;
using bench::FakeEvent;
using bench::FakeLine;
using bench::kFakeTicksPerMs;

// The decoded log calls without their leading line end.
std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const std::string &call : dvtest::LogCalls()) {
        lines.push_back(call.rfind("\r\n", 0) == 0 ? call.substr(2) : call);
    }
    return lines;
}

std::vector<uint32_t> PurgeFlags() {
    std::vector<uint32_t> flags;
    for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::Purge)) {
        flags.push_back(event->value);
    }
    return flags;
}

// An ECU that complements every byte written (the fake's echo comes first).
void ComplementEveryByte() {
    Fake().echoWrites = true;
    Fake().onWrite = [](FakeLine &line, const std::vector<uint8_t> &bytes) {
        for (uint8_t b : bytes) {
            line.QueueInputAt(line.now + 2 * line.ByteTicks(), {static_cast<uint8_t>(b ^ 0xFF)});
        }
    };
}

class KwExchangeTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        ASSERT_EQ(PortOpen(u"COM1", 10400, 256, 256), 0u);
        ASSERT_EQ(PortSetTimeouts(0, 60, kNoLimit), 0u);
        Fake().events.clear();
        dvtest::LogCaptureReset();
    }
    void TearDown() override {
        PortClose();
        DvDestruct();
        bench::FakeUninstall();
    }
    void SetKwWords(uint32_t silenceReads) {
        DvSettings settings{};
        DvGetSettings(&settings);
        settings.silenceReads = silenceReads;
        ASSERT_EQ(DvSetSettings(&settings), 0u);
    }
    int64_t ElapsedMs(int64_t since) const { return (Fake().now - since) / kFakeTicksPerMs; }
};

constexpr uint32_t kPurgeBoth = kPurgeRxClear | kPurgeTxClear;

TEST_F(KwExchangeTest, CountZeroPurgesAndReturnsWithoutTouchingTheLine) {
    EXPECT_EQ(KwSendByte(0, nullptr), 0u);
    EXPECT_EQ(KwSendByteAwaitComplement(0, nullptr), 0u);
    EXPECT_EQ(KwReceiveByteSendComplement(0, nullptr), 0u);
    EXPECT_EQ(PurgeFlags(), (std::vector<uint32_t>{kPurgeBoth, kPurgeBoth, kPurgeTxClear}));
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Write).empty());
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Read).empty());
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(KwExchangeTest, AwaitComplementSendsEveryByteAndReadsEchoAndComplement) {
    ComplementEveryByte();
    const uint8_t bytes[] = {0x03, 0x01, 0x09};
    EXPECT_EQ(KwSendByteAwaitComplement(3, bytes), 0u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x03, 0x01, 0x09}));
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 3u);
    EXPECT_EQ(reads[0]->value, 2u); // echo and complement in one read
    EXPECT_EQ(reads[0]->bytes, (std::vector<uint8_t>{0x03, 0xFC}));
    EXPECT_EQ(reads[2]->bytes, (std::vector<uint8_t>{0x09, 0xF6}));
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(KwExchangeTest, WrongAdapterEchoWithRightComplementCountsAsSent) {
    Fake().onWrite = [](FakeLine &line, const std::vector<uint8_t> &bytes) {
        line.QueueInputAt(line.now + line.ByteTicks(), {static_cast<uint8_t>(bytes[0] ^ 0x20)});
        line.QueueInputAt(line.now + 2 * line.ByteTicks(), {static_cast<uint8_t>(bytes[0] ^ 0xFF)});
    };
    const uint8_t byte = 0x09;
    EXPECT_EQ(KwSendByteAwaitComplement(1, &byte), 0u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad adapter echo: '29' vs '09'\r\n"}));
}

TEST_F(KwExchangeTest, EchoThenSilenceYields8NoEcuEchoAfterTheReadTimeout) {
    Fake().echoWrites = true;
    const int64_t start = Fake().now;
    const uint8_t byte = 0x44;
    EXPECT_EQ(KwSendByteAwaitComplement(1, &byte), 8u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"No ECU echo\r\n"}));
    // Two bytes asked: 1 ms constant + 2 x 60 ms.
    EXPECT_EQ(ElapsedMs(start), 121);
}

TEST_F(KwExchangeTest, NoAdapterEchoYields6) {
    const uint8_t byte = 0x44;
    EXPECT_EQ(KwSendByteAwaitComplement(1, &byte), 6u);
    EXPECT_EQ(KwSendByte(1, &byte), 6u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"No adapter echo\r\n", "No adapter echo\r\n"}));
}

TEST_F(KwExchangeTest, WrongComplementYields11AndStopsTheBlock) {
    Fake().echoWrites = true;
    Fake().onWrite = [](FakeLine &line, const std::vector<uint8_t> &bytes) {
        line.QueueInputAt(line.now + 2 * line.ByteTicks(), {static_cast<uint8_t>(bytes[0] ^ 0xFE)});
    };
    const uint8_t bytes[] = {0x09, 0x10};
    EXPECT_EQ(KwSendByteAwaitComplement(2, bytes), 11u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad ECU echo: 'F7' vs 'F6'\r\n"}));
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x09}));
}

TEST_F(KwExchangeTest, SendByteChecksOnlyTheAdapterEcho) {
    Fake().onWrite = [](FakeLine &line, const std::vector<uint8_t> &bytes) {
        line.QueueInputAt(line.now + line.ByteTicks(), {static_cast<uint8_t>(bytes[0] ^ 0x01)});
    };
    const uint8_t bytes[] = {0x03, 0x75};
    EXPECT_EQ(KwSendByte(2, bytes), 0u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad adapter echo: '02' vs '03'\r\n",
                                                 "Bad adapter echo: '74' vs '75'\r\n"}));
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0]->value, 1u);
}

TEST_F(KwExchangeTest, ReceiveStoresEachByteAndSendsItsComplement) {
    Fake().echoWrites = true;
    const std::vector<uint8_t> ecu = {0x0F, 0x01, 0xF6};
    size_t next = 1;
    Fake().QueueInput({ecu[0]});
    Fake().onWrite = [&](FakeLine &line, const std::vector<uint8_t> &) {
        if (next < ecu.size()) {
            line.QueueInputAt(line.now + 2 * line.ByteTicks(), {ecu[next++]});
        }
    };
    uint8_t buffer[3] = {};
    EXPECT_EQ(KwReceiveByteSendComplement(3, buffer), 0u);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 3), ecu);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0xF0, 0xFE, 0x09}));
    EXPECT_EQ(PurgeFlags(), (std::vector<uint32_t>{kPurgeTxClear}));
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(KwExchangeTest, ReceiveWithoutEcuByteYields8AfterTheByteTimeout) {
    const int64_t start = Fake().now;
    uint8_t buffer[1] = {};
    EXPECT_EQ(KwReceiveByteSendComplement(1, buffer), 8u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"No ECU data: 0 vs 1\r\n"}));
    EXPECT_EQ(ElapsedMs(start), 61);
    EXPECT_TRUE(Fake().Written().empty());
}

TEST_F(KwExchangeTest, ReceiveWithoutEchoOfTheComplementYields6) {
    Fake().QueueInput({0x0F});
    uint8_t buffer[1] = {};
    EXPECT_EQ(KwReceiveByteSendComplement(1, buffer), 6u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"No adapter echo\r\n"}));
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0xF0}));
}

TEST_F(KwExchangeTest, ReceiveWithWrongEchoOfTheComplementGoesOn) {
    Fake().QueueInput({0x0F});
    Fake().onWrite = [](FakeLine &line, const std::vector<uint8_t> &) {
        line.QueueInputAt(line.now + line.ByteTicks(), {0x00});
    };
    uint8_t buffer[1] = {};
    EXPECT_EQ(KwReceiveByteSendComplement(1, buffer), 0u);
    EXPECT_EQ(buffer[0], 0x0F);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad adapter echo: '00' vs 'F0'\r\n"}));
}

TEST_F(KwExchangeTest, PortFailuresAreReturnedAs5) {
    Fake().Fail(bench::FakeCall::Purge, 1, 31);
    const uint8_t byte = 0x01;
    EXPECT_EQ(KwSendByte(1, &byte), 5u);
    Fake().Fail(bench::FakeCall::Write, 1, 31);
    EXPECT_EQ(KwSendByteAwaitComplement(1, &byte), 5u);
    Fake().QueueInput({0x0F});
    Fake().Fail(bench::FakeCall::Read, 1, 31);
    uint8_t buffer[1] = {};
    EXPECT_EQ(KwReceiveByteSendComplement(1, buffer), 5u);
}

TEST_F(KwExchangeTest, Level4PutsEachByteOfABlockOnItsOwnLine) {
    DvSetMessagesLevel(4);
    ComplementEveryByte();
    const uint8_t bytes[] = {0x03, 0x01, 0x09};
    EXPECT_EQ(KwSendByteAwaitComplement(3, bytes), 0u);
    int separators = 0;
    for (const std::string &call : dvtest::LogCalls()) {
        separators += call == "\r\n\r\n" ? 1 : 0;
    }
    EXPECT_EQ(separators, 2);
}

TEST_F(KwExchangeTest, AwaitSilenceWithOneReadReturns11AfterANonEmptyRead) {
    SetKwWords(1);
    // Queued after the purge, as an ECU still talking.
    Fake().QueueInputAt(Fake().now + kFakeTicksPerMs, {0x12});
    const int64_t start = Fake().now;
    EXPECT_EQ(KwAwaitSilence(), 11u);
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0]->value, 16u);
    EXPECT_EQ(ElapsedMs(start), 121); // 2 x 60 + 1 ms, no per-byte part
    EXPECT_EQ(KwStatistics().breaks, 0u);
    const auto timeouts = Fake().EventsOf(FakeEvent::Kind::SetTimeouts);
    ASSERT_EQ(timeouts.size(), 1u);
    EXPECT_EQ(timeouts[0]->timeouts.readConstant, 121u);
    EXPECT_EQ(timeouts[0]->timeouts.readMultiplier, 0u);
    EXPECT_EQ(timeouts[0]->timeouts.readInterval, 0u);
}

TEST_F(KwExchangeTest, AwaitSilenceCountsABreakWhenTheLineFallsQuiet) {
    Fake().QueueInputAt(Fake().now + 10 * kFakeTicksPerMs, {0x12});
    const int64_t start = Fake().now;
    EXPECT_EQ(KwAwaitSilence(), 0u);
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Read).size(), 2u);
    EXPECT_EQ(ElapsedMs(start), 242);
    EXPECT_EQ(KwStatistics().breaks, 1u);
    EXPECT_EQ(PurgeFlags(), (std::vector<uint32_t>{kPurgeRxClear}));
}

TEST_F(KwExchangeTest, AwaitSilenceReturns11WhenEveryReadHadBytes) {
    for (int i = 0; i < 3; ++i) {
        Fake().QueueInputAt(Fake().now + (10 + 121 * i) * kFakeTicksPerMs, {0x12});
    }
    EXPECT_EQ(KwAwaitSilence(), 11u);
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Read).size(), 3u);
    EXPECT_EQ(KwStatistics().breaks, 0u);
}

} // namespace
} // namespace dv
