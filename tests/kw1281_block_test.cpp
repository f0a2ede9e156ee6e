// Part 3.2 (KW1281 block layer) on the fake platform's virtual clock, with a scripted ECU.
#include <gtest/gtest.h>

#include "bench/fake_platform.h"
#include "frame/frame.h"
#include "kw1281/kw1281.h"
#include "kw1281_fake_ecu.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace dv {
namespace {

using bench::Fake;
using bench::FakeEvent;
using bench::kFakeTicksPerMs;
using dvtest::FakeEcuBlock;

std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const std::string &call : dvtest::LogCalls()) {
        lines.push_back(call.rfind("\r\n", 0) == 0 ? call.substr(2) : call);
    }
    return lines;
}

int Count(const std::vector<std::string> &lines, const std::string &line) {
    int n = 0;
    for (const std::string &l : lines) {
        n += l == line ? 1 : 0;
    }
    return n;
}

std::vector<uint32_t> SleepValues() {
    std::vector<uint32_t> values;
    for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::Sleep)) {
        values.push_back(event->value);
    }
    return values;
}

std::vector<uint32_t> TimeoutConstants() {
    std::vector<uint32_t> values;
    for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::SetTimeouts)) {
        values.push_back(event->timeouts.readConstant);
    }
    return values;
}

std::vector<uint8_t> BufferBlock() {
    const uint8_t *bytes = KwBuffer().bytes;
    return std::vector<uint8_t>(bytes, bytes + bytes[0]);
}

// A block as the ECU sends it: length, counter, title, data, end byte.
std::vector<uint8_t> EcuBlock(uint8_t counter, uint8_t title, std::vector<uint8_t> data = {},
                              uint8_t end = 0x03) {
    // Built front to back in one vector: GCC 12 warns falsely (array-bounds) on an insert into a
    // three-byte vector at -O2.
    data.insert(data.begin(), {static_cast<uint8_t>(data.size() + 3), counter, title});
    data.push_back(end);
    return data;
}

std::vector<uint8_t> Complements(const std::vector<uint8_t> &bytes) {
    std::vector<uint8_t> result;
    for (uint8_t b : bytes) {
        result.push_back(static_cast<uint8_t>(b ^ 0xFF));
    }
    return result;
}

class KwBlockTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        ASSERT_EQ(PortOpen(u"COM1", 10400, 256, 256), 0u);
        ecu_.Install();
        Fake().events.clear();
        dvtest::LogCaptureReset();
    }
    void TearDown() override {
        PortClose();
        DvDestruct();
        bench::FakeUninstall();
    }
    void PutBlock(std::vector<uint8_t> block) {
        ASSERT_TRUE(KwGrowBuffer(static_cast<uint32_t>(block.size())));
        std::copy(block.begin(), block.end(), KwBuffer().bytes);
    }
    int64_t ElapsedMs(int64_t since) const { return (Fake().now - since) / kFakeTicksPerMs; }

    dvtest::FakeKwEcu ecu_;
};

// ---- sending ------------------------------------------------------------------------------------

TEST_F(KwBlockTest, AcknowledgeIsThreeComplementedBytesAndAPlainEndByte) {
    PutBlock({0x03, 0x01, 0x09});
    EXPECT_EQ(KwSendBlock(), 0u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x03, 0x01, 0x09, 0x03}));
    ASSERT_EQ(ecu_.testerBlocks.size(), 1u);
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 4u);
    EXPECT_EQ(reads[0]->bytes, (std::vector<uint8_t>{0x03, 0xFC}));
    EXPECT_EQ(reads[1]->bytes, (std::vector<uint8_t>{0x01, 0xFE}));
    EXPECT_EQ(reads[2]->bytes, (std::vector<uint8_t>{0x09, 0xF6}));
    EXPECT_EQ(reads[3]->value, 1u); // the end byte: the adapter echo only
    EXPECT_EQ(reads[3]->bytes, (std::vector<uint8_t>{0x03}));
    const auto timeouts = Fake().EventsOf(FakeEvent::Kind::SetTimeouts);
    ASSERT_EQ(timeouts.size(), 1u);
    EXPECT_EQ(timeouts[0]->timeouts.readConstant, 1u);
    EXPECT_EQ(timeouts[0]->timeouts.readMultiplier, 60u);
    EXPECT_EQ(KwStatistics().blocksSent, 1u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(KwBlockTest, SendRequestRaisesTheCounterAndEmptiesTheBuffer) {
    KwSetCounter(0x41);
    const uint8_t request[] = {0x29, 0x01};
    EXPECT_EQ(KwSendRequest(request), 0u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x04, 0x42, 0x29, 0x01, 0x03}));
    EXPECT_EQ(KwCounter(), 0x42);
    EXPECT_EQ(KwBuffer().bytes[0], 0);
}

TEST_F(KwBlockTest, SendRequestLowersTheCounterAgainOnFailure) {
    Fake().echoWrites = false;
    Fake().onWrite = nullptr;
    KwSetCounter(0xFF);
    const uint8_t request[] = {0x09};
    EXPECT_EQ(KwSendRequest(request), 6u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x03}));
    EXPECT_EQ(KwCounter(), 0xFF);
    EXPECT_EQ(KwStatistics().blocksSent, 0u);
}

TEST_F(KwBlockTest, WrongComplementResendsTheWholeBlockAfterTheLineFellQuiet) {
    ecu_.wrongComplements = {2};
    PutBlock({0x04, 0x05, 0x29, 0x01});
    EXPECT_EQ(KwSendBlock(), 0u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x04, 0x05, 0x04, 0x05, 0x29, 0x01, 0x03}));
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad ECU echo: 'FB' vs 'FA'\r\n",
                                                 "\r\nResending block\r\n\r\n"}));
    EXPECT_EQ(KwStatistics().breaks, 1u);
    EXPECT_EQ(KwStatistics().blocksSent, 1u);
    // Block timeouts, the silence reads' 2 x 60 + 1 ms, the block timeouts again.
    EXPECT_EQ(TimeoutConstants(), (std::vector<uint32_t>{1, 121, 1}));
}

TEST_F(KwBlockTest, WrongComplementOnEveryAttemptYields11AfterTwoResends) {
    ecu_.wrongComplements = {1, 2, 3};
    PutBlock({0x03, 0x05, 0x09});
    EXPECT_EQ(KwSendBlock(), 11u);
    const auto lines = Lines();
    EXPECT_EQ(Count(lines, "\r\nResending block\r\n\r\n"), 2);
    EXPECT_EQ(Count(lines, "Bad ECU echo: 'FD' vs 'FC'\r\n"), 3);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x03, 0x03, 0x03}));
    EXPECT_EQ(KwStatistics().blocksSent, 0u);
    EXPECT_EQ(KwStatistics().breaks, 2u);
}

TEST_F(KwBlockTest, MissingComplementResendsAndThenYields8) {
    ecu_.missingComplements = {1, 2, 3};
    PutBlock({0x03, 0x05, 0x09});
    const int64_t start = Fake().now;
    EXPECT_EQ(KwSendBlock(), 8u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"No ECU echo\r\n", "\r\nResending block\r\n\r\n",
                                                 "No ECU echo\r\n", "\r\nResending block\r\n\r\n",
                                                 "No ECU echo\r\n"}));
    // Each attempt waits 2 x 60 + 1 ms for the complement; each silence read 121 ms.
    EXPECT_EQ(ElapsedMs(start), 3 * 121 + 2 * 121);
}

TEST_F(KwBlockTest, ResendingStopsWhenTheLineNeverFallsQuiet) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.silenceReads = 1;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    ecu_.wrongComplements = {1};
    // The ECU keeps talking after its wrong complement.
    Fake().QueueInputAt(Fake().now + 50 * kFakeTicksPerMs, {0x77});
    PutBlock({0x03, 0x05, 0x09});
    EXPECT_EQ(KwSendBlock(), 11u);
    EXPECT_EQ(Count(Lines(), "\r\nResending block\r\n\r\n"), 1);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x03}));
}

// ---- receiving ----------------------------------------------------------------------------------

TEST_F(KwBlockTest, ReceivesABlockWithComplementsAndAPlainEndByte) {
    ecu_.script.push_back({EcuBlock(0x01, 0xF6, {0x38, 0x44})});
    ecu_.Start();
    const int64_t start = Fake().now;
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(BufferBlock(), (std::vector<uint8_t>{0x05, 0x01, 0xF6, 0x38, 0x44}));
    EXPECT_EQ(Fake().Written(), Complements({0x05, 0x01, 0xF6, 0x38, 0x44}));
    EXPECT_EQ(KwStatistics().blocksReceived, 1u);
    // The block timeout for the first byte, then the per-byte timeouts.
    EXPECT_EQ(TimeoutConstants(), (std::vector<uint32_t>{1001, 1}));
    // The pause after the block is byteTimeout.
    EXPECT_EQ(SleepValues(), (std::vector<uint32_t>{60}));
    EXPECT_GE(ElapsedMs(start), 60);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(KwBlockTest, AcknowledgeFromTheEcuIsThreeComplementedBytes) {
    ecu_.script.push_back({EcuBlock(0x01, 0x09)});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(BufferBlock(), (std::vector<uint8_t>{0x03, 0x01, 0x09}));
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0xFC, 0xFE, 0xF6}));
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_FALSE(reads.empty());
    EXPECT_EQ(reads.back()->bytes, (std::vector<uint8_t>{0x03}));
}

TEST_F(KwBlockTest, KeywordSlowDoublesThePauseAfterAReceivedBlock) {
    KwConnection().keyword = 0x8089;
    ecu_.script.push_back({EcuBlock(0x01, 0x09)});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(SleepValues(), (std::vector<uint32_t>{120}));
}

TEST_F(KwBlockTest, OtherKeywordsPauseOneByteTimeout) {
    KwConnection().keyword = 0x8A01;
    ecu_.script.push_back({EcuBlock(0x01, 0x09)});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(SleepValues(), (std::vector<uint32_t>{60}));
}

TEST_F(KwBlockTest, SyncByteAsLengthFollowedByOneMoreByteYields7) {
    ecu_.script.push_back({{0x55, 0x01}, true});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 7u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad block size: '55'\r\n"}));
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0xAA, 0xFE}));
    EXPECT_EQ(KwStatistics().blocksReceived, 0u);
}

TEST_F(KwBlockTest, LengthTwoFollowedByOneMoreByteYields7) {
    ecu_.script.push_back({{0x02, 0x01}, true});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 7u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad block size: '02'\r\n"}));
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0xFD, 0xFE}));
}

TEST_F(KwBlockTest, BadLengthWithoutTheNextByteIsReset) {
    ecu_.script.push_back({{0x02}, true, 100});
    ecu_.script.push_back({EcuBlock(0x01, 0x09)});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{"No ECU data: 0 vs 1\r\n", "\r\nResetting block\r\n\r\n"}));
    EXPECT_EQ(KwStatistics().resets, 1u);
}

TEST_F(KwBlockTest, EndByteZeroTurnsTheBlockIntoARefusalThatCountsAsReceived) {
    ecu_.script.push_back({EcuBlock(0x01, 0xFC, {0x01, 0x02, 0x23}, 0x00)});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad end of block byte: '00' vs '03'\r\n"}));
    EXPECT_EQ(KwBlockLength(), 3);
    EXPECT_EQ(KwBlockTitle(), 0x0A);
    EXPECT_EQ(KwBuffer().bytes[1], 0x01);
    EXPECT_EQ(KwStatistics().blocksReceived, 1u);
}

TEST_F(KwBlockTest, EndByteZeroGivesTheServiceCode256) {
    ecu_.script.push_back({EcuBlock(0x02, 0x09, {}, 0x00)});
    EXPECT_EQ(DvVagClearFaults(), 256u);
    ASSERT_EQ(ecu_.testerBlocks.size(), 1u);
    EXPECT_EQ(ecu_.testerBlocks[0], (std::vector<uint8_t>{0x03, 0x01, 0x05, 0x03}));
    EXPECT_EQ(KwStatistics().blocksReceived, 1u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwBlockTest, NoBlockAtAllYields8AtOnceWithoutResetting) {
    const int64_t start = Fake().now;
    EXPECT_EQ(KwReceiveBlock(), 8u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"No ECU data: 0 vs 1\r\n"}));
    EXPECT_EQ(ElapsedMs(start), 1001);
    EXPECT_EQ(KwStatistics().resets, 0u);
}

TEST_F(KwBlockTest, SixteenthReceiveFailureReturns8After15Resets) {
    for (int i = 0; i < 16; ++i) {
        ecu_.script.push_back({{0x0F, 0x01}, true, 100});
    }
    ecu_.script.push_back({EcuBlock(0x01, 0x09)}); // never reached
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 8u);
    const auto lines = Lines();
    EXPECT_EQ(Count(lines, "\r\nResetting block\r\n\r\n"), 15);
    EXPECT_EQ(Count(lines, "No ECU data: 0 vs 1\r\n"), 16);
    EXPECT_EQ(lines.back(), "No ECU data: 0 vs 1\r\n");
    EXPECT_EQ(KwStatistics().resets, 15u);
    EXPECT_EQ(KwStatistics().blocksReceived, 0u);
    EXPECT_EQ(KwBuffer().bytes[0], 0);
    // The block timeout at the start and after each reset, the byte timeouts in between.
    std::vector<uint32_t> expected;
    for (int i = 0; i < 16; ++i) {
        expected.push_back(1001);
        expected.push_back(1);
    }
    EXPECT_EQ(TimeoutConstants(), expected);
}

TEST_F(KwBlockTest, MissingEndByteIsResetAndTheBlockReceivedAgain) {
    std::vector<uint8_t> cut = EcuBlock(0x01, 0x09);
    cut.pop_back();
    ecu_.script.push_back({cut, true, 100});
    ecu_.script.push_back({EcuBlock(0x01, 0x09)});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{"No ECU data: 0 vs 1\r\n", "\r\nResetting block\r\n\r\n"}));
    EXPECT_EQ(BufferBlock(), (std::vector<uint8_t>{0x03, 0x01, 0x09}));
}

TEST_F(KwBlockTest, LostLengthByteIsResynchronisedWithTheRememberedLength) {
    // First attempt: length 6, counter, title, then silence. Second: the length byte is lost
    // and the counter comes first.
    ecu_.script.push_back({{0x06, 0x01, 0xF6}, true, 100});
    ecu_.script.push_back({{0x01, 0xF6, 0x41, 0x42, 0x43, 0x03}});
    ecu_.Start();
    EXPECT_EQ(KwReceiveBlock(), 0u);
    EXPECT_EQ(BufferBlock(), (std::vector<uint8_t>{0x06, 0x01, 0xF6, 0x41, 0x42, 0x43}));
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{"No ECU data: 0 vs 1\r\n", "\r\nResetting block\r\n\r\n"}));
    EXPECT_EQ(KwStatistics().blocksReceived, 1u);
}

TEST_F(KwBlockTest, PortFailureWhileReceivingIsReturnedWithoutReset) {
    ecu_.script.push_back({EcuBlock(0x01, 0x09)});
    ecu_.Start();
    Fake().Fail(bench::FakeCall::Read, 3, 5);
    EXPECT_EQ(KwReceiveBlock(), 5u);
    EXPECT_EQ(KwStatistics().resets, 0u);
}

// ---- counter rule and statistics ---------------------------------------------------------------

TEST_F(KwBlockTest, CounterRuleTakesTheExpectedCounterSilently) {
    KwSetCounter(0xFF);
    KwNextCounter(0x00);
    EXPECT_EQ(KwCounter(), 0x00);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(KwBlockTest, CounterRuleLogsABadBlockIndexAndTakesTheReceivedCounter) {
    KwSetCounter(0x01);
    KwNextCounter(0x05);
    EXPECT_EQ(KwCounter(), 0x05);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad block index: '05' vs '02'\r\n"}));
}

TEST_F(KwBlockTest, ReceivedBlockWithAnotherCounterIsUsedAllTheSame) {
    ecu_.script.push_back({EcuBlock(0x07, 0x09)});
    ecu_.Start();
    EXPECT_EQ(KwReceiveNextBlock(), 0u);
    EXPECT_EQ(KwCounter(), 0x07);
    EXPECT_EQ(KwBlockTitle(), 0x09);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"Bad block index: '07' vs '01'\r\n"}));
}

TEST_F(KwBlockTest, StatisticsReportHasTheExactText) {
    KwLinkStatistics &s = KwStatistics();
    s.startTick = 1000;
    s.endTick = 63999;
    s.blocksSent = 10;
    s.breaks = 3;
    s.blocksReceived = 8;
    s.resets = 2;
    s.reestablishments = 1;
    KwReportStatistics(2);
    EXPECT_EQ(dvtest::LogCalls(),
              (std::vector<std::string>{
                  "\r\n\r\nConnection duration - 62 sec\r\nBlocks sent - 10, breaks - 3 (30 %)\r\n"
                  "Blocks received - 8, resets - 2 (25 %)\r\nReestablishments - 1\r\n"}));
}

TEST_F(KwBlockTest, StatisticsReportWithoutBlocksGivesZeroRates) {
    KwLinkStatistics &s = KwStatistics();
    s.startTick = 5000;
    s.endTick = 5999;
    s.breaks = 2;
    s.resets = 4;
    KwReportStatistics(2);
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{
                  "\r\nConnection duration - 0 sec\r\nBlocks sent - 0, breaks - 2 (0 %)\r\n"
                  "Blocks received - 0, resets - 4 (0 %)\r\nReestablishments - 0\r\n"}));
}

TEST_F(KwBlockTest, StatisticsReportIsLoggedAtTheGivenLevel) {
    KwReportStatistics(3);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(KwBlockTest, TraceLevelMarksTheDirectionOfEachBlock) {
    DvSetMessagesLevel(3);
    PutBlock({0x03, 0x01, 0x09});
    ASSERT_EQ(KwSendBlock(), 0u);
    ecu_.script.push_back({EcuBlock(0x02, 0x09)});
    ecu_.Start();
    ASSERT_EQ(KwReceiveBlock(), 0u);
    const auto lines = Lines();
    EXPECT_EQ(Count(lines, "\r\n---- ECU <<< Dravelin ----\r\n\r\n"), 1);
    EXPECT_EQ(Count(lines, "\r\n---- ECU >>> Dravelin ----\r\n\r\n"), 1);
}

} // namespace
} // namespace dv
