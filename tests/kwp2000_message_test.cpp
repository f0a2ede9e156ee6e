// Part 5.1: the KWP2000 message layer on the fake port (virtual clock, scripted ECU).
#include <gtest/gtest.h>

#include <cstring>

#include "bench/bench.h"
#include "bench/kwp2000_ecu.h"
#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "kwp2000_fake_ecu.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace {

using namespace dvtest;
using dv::bench::FakeEvent;

class KwpMessageTest : public ::testing::Test {
protected:
    FakeKwpEcu ecu;

    void SetUp() override {
        dv::bench::FakeInstall();
        Fake().echoWrites = true;
        ASSERT_EQ(ConstructLibrary(3), 0u);
        ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 1024, 1024), 0u);
        dv::PortSetByteDelay(10);
        dv::IsoLink &link = dv::IsoLinkState();
        link.keyByte1 = 0x8F;
        link.keyByte2 = 0x8F;
        link.targetAddress = 0x10;
        link.connected = 1;
        dv::IsoLoadDefaultTiming();
        ecu.Install();
        Fake().events.clear();
        LogCaptureReset();
    }

    void TearDown() override {
        dv::PortClose();
        DvDestruct();
        dv::bench::FakeUninstall();
    }

    static Bytes Written() { return Fake().Written(); }

    // One exchange: request bytes in, answer bytes and result out.
    uint32_t Exchange(const Bytes &request, Bytes *answer) {
        uint32_t length = 0;
        uint8_t *data = nullptr;
        const uint32_t result =
            dv::IsoExchange(static_cast<uint32_t>(request.size()), request.data(), &length, &data);
        if (result == 0) {
            answer->assign(data, data + length);
        }
        return result;
    }

    uint32_t Receive(Bytes *answer) {
        uint32_t length = 0;
        uint8_t *data = nullptr;
        const uint32_t result = dv::IsoReceiveResponse(&length, &data);
        if (result == 0) {
            answer->assign(data, data + length);
        }
        return result;
    }

    static std::vector<uint32_t> Sleeps() {
        std::vector<uint32_t> ms;
        for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::Sleep)) {
            if (event->value != 1) { // LineWaitForInput's 1 ms polls
                ms.push_back(event->value);
            }
        }
        return ms;
    }
};

// ---- request framing ---------------------------------------------------------------------------

TEST_F(KwpMessageTest, OneByteRequestWithLengthInFormatByte) {
    EXPECT_EQ(dv::IsoSendRequest(1, Bytes{0x3E}.data()), 0u);
    EXPECT_EQ(Hex(Written()), "81 10 F1 3E C0");
    // Five bytes 10 ms apart, each write alone, then P4max - TesterByteGap = 10 ms.
    const auto writes = Fake().EventsOf(FakeEvent::Kind::Write);
    ASSERT_EQ(writes.size(), 5u);
    for (size_t i = 1; i < writes.size(); ++i) {
        EXPECT_EQ(writes[i]->at - writes[i - 1]->at, 10 * kFakeTicksPerMs);
    }
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0]->at - writes[0]->at, 60 * kFakeTicksPerMs);
    EXPECT_EQ(Hex(reads[0]->bytes), "81 10 F1 3E C0");
    // The echo is read with a total deadline of P2min - P4max = 5 ms (constant 6).
    const auto timeouts = Fake().EventsOf(FakeEvent::Kind::SetTimeouts);
    ASSERT_FALSE(timeouts.empty());
    EXPECT_EQ(timeouts.back()->timeouts.readConstant, 6u);
    EXPECT_EQ(timeouts.back()->timeouts.readInterval, 0u);
    // Both queues purged first.
    const auto purges = Fake().EventsOf(FakeEvent::Kind::Purge);
    ASSERT_EQ(purges.size(), 1u);
    EXPECT_EQ(purges[0]->value, dv::kPurgeRxClear | dv::kPurgeTxClear);
    EXPECT_NE(LogText().find("\r\n<<< [5] '81 10 F1 3E C0' @ "), std::string::npos);
}

TEST_F(KwpMessageTest, LengthByteWhenKeyByte1LacksBit0) {
    dv::IsoLinkState().keyByte1 = 0x8A; // bits 1 and 3
    EXPECT_EQ(dv::IsoSendRequest(2, Bytes{0x21, 0x01}.data()), 0u);
    EXPECT_EQ(Hex(Written()), "80 10 F1 02 21 01 A5");
}

TEST_F(KwpMessageTest, NoAddressBytesWhenKeyByte1LacksBit3) {
    dv::IsoLinkState().keyByte1 = 0x85; // bits 0 and 2
    EXPECT_EQ(dv::IsoSendRequest(1, Bytes{0x3E}.data()), 0u);
    dv::IsoLinkState().keyByte1 = 0x86; // bits 1 and 2
    EXPECT_EQ(dv::IsoSendRequest(1, Bytes{0x3E}.data()), 0u);
    EXPECT_EQ(Hex(Written()), "81 3E BF 80 01 3E BF");
}

TEST_F(KwpMessageTest, LongRequestUsesLengthByteWithBit1) {
    Bytes data(64, 0x01);
    EXPECT_EQ(dv::IsoSendRequest(64, data.data()), 0u);
    const Bytes written = Written();
    ASSERT_EQ(written.size(), 4u + 64u + 1u);
    EXPECT_EQ(Hex(Bytes(written.begin(), written.begin() + 4)), "80 10 F1 40");
    EXPECT_EQ(written.back(), static_cast<uint8_t>(0x80 + 0x10 + 0xF1 + 0x40 + 64));
}

TEST_F(KwpMessageTest, SixtyFourBytesWithoutBit1FailWith3AndNothingWritten) {
    dv::IsoLinkState().keyByte1 = 0x89; // bits 0 and 3, not 1
    Bytes data(64, 0x01);
    EXPECT_EQ(dv::IsoSendRequest(64, data.data()), 3u);
    EXPECT_TRUE(Written().empty());
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Purge).empty());
    EXPECT_EQ(LogText(), "\r\nBad request block size : '40' vs <= '3F'");
}

TEST_F(KwpMessageTest, RequestAbove255BytesFailsWith3InWideForm) {
    Bytes data(256, 0x01);
    EXPECT_EQ(dv::IsoSendRequest(256, data.data()), 3u);
    EXPECT_TRUE(Written().empty());
    EXPECT_EQ(LogText(), "\r\nBad request block size : '00000100' vs <= 'FF'");
}

TEST_F(KwpMessageTest, LargestRequestIs260Bytes) {
    Bytes data(255, 0x02);
    EXPECT_EQ(dv::IsoSendRequest(255, data.data()), 0u);
    EXPECT_EQ(Written().size(), 260u);
}

TEST_F(KwpMessageTest, MissingEchoFailsWith6) {
    Fake().echoWrites = false;
    EXPECT_EQ(dv::IsoSendRequest(1, Bytes{0x3E}.data()), 6u);
    EXPECT_NE(LogText().find("\r\nNo adapter echo"), std::string::npos);
}

TEST_F(KwpMessageTest, WrongEchoIsOnlyReported) {
    Fake().echoWrites = false;
    Fake().onWrite = [](FakeLine &line, const Bytes &bytes) {
        line.QueueInputAt(line.now + line.ByteTicks(), {static_cast<uint8_t>(bytes[0] ^ 1)});
    };
    EXPECT_EQ(dv::IsoSendRequest(1, Bytes{0x3E}.data()), 0u);
    EXPECT_NE(LogText().find("\r\nBad adapter echo"), std::string::npos);
}

TEST_F(KwpMessageTest, PortFailureOfTheWriteIsPassedUp) {
    Fake().Fail(dv::bench::FakeCall::Write, 2, 31);
    EXPECT_EQ(dv::IsoSendRequest(1, Bytes{0x3E}.data()), 5u);
    EXPECT_NE(LogText().find(" - Failed (0x0000001F)"), std::string::npos);
}

// ---- reception -----------------------------------------------------------------------------

TEST_F(KwpMessageTest, PositiveAnswerIsReturnedFromServiceId) {
    ecu.replies.push_back({{25, EcuMessage({0x7E})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "7E");
    EXPECT_EQ(dv::IsoLinkState().servicesRequested, 1u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 0u);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 1);
    const std::string log = LogText();
    EXPECT_EQ(LogCalls().size(), 1u); // one exchange section, one callback call
    EXPECT_EQ(log.rfind("\r\n\r\n---- ECU <-> Dravelin ----\r\n\r\n", 0), 0u);
    EXPECT_NE(log.find("'81 F1 10 7E 00'"), std::string::npos);
}

TEST_F(KwpMessageTest, AnswerWithoutAddressBytesIsAccepted) {
    ecu.replies.push_back({{25, {0x03, 0x61, 0x01, 0xAA, 0x0F}}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "61 01 AA");
}

TEST_F(KwpMessageTest, AnswerWithLengthByteIsAccepted) {
    Bytes message = {0x80, 0xF1, 0x10, 0x03, 0x61, 0x01, 0xAA};
    message.push_back(Sum(message));
    ecu.replies.push_back({{25, message}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "61 01 AA");
}

TEST_F(KwpMessageTest, TwoPositiveMessagesAreJoinedInOneChunk) {
    ecu.replies.push_back(
        {{25, Concat(EcuMessage({0x61, 0x01, 0xAA}), EcuMessage({0x61, 0x01, 0xBB}))}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "61 01 AA 01 BB");
}

TEST_F(KwpMessageTest, TwoPositiveMessagesAreJoinedAcrossChunks) {
    // The second message comes 25 ms later, after the 21 ms inter-byte gap ended the read.
    ecu.replies.push_back(
        {{25, EcuMessage({0x61, 0x01, 0xAA})}, {60, EcuMessage({0x61, 0x01, 0xBB})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "61 01 AA 01 BB");
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Read).size(), 3u); // echo, two chunks
}

TEST_F(KwpMessageTest, ResponsePendingIsFollowedByTheRealAnswer) {
    // 7F 21 78 at once, the real answer 3 s later: within P3max.
    ecu.replies.push_back(
        {{25, EcuMessage({0x7F, 0x21, 0x78})}, {3025, EcuMessage({0x61, 0x01, 0xAA})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "61 01 AA");
    EXPECT_EQ(dv::IsoLinkState().repeats, 0u);
    EXPECT_NE(LogText().find("\r\nExtending message timeout"), std::string::npos);
    EXPECT_EQ(ecu.requests.size(), 1u);
}

TEST_F(KwpMessageTest, ResponsePendingWithNothingFollowingGives8AfterP3max) {
    dv::IsoSendRequest(2, Bytes{0x21, 0x01}.data());
    FakeKwpEcu::Put(Fake(), Fake().now + 5 * kFakeTicksPerMs, EcuMessage({0x7F, 0x21, 0x78}));
    LogCaptureReset();
    Fake().events.clear();
    Bytes answer;
    const int64_t start = Fake().now;
    EXPECT_EQ(Receive(&answer), 8u);
    EXPECT_NE(LogText().find("\r\nExtending message timeout\r\nNo ECU data"), std::string::npos);
    // The wait after the pending answer is P3max - P1max = 4980 ms (deadline constant 4981).
    const auto timeouts = Fake().EventsOf(FakeEvent::Kind::SetTimeouts);
    ASSERT_EQ(timeouts.size(), 3u);
    EXPECT_EQ(timeouts[2]->timeouts.readConstant, 4981u);
    const int64_t elapsedMs = (Fake().now - start) / kFakeTicksPerMs;
    EXPECT_GE(elapsedMs, 4981);
    EXPECT_LE(elapsedMs, 4981 + 12);
}

// ---- bad answers: 12 after the line has gone quiet ---------------------------------------------

struct BadAnswer {
    const char *name;
    Bytes chunk;
    const char *line;
};

class KwpBadAnswerTest : public KwpMessageTest, public ::testing::WithParamInterface<BadAnswer> {};

TEST_P(KwpBadAnswerTest, FailsWith12AfterTheLineIsDrained) {
    const BadAnswer &bad = GetParam();
    dv::IsoSendRequest(2, Bytes{0x21, 0x01}.data());
    const int64_t sent = Fake().now;
    // The bad chunk, then, after a gap that ends the read, a good message of the same answer.
    FakeKwpEcu::Put(Fake(), sent + 5 * kFakeTicksPerMs, bad.chunk);
    FakeKwpEcu::Put(Fake(), sent + 40 * kFakeTicksPerMs, EcuMessage({0x61, 0x01, 0xAA}));
    LogCaptureReset();
    Bytes answer;
    EXPECT_EQ(Receive(&answer), 12u);
    EXPECT_TRUE(Fake().input.empty()); // every byte was read before the result
    EXPECT_NE(LogText().find(std::string("\r\n") + bad.line + "\r\n>>> [520]"), std::string::npos)
        << LogText();
    // The result comes P2max - P1max = 30 ms (deadline 31) after the last chunk.
    const int64_t lastByte = sent + 40 * kFakeTicksPerMs + 6 * Fake().ByteTicks();
    EXPECT_GE(Fake().now - lastByte, 31 * kFakeTicksPerMs);
    EXPECT_LE(Fake().now - lastByte, 32 * kFakeTicksPerMs);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Part51, KwpBadAnswerTest,
    ::testing::Values(
        BadAnswer{"Mode1Addressing", {0x41, 0xF1, 0x10, 0x7E, 0xC0}, "Bad ECU addressing : '01'"},
        BadAnswer{"Mode3Addressing", {0xC1, 0xF1, 0x10, 0x7E, 0x40}, "Bad ECU addressing : '03'"},
        BadAnswer{"ShortHeader", {0x80, 0xF1}, "Bad ECU message size : '0002' vs >= '04'"},
        BadAnswer{"ShortModeZeroHeader", {0x00}, "Bad ECU message size : '0001' vs >= '02'"},
        BadAnswer{"TargetAddress",
                  {0x81, 0xF2, 0x10, 0x7E, 0xE1},
                  "Bad ECU target address : 'F2' vs 'F1'"},
        BadAnswer{"BlockSize", {0x85, 0xF1, 0x10, 0x61, 0x01, 0xE8}, "Bad ECU block size : '05'"},
        BadAnswer{
            "Checksum", {0x81, 0xF1, 0x10, 0x7E, 0x01}, "Bad ECU message checksum : '01' vs '00'"}),
    [](const ::testing::TestParamInfo<BadAnswer> &info) { return info.param.name; });

TEST_F(KwpMessageTest, BadChunkAfterAGoodMessageDropsTheCollectedData) {
    ecu.replies.push_back({{25, Concat(EcuMessage({0x61, 0x01, 0xAA}), Bytes{0x41, 0x00})}});
    dv::IsoSendRequest(2, Bytes{0x21, 0x01}.data());
    Bytes answer;
    // The ECU script answers the request written above.
    EXPECT_EQ(Receive(&answer), 12u);
    EXPECT_NE(LogText().find("Bad ECU addressing : '01'"), std::string::npos);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 0);
}

TEST_F(KwpMessageTest, ModeOneAnswerIsRepeatedAndEndsWith12) {
    for (int i = 0; i < 3; ++i) {
        ecu.replies.push_back({{25, {0x41, 0xF1, 0x10, 0x7E, 0xC0}}});
    }
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 12u);
    EXPECT_EQ(ecu.requests.size(), 3u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 2u);
    EXPECT_EQ(dv::IsoLinkState().servicesRequested, 0u);
    const std::string log = LogText();
    size_t repeats = 0;
    for (size_t at = log.find("\r\n\r\nRepeating request\r\n\r\n"); at != std::string::npos;
         at = log.find("\r\n\r\nRepeating request\r\n\r\n", at + 1)) {
        ++repeats;
    }
    EXPECT_EQ(repeats, 2u);
}

TEST_F(KwpMessageTest, ThirtyTwoMessagesFailWith7) {
    Bytes chunk;
    for (int i = 0; i < 32; ++i) {
        chunk = Concat(chunk, EcuMessage({0x61, static_cast<uint8_t>(i)}));
    }
    ecu.replies.push_back({{25, chunk}});
    dv::IsoSendRequest(2, Bytes{0x21, 0x01}.data());
    Bytes answer;
    const int64_t start = Fake().now;
    EXPECT_EQ(Receive(&answer), 7u);
    EXPECT_NE(LogText().find("\r\nToo many ECU messages"), std::string::npos);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 0);
    // 25 ms to the answer, 32 x 6 bytes, the 21 ms gap that ends the read, then the wait of
    // P2max - P1max = 30 ms busy-waited.
    const auto spins = Fake().EventsOf(FakeEvent::Kind::Spin);
    ASSERT_FALSE(spins.empty());
    EXPECT_EQ(Fake().now - spins.back()->at, 30 * kFakeTicksPerMs);
    EXPECT_GT(Fake().now - start, 30 * kFakeTicksPerMs);
}

TEST_F(KwpMessageTest, ThirtyOneMessagesAreJoined) {
    Bytes chunk;
    for (int i = 0; i < 31; ++i) {
        chunk = Concat(chunk, EcuMessage({0x61, static_cast<uint8_t>(i)}));
    }
    ecu.replies.push_back({{25, chunk}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    ASSERT_EQ(answer.size(), 32u);
    EXPECT_EQ(answer[0], 0x61);
    EXPECT_EQ(answer[31], 30);
}

TEST_F(KwpMessageTest, SilentEcuGives8AfterThreeRequests) {
    Bytes answer;
    const int64_t start = Fake().now;
    EXPECT_EQ(Exchange({0x3E}, &answer), 8u);
    EXPECT_EQ(ecu.requests.size(), 3u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 2u);
    // From one request's last byte to the next one's: 10 ms byte gap, 10 ms P4max - gap, the
    // 31 ms answer deadline, 5 ms P3min - P2max, then four 10 ms byte gaps.
    ASSERT_EQ(ecu.requestEnds.size(), 3u);
    const int64_t gap = ecu.requestEnds[1] - ecu.requestEnds[0];
    EXPECT_EQ(gap, ecu.requestEnds[2] - ecu.requestEnds[1]);
    EXPECT_EQ(gap, (10 + 10 + 31 + 5 + 40) * kFakeTicksPerMs);
    EXPECT_NE(LogText().find("\r\nNo ECU data"), std::string::npos);
    EXPECT_GT(Fake().now, start);
}

TEST_F(KwpMessageTest, RequestAttemptsSettingLimitsTheRepeats) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.isoRequestAttempts = 1;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 8u);
    EXPECT_EQ(ecu.requests.size(), 1u);
    EXPECT_EQ(LogText().find("Repeating request"), std::string::npos);
}

TEST_F(KwpMessageTest, NoEchoEndsTheExchangeAtOnceWithP3minWait) {
    Fake().echoWrites = false;
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 6u);
    EXPECT_EQ(ecu.requests.size(), 1u);
    const auto spins = Fake().EventsOf(FakeEvent::Kind::Spin);
    EXPECT_EQ(Fake().now - spins.back()->at, 55 * kFakeTicksPerMs);
}

// ---- busy answers --------------------------------------------------------------------------

TEST_F(KwpMessageTest, FirstBusyAnswer21IsReturnedWithoutRepeat) {
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x21, 0x21})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "7F 21 21");
    EXPECT_EQ(ecu.requests.size(), 1u);
    EXPECT_TRUE(Sleeps().empty());
}

TEST_F(KwpMessageTest, FirstAnswer23IsSentAgainAfter2445ms) {
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x31, 0x23})}});
    ecu.replies.push_back({{25, EcuMessage({0x71, 0xB8})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x31, 0xB8, 0x00, 0x00}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "71 B8");
    ASSERT_EQ(ecu.requests.size(), 2u);
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{2445});
    EXPECT_EQ(dv::IsoLinkState().servicesRequested, 2u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 0u);
    // Two exchange sections: the sleep lies between them.
    EXPECT_EQ(LogCalls().size(), 2u);
    // From the end of the first answer's wait (P3min - P2max) to the second request's first
    // byte: exactly the sleep.
    const auto writes = Fake().EventsOf(FakeEvent::Kind::Write);
    const auto sleeps = Fake().EventsOf(FakeEvent::Kind::Sleep);
    const FakeEvent *busySleep = nullptr;
    for (const FakeEvent *s : sleeps) {
        if (s->value == 2445) {
            busySleep = s;
        }
    }
    ASSERT_NE(busySleep, nullptr);
    EXPECT_EQ(writes[8]->at - busySleep->at, 2445 * kFakeTicksPerMs);
}

TEST_F(KwpMessageTest, Busy21AfterA23IsRepeatedUpToTheAttempts) {
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x31, 0x23})}});
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x31, 0x21})}});
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x31, 0x21})}});
    ecu.replies.push_back({{25, EcuMessage({0x71, 0xB8})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x31, 0xB8, 0x00, 0x00}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "7F 31 21");
    EXPECT_EQ(ecu.requests.size(), 3u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{2445, 2445}));
}

TEST_F(KwpMessageTest, Later23IsReturnedAsItIs) {
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x31, 0x23})}});
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x31, 0x23})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x31, 0xB8, 0x00, 0x00}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "7F 31 23");
    EXPECT_EQ(ecu.requests.size(), 2u);
}

TEST_F(KwpMessageTest, BusyIsNotRepeatedWithOneRequestAttempt) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.isoRequestAttempts = 1;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x31, 0x23})}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x31, 0xB8, 0x00, 0x00}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "7F 31 23");
    EXPECT_EQ(ecu.requests.size(), 1u);
}

TEST_F(KwpMessageTest, FailedExchangeBeginIsReturned) {
    Fake().Fail(dv::bench::FakeCall::GetPriority, 1, 5);
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 1u);
    EXPECT_TRUE(Written().empty());
}

// ---- buffers and settings -------------------------------------------------------------------

TEST_F(KwpMessageTest, BuffersGrowInStepsOf256AndKeepContents) {
    dv::IsoLink &link = dv::IsoLinkState();
    EXPECT_EQ(link.request.capacity, 0u);
    uint8_t *first = dv::IsoAcquireRequestBuffer(1);
    EXPECT_EQ(link.request.capacity, 256u);
    EXPECT_EQ(link.request.inUse, 1);
    EXPECT_EQ(dv::IsoAcquireRequestBuffer(256), first);
    dv::IsoAcquireRequestBuffer(257);
    EXPECT_EQ(link.request.capacity, 512u);
    dv::IsoReleaseRequestBuffer();
    EXPECT_EQ(link.request.inUse, 0);
    EXPECT_NE(link.request.data, nullptr);

    uint8_t *response = dv::IsoAcquireResponseBuffer(3);
    std::memcpy(response, "\x61\x01\xAA", 3);
    dv::IsoReleaseResponseBuffer();
    response = dv::IsoGrowResponseBuffer(true, 600);
    EXPECT_EQ(link.response.capacity, 768u);
    EXPECT_EQ(link.response.inUse, 0); // keeping leaves the mark as it is
    EXPECT_EQ(std::memcmp(response, "\x61\x01\xAA", 3), 0);
    dv::IsoGrowResponseBuffer(false, 10);
    EXPECT_EQ(link.response.inUse, 1);
    EXPECT_EQ(link.response.capacity, 768u);
}

TEST_F(KwpMessageTest, SettingsUpdateLiveTimingWithExtendedTimingKeyByte) {
    dv::IsoLinkState().keyByte1 = 0xAF; // bit 5
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.P1max = 30;
    settings.P2max = 100;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    const dv::IsoTiming &timing = dv::IsoLinkState().timing;
    EXPECT_EQ(timing.P1max, 30u);
    EXPECT_EQ(timing.P2min, 35u);
    EXPECT_EQ(timing.P2max, 100u);
    EXPECT_EQ(timing.P3min, 105u);
    EXPECT_EQ(timing.P3max, 5000u);
}

TEST_F(KwpMessageTest, SettingsLeaveTimingWithNormalTimingOrWithoutConnection) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.P2max = 100;
    ASSERT_EQ(DvSetSettings(&settings), 0u); // key byte 1 0x8F: bit 4
    EXPECT_EQ(dv::IsoLinkState().timing.P2max, 50u);
    dv::IsoLinkState().keyByte1 = 0xAF;
    dv::IsoLinkState().connected = 0;
    settings.P2max = 120;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(dv::IsoLinkState().timing.P2max, 50u);
    settings.testerAddress = 0x1234;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(dv::IsoLinkState().testerAddress, 0x34);
}

TEST_F(KwpMessageTest, TesterAddressFromSettingsIsTheRequestSource) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.testerAddress = 0xF5;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    ecu.replies.push_back({{25, EcuMessage({0x7E}, 0xF5)}});
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 0u);
    EXPECT_EQ(Hex(ecu.requests[0]), "81 10 F5 3E C4");
}

} // namespace

// ---- on the bench: the emulated KWP2000 engine ECU with injected faults ------------------------

namespace {

using dv::bench::BenchTraceBytes;
using dv::bench::BenchTraceOf;
using dv::bench::Kwp2000Profile;
using dv::bench::TraceKind;

class KwpMessageBenchTest : public ::testing::Test {
protected:
    // Installs the engine ECU with the profile changed by `change`, starts a fast-init link
    // (the ECU's request and message 1: StartCommunication) and forgets the log and trace.
    template <typename Change> void Start(Change change) {
        Kwp2000Profile profile = dv::bench::Kwp2000EngineProfile();
        change(profile);
        dv::bench::BenchInstall(dv::bench::MakeKwp2000Ecu(profile));
        ASSERT_EQ(ConstructLibrary(3), 0u);
        ASSERT_EQ(
            DvIsoStartCommunication(reinterpret_cast<const DvChar *>(u"COM1"), 1, 0x10, nullptr),
            0u);
        dv::bench::BenchTraceClear();
        LogCaptureReset();
    }

    void TearDown() override {
        DvDestruct();
        dv::bench::BenchUninstall();
    }

    static uint32_t Exchange(const Bytes &request, Bytes *answer) {
        uint32_t length = 0;
        uint8_t *data = nullptr;
        const uint32_t result =
            dv::IsoExchange(static_cast<uint32_t>(request.size()), request.data(), &length, &data);
        if (result == 0) {
            answer->assign(data, data + length);
            dv::IsoReleaseResponseBuffer();
        }
        return result;
    }

    // The requests on the line (tester bytes), as hex text.
    static std::string TesterBytes() { return Hex(BenchTraceBytes(TraceKind::TesterByte)); }

    static std::vector<uint32_t> Sleeps() {
        std::vector<uint32_t> ms;
        for (const auto &entry : BenchTraceOf(TraceKind::Sleep)) {
            if (entry.value != 1) {
                ms.push_back(entry.value);
            }
        }
        return ms;
    }
};

struct BenchBadMessage {
    const char *name;
    void (*inject)(Kwp2000Profile &);
    const char *line;
};

class KwpBenchBadMessageTest : public KwpMessageBenchTest,
                               public ::testing::WithParamInterface<BenchBadMessage> {};

// The ECU's second message (the answer to the first request) is bad: 12, logged, the line
// drained, the request repeated and answered.
TEST_P(KwpBenchBadMessageTest, BadAnswerIsRepeated) {
    Start(GetParam().inject);
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "7E");
    EXPECT_EQ(TesterBytes(), "81 10 F1 3E C0 81 10 F1 3E C0");
    EXPECT_EQ(dv::IsoLinkState().repeats, 1u);
    const std::string log = LogText();
    const size_t bad = log.find(std::string("\r\n") + GetParam().line);
    const size_t repeat = log.find("\r\n\r\nRepeating request\r\n\r\n");
    ASSERT_NE(bad, std::string::npos) << log;
    ASSERT_NE(repeat, std::string::npos);
    EXPECT_LT(bad, repeat);
}

INSTANTIATE_TEST_SUITE_P(
    Part51, KwpBenchBadMessageTest,
    ::testing::Values(
        BenchBadMessage{"Checksum", [](Kwp2000Profile &p) { p.faults.badChecksumMessage = 2; },
                        "Bad ECU message checksum : '01' vs '00'"},
        BenchBadMessage{"TargetAddress", [](Kwp2000Profile &p) { p.faults.wrongTargetMessage = 2; },
                        "Bad ECU target address : 'F0' vs 'F1'"},
        BenchBadMessage{"Addressing",
                        [](Kwp2000Profile &p) { p.faults.wrongAddressModeMessage = 2; },
                        "Bad ECU addressing : '01'"},
        BenchBadMessage{"BlockSize", [](Kwp2000Profile &p) { p.faults.wrongSizeMessage = 2; },
                        "Bad ECU block size : '02'"}),
    [](const ::testing::TestParamInfo<BenchBadMessage> &info) { return info.param.name; });

TEST_F(KwpMessageBenchTest, SilentEcuGives8AfterThreeRequests) {
    Start([](Kwp2000Profile &p) {
        p.faults.silentRequest = 2;
        p.faults.silentCount = 3;
    });
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 8u);
    EXPECT_EQ(TesterBytes(), "81 10 F1 3E C0 81 10 F1 3E C0 81 10 F1 3E C0");
    EXPECT_EQ(Occurrences(LogText(), "\r\nNo ECU data"), 3u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 2u);
}

TEST_F(KwpMessageBenchTest, ResponsePendingAnswersAreSkipped) {
    Start([](Kwp2000Profile &p) {
        p.faults.pendingRequest = 2;
        p.faults.pendingCount = 2;
        p.faults.pendingGap = 1500;
    });
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(answer.size(), 14u);
    EXPECT_EQ(Hex(Bytes(answer.begin(), answer.begin() + 2)), "61 01");
    EXPECT_EQ(Occurrences(LogText(), "\r\nExtending message timeout"), 2u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 0u);
}

TEST_F(KwpMessageBenchTest, RoutineNotCompleteIsSentAgainAfter2445ms) {
    Start([](Kwp2000Profile &p) {
        p.faults.busyRequest = 2;
        p.faults.busyCodes = {0x23};
    });
    Bytes answer;
    EXPECT_EQ(Exchange({0x31, 0xB8, 0x00, 0x00}, &answer), 0u);
    EXPECT_EQ(Hex(Bytes(answer.begin(), answer.begin() + 2)), "71 B8");
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{2445});
    EXPECT_EQ(dv::IsoLinkState().servicesRequested, 3u); // StartCommunication and two answers
}

TEST_F(KwpMessageBenchTest, ThirtyTwoMessagesGive7) {
    Start([](Kwp2000Profile &p) { p.maxMessageData = 2; });
    Bytes answer;
    EXPECT_EQ(Exchange({0x1A, 0x9B}, &answer), 7u);
    EXPECT_NE(LogText().find("\r\nToo many ECU messages"), std::string::npos);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 0);
}

TEST_F(KwpMessageBenchTest, JoinedAnswerOfSeveralMessages) {
    Start([](Kwp2000Profile &p) { p.maxMessageData = 4; });
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    // 61 01 and 12 element bytes, sent as 61 01 xx xx, 61 xx xx xx, ...: joined again.
    ASSERT_EQ(answer.size(), 14u);
    EXPECT_EQ(Hex(answer), "61 01 01 C8 23 05 0A B6 0B 0A 80 10 5B 40");
}

} // namespace
