// Part 3.3 (KW1281 connection) on the bench: initialisation, connect with its retry rules and
// pauses, keep-alive, re-establishment with relogin, and disconnect.
#include "kw1281_bench_support.h"

namespace dv {
namespace {

using namespace dv::bench;
using dvtest::LogCount;
using dvtest::LogHasInOrder;
using dvtest::Pauses;

const std::string kConnecting = "\r\nConnecting to ECU at address 01h at 10400 baud rate\r\n";
const std::string kConnected = "\r\nConnected successfully\r\n";
const std::string kRetrying = "\r\nRetrying to connect to ECU\r\n\r\n";
const std::string kResetting = "\r\nResetting\r\n\r\n";
const std::string kNoData = "No ECU data: 0 vs 1\r\n";

bool PortOpen() {
    return dvtest::TraceCount(TraceKind::Open) > dvtest::TraceCount(TraceKind::Close);
}

class KwConnectionTest : public dvtest::KwBenchTest {};

// ---- connect ------------------------------------------------------------------------------------

TEST_F(KwConnectionTest, ConnectReadsTheIdentificationAndLogsSuccess) {
    InstallEngine();
    EXPECT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(Descriptions(), dvtest::kEngineDescriptions);
    EXPECT_EQ(interval_, 1000u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
    EXPECT_EQ(KwConnection().address, 0x01);
    EXPECT_EQ(KwConnection().keyword, 0x8A01);
    EXPECT_EQ(KwConnection().shortCoding, 0);
    EXPECT_EQ(dvtest::LogCalls(),
              (std::vector<std::string>{"\r\n" + kConnecting, "\r\n" + kConnected}));
    EXPECT_TRUE(PortOpen());
    EXPECT_EQ(ecu_->LinksUp(), 1);
    EXPECT_EQ(ecu_->LastAddress(), 0x01);
    // Acknowledges of both passes and the request for the second pass.
    EXPECT_EQ(ecu_->TitlesReceived(),
              (std::vector<uint8_t>{0x09, 0x09, 0x09, 0x09, 0x00, 0x09, 0x09, 0x09}));
    EXPECT_EQ(KwStatistics().blocksSent, 8u);
    EXPECT_EQ(KwStatistics().blocksReceived, 9u);
}

TEST_F(KwConnectionTest, ConnectWithoutOutputsFreesTheDescriptions) {
    InstallEngine();
    EXPECT_EQ(DvVagConnect(reinterpret_cast<const DvChar *>(u"COM1"), 10400, 1, nullptr, nullptr),
              0u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwConnectionTest, ConnectSetsTheInitialisationTimeouts) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    const std::vector<uint32_t> constants = dvtest::TimeoutConstants();
    ASSERT_GE(constants.size(), 5u);
    // Port open, echo read at once (0), sync byte 1000 + 100 (+ 1), keyword bytes 140 (+ 1),
    // then the first block's block timeout.
    EXPECT_EQ(constants[1], 0u);
    EXPECT_EQ(constants[2], 1101u);
    EXPECT_EQ(constants[3], 141u);
    EXPECT_EQ(constants[4], 1001u);
}

TEST_F(KwConnectionTest, ComplementOfTheSecondKeywordByteFollows25MsAfterIt) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    const auto hears = BenchTraceOf(TraceKind::TesterHears);
    const auto bytes = BenchTraceOf(TraceKind::TesterByte);
    ASSERT_GE(hears.size(), 3u);
    ASSERT_GE(bytes.size(), 1u);
    EXPECT_EQ(hears[2].value, 0x8A);
    EXPECT_EQ(bytes[0].value, 0x75);
    EXPECT_GE(bytes[0].at - hears[2].at, 25 * kFakeTicksPerMs);
    EXPECT_LT(bytes[0].at - hears[2].at, 27 * kFakeTicksPerMs);
    // A busy-wait, not a sleep: one spin of 25 ms between the keyword byte and its complement.
    int spins = 0;
    for (const TraceEntry &entry : BenchTrace()) {
        if (entry.at >= hears[2].at && entry.at < bytes[0].at) {
            EXPECT_NE(entry.kind, TraceKind::Sleep);
            spins += entry.kind == TraceKind::Spin && entry.value == 25 * kFakeTicksPerMs ? 1 : 0;
        }
    }
    EXPECT_EQ(spins, 1);
}

TEST_F(KwConnectionTest, KeywordSlowIsAcceptedSilently) {
    InstallCluster(3);
    EXPECT_EQ(ConnectCluster(), 0u);
    EXPECT_EQ(Descriptions(), dvtest::kClusterDescriptions);
    EXPECT_EQ(KwConnection().keyword, 0x8089);
    EXPECT_EQ(KwConnection().shortCoding, 1);
    EXPECT_EQ(LogCount("Baud Rate Synch Byte is Ok\r\n"), 1);
    EXPECT_EQ(LogCount("Keyword Bytes"), 0);
}

TEST_F(KwConnectionTest, Keyword8A01IsAcceptedWithALogLine) {
    InstallEngine(3);
    EXPECT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(LogCount("Keyword Bytes are Ok\r\n"), 1);
}

TEST_F(KwConnectionTest, Keyword0501IsAcceptedWithALogLine) {
    Kw1281Profile profile = Kw1281EngineProfile();
    profile.keyword2 = 0x05;
    Install(profile, 3);
    EXPECT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(KwConnection().keyword, 0x0501);
    EXPECT_EQ(LogCount("Keyword Bytes are Ok\r\n"), 1);
}

TEST_F(KwConnectionTest, BadKeywordYields10AfterEveryAttemptWithItsPause) {
    InstallEngine();
    ecu_->faults.keyword2 = 0x8B;
    const size_t mark = BenchTrace().size();
    EXPECT_EQ(ConnectEngine(), 10u);
    EXPECT_EQ(LogCount("Bad Keyword Bytes: '8B01' vs '8A01' or '0501'\r\n"), 3);
    EXPECT_EQ(LogCount(kRetrying), 2);
    EXPECT_EQ(LogCount(kResetting), 0);
    EXPECT_EQ(Pauses(mark), (std::vector<uint32_t>{3000, 3000, 3000}));
    EXPECT_FALSE(PortOpen());
    EXPECT_EQ(KwConnection().state, KwLinkState::NotConnected);
}

TEST_F(KwConnectionTest, WrongSyncByteYields9WithoutResetting) {
    InstallEngine();
    ecu_->faults.syncByte = 0x54;
    EXPECT_EQ(ConnectEngine(), 9u);
    EXPECT_EQ(LogCount("Bad Baud Rate Synch Byte: '54' vs '55'\r\n"), 3);
    EXPECT_EQ(LogCount(kResetting), 0);
    EXPECT_EQ(LogCount(kRetrying), 2);
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{3000, 3000, 3000}));
    EXPECT_EQ(KwStatistics().resets, 0u);
    EXPECT_FALSE(PortOpen());
}

TEST_F(KwConnectionTest, NoSyncByteYields8AtOnceWithoutResetting) {
    InstallEngine();
    Settings([](DvSettings &s) { s.connectRetries = 1; });
    EXPECT_EQ(Connect(0x02, 10400), 8u);
    EXPECT_EQ(ecu_->LastAddress(), 0x02);
    EXPECT_EQ(
        dvtest::LogCalls(),
        (std::vector<std::string>{"\r\n\r\nConnecting to ECU at address 02h at 10400 baud rate\r\n",
                                  "\r\n" + kNoData}));
    // 3 x blockTimeout - initTimeout after a failed initialisation.
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{2000}));
    EXPECT_FALSE(PortOpen());
    // The sync byte was awaited for initTimeout + 100 ms (+ 1).
    const auto reads = BenchTraceOf(TraceKind::Read);
    const auto sleeps = BenchTraceOf(TraceKind::Sleep);
    ASSERT_FALSE(reads.empty());
    ASSERT_FALSE(sleeps.empty());
    EXPECT_EQ(sleeps.back().at - reads.back().at, 0);
}

TEST_F(KwConnectionTest, NoSyncByteIsRetriedWithTheShorterPause) {
    InstallEngine();
    EXPECT_EQ(Connect(0x02, 10400), 8u);
    EXPECT_EQ(LogCount(kNoData), 3);
    EXPECT_EQ(LogCount(kRetrying), 2);
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{2000, 2000, 2000}));
}

TEST_F(KwConnectionTest, SixteenFailedKeywordAttemptsSleepInitTimeoutAndYield8) {
    Kw1281Profile profile = Kw1281EngineProfile();
    profile.timing.initRepeats = 20;
    Install(profile);
    Settings([](DvSettings &s) { s.connectRetries = 1; });
    DropTesterBytes(0, 16); // every complement of the second keyword byte is lost
    EXPECT_EQ(ConnectEngine(), 8u);
    EXPECT_EQ(LogCount(kResetting), 15);
    EXPECT_EQ(LogCount("Keyword"), 0); // level 2: the confirmations are not shown
    EXPECT_EQ(KwStatistics().resets, 15u);
    // initTimeout after the 16th attempt, then the connect's 3 x blockTimeout - initTimeout.
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{1000, 2000}));
    // After each failed attempt the sync byte is awaited initTimeout - keywordTimeout (+ 1).
    int resetTimeouts = 0;
    for (uint32_t constant : dvtest::TimeoutConstants()) {
        resetTimeouts += constant == 861 ? 1 : 0;
    }
    EXPECT_EQ(resetTimeouts, 15);
    EXPECT_FALSE(PortOpen());
}

TEST_F(KwConnectionTest, SixteenFailedKeywordAttemptsAreRetriedUpToConnectRetries) {
    Kw1281Profile profile = Kw1281EngineProfile();
    profile.timing.initRepeats = 20;
    Install(profile);
    DropTesterBytes(0, 48);
    EXPECT_EQ(ConnectEngine(), 8u);
    EXPECT_EQ(LogCount(kResetting), 45);
    EXPECT_EQ(LogCount(kRetrying), 2);
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{1000, 2000, 1000, 2000, 1000, 2000}));
}

TEST_F(KwConnectionTest, LostKeywordComplementIsResetAndTheInitialisationGoesOn) {
    InstallEngine();
    DropTesterBytes(0, 1);
    EXPECT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(LogCount(kResetting), 1);
    EXPECT_EQ(KwStatistics().resets, 1u);
    EXPECT_EQ(Descriptions(), dvtest::kEngineDescriptions);
}

TEST_F(KwConnectionTest, AnEarlierBadSyncIsReturnedAfterLaterMissingData) {
    InstallEngine();
    BenchFault().CorruptEcuByte(1, 0x01); // the first sync byte reads 0x54
    DropTesterBytes(0, 6);                // attempts 2 and 3 lose every keyword complement
    EXPECT_EQ(ConnectEngine(), 9u);
    EXPECT_EQ(LogCount("Bad Baud Rate Synch Byte: '54' vs '55'\r\n"), 1);
    EXPECT_EQ(LogCount(kRetrying), 2);
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{3000, 2000, 2000}));
}

TEST_F(KwConnectionTest, IdentificationComplementErrorIsRetriedAfterThePause) {
    InstallEngine();
    Settings([](DvSettings &s) { s.blockSendRetries = 1; });
    ecu_->faults.wrongComplement = 1;
    const size_t mark = BenchTrace().size();
    EXPECT_EQ(ConnectEngine(), 0u);
    EXPECT_TRUE(LogHasInOrder({"Bad ECU echo: 'FD' vs 'FC'\r\n", kRetrying, kConnected}));
    EXPECT_EQ(Pauses(mark), (std::vector<uint32_t>{3000}));
    EXPECT_EQ(Descriptions(), dvtest::kEngineDescriptions);
}

TEST_F(KwConnectionTest, IdentificationComplementErrorUsedUpReturns11) {
    InstallEngine();
    Settings([](DvSettings &s) {
        s.blockSendRetries = 1;
        s.connectRetries = 1;
    });
    ecu_->faults.wrongComplement = 1;
    EXPECT_EQ(ConnectEngine(), 11u);
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{3000}));
    EXPECT_FALSE(PortOpen());
    EXPECT_EQ(descriptions_, nullptr);
}

TEST_F(KwConnectionTest, IdentificationSilenceIsRetriedWithTheShorterPause) {
    InstallEngine();
    ecu_->faults.silentBlock = 1; // the first acknowledge gets no answer
    EXPECT_EQ(ConnectEngine(), 0u);
    EXPECT_TRUE(LogHasInOrder({kNoData, kRetrying, kConnected}));
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{2000}));
    EXPECT_EQ(ecu_->LinksUp(), 2);
}

TEST_F(KwConnectionTest, PortOpenFailureIsReturnedAsIs) {
    InstallEngine();
    BenchFault().Fail(FakeCall::Open, 1, 2);
    EXPECT_EQ(ConnectEngine(), 5u);
    EXPECT_TRUE(
        LogHasInOrder({kConnecting, "Could not open communication port 'COM1' (0x00000002)\r\n"}));
    EXPECT_TRUE(Pauses().empty());
}

TEST_F(KwConnectionTest, PortFailureDuringTheInitialisationStopsAfterThePause) {
    InstallEngine();
    BenchFault().Fail(FakeCall::Escape, 1, 31);
    EXPECT_EQ(ConnectEngine(), 5u);
    EXPECT_EQ(LogCount(kRetrying), 0);
    EXPECT_EQ(Pauses(), (std::vector<uint32_t>{3000}));
    EXPECT_FALSE(PortOpen());
}

TEST_F(KwConnectionTest, ExchangeSectionFailureClosesThePort) {
    InstallEngine();
    BenchFault().Fail(FakeCall::GetPriority, 1, 0);
    EXPECT_EQ(ConnectEngine(), 1u);
    EXPECT_EQ(dvtest::TraceCount(TraceKind::Open), 1u);
    EXPECT_FALSE(PortOpen());
    EXPECT_EQ(dvtest::TraceCount(TraceKind::LineLow), 0u);
}

TEST_F(KwConnectionTest, ConnectClearsTheLoginAndStartsNewStatistics) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    ASSERT_EQ(DvVagLogin(12345, 12233), 0u);
    ASSERT_EQ(KwConnection().loggedIn, 1);
    DvVagDisconnect();
    ASSERT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(KwConnection().loggedIn, 0);
    EXPECT_EQ(KwStatistics().blocksSent, 8u);
    EXPECT_EQ(KwStatistics().blocksReceived, 9u);
}

// ---- keep-alive ---------------------------------------------------------------------------------

TEST_F(KwConnectionTest, IdleSendsAnAcknowledgeAndReadsOne) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    const int before = ecu_->BlocksReceived();
    EXPECT_EQ(DvVagIdle(), 0u);
    EXPECT_EQ(ecu_->BlocksReceived(), before + 1);
    EXPECT_EQ(ecu_->TitlesReceived().back(), 0x09);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
    EXPECT_EQ(KwBuffer().bytes[0], 0);
}

TEST_F(KwConnectionTest, IdleReestablishesALostLinkOnce) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    DropLinkAtNextBlock();
    const size_t mark = BenchTrace().size();
    EXPECT_EQ(DvVagIdle(), 0u);
    EXPECT_TRUE(LogHasInOrder({kNoData, "\r\nReestablishing connection\r\n",
                               "\r\nReconnecting to ECU\r\n", "\r\nReconnected successfully\r\n"}));
    EXPECT_EQ(Pauses(mark), (std::vector<uint32_t>{3000}));
    EXPECT_EQ(KwStatistics().reestablishments, 1u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
    EXPECT_EQ(ecu_->LinksUp(), 2);
    // After the re-establishment the acknowledge is not sent again: the last tester block is
    // the last acknowledge of the skipped identification.
    const std::vector<uint8_t> &titles = ecu_->TitlesReceived();
    EXPECT_EQ(std::vector<uint8_t>(titles.end() - 9, titles.end()),
              (std::vector<uint8_t>{0x09, 0x09, 0x09, 0x09, 0x09, 0x00, 0x09, 0x09, 0x09}));
}

TEST_F(KwConnectionTest, IdleWithAFailedReestablishMarksTheLinkBroken) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    DropLinkAtNextBlock();
    DropTesterBytes(4, 9); // after the acknowledge, every keyword complement is lost
    EXPECT_EQ(DvVagIdle(), 8u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Broken);
    EXPECT_EQ(LogCount("\r\nReestablishing connection\r\n"), 1);
    EXPECT_EQ(LogCount(kRetrying), 2);
    EXPECT_EQ(KwStatistics().reestablishments, 0u);
}

TEST_F(KwConnectionTest, IdleReturnsAPortFailureWithoutReestablishing) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    BenchFault().Fail(FakeCall::Write, BenchCallCount(FakeCall::Write) + 1, 31);
    EXPECT_EQ(DvVagIdle(), 5u);
    EXPECT_EQ(LogCount("Reestablishing"), 0);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

// ---- re-establishment in a service ------------------------------------------------------------

TEST_F(KwConnectionTest, LostLinkIsReestablishedWithRelogin) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    ASSERT_EQ(DvVagLogin(0x1E240, 12233), 0u);
    DropLinkAtNextBlock();
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    EXPECT_EQ(DvVagGetFaults(&count, &faults), 0u);
    EXPECT_EQ(count, 5u);
    DvFree(faults);
    EXPECT_TRUE(LogHasInOrder({"\r\nReestablishing connection\r\n", "\r\nReconnecting to ECU\r\n",
                               "\r\nReconnected successfully\r\n"}));
    EXPECT_EQ(KwStatistics().reestablishments, 1u);
    EXPECT_TRUE(ecu_->LoggedIn());
    // The request, the skipped identification, the relogin and the request again.
    const std::vector<uint8_t> &titles = ecu_->TitlesReceived();
    const std::vector<uint8_t> tail(titles.end() - 13, titles.end());
    EXPECT_EQ(tail, (std::vector<uint8_t>{0x07, 0x09, 0x09, 0x09, 0x09, 0x00, 0x09, 0x09, 0x09,
                                          0x2B, 0x07, 0x09, 0x09}));
}

TEST_F(KwConnectionTest, ARequestWithoutComplementIsResentThenTheLinkReestablished) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    DropTesterBytes(0, 3); // the length byte of each of the three send attempts is lost
    EXPECT_EQ(DvVagClearFaults(), 0u);
    EXPECT_EQ(LogCount("No ECU echo\r\n"), 3);
    EXPECT_EQ(LogCount("\r\nResending block\r\n\r\n"), 2);
    EXPECT_TRUE(
        LogHasInOrder({"\r\nReestablishing connection\r\n", "\r\nReconnected successfully\r\n"}));
    EXPECT_EQ(KwStatistics().breaks, 2u);
    EXPECT_EQ(KwStatistics().reestablishments, 1u);
    EXPECT_EQ(ecu_->Faults().size(), 1u); // the request went out after the re-establishment
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwConnectionTest, RefusedReloginYields256) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    ASSERT_EQ(DvVagLogin(12345, 12233), 0u);
    // The ECU no longer takes the stored login code.
    KwConnection().loginCode = 11111;
    DropLinkAtNextBlock();
    const size_t mark = BenchTrace().size();
    EXPECT_EQ(DvVagClearFaults(), 256u);
    EXPECT_TRUE(LogHasInOrder({"\r\nReconnecting to ECU\r\n", "Could not relogin\r\n"}));
    EXPECT_EQ(LogCount(kRetrying), 0);
    EXPECT_EQ(LogCount("Reconnected successfully"), 0);
    // The re-establishment's pause before it and after it stopped.
    EXPECT_EQ(Pauses(mark), (std::vector<uint32_t>{3000, 3000}));
    EXPECT_EQ(ecu_->TitlesReceived().back(), 0x2B);
}

TEST_F(KwConnectionTest, ServiceRetriesUsedUpMarkTheLinkBroken) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    Settings([](DvSettings &s) { s.serviceRetries = 1; });
    ecu_->faults.silentBlock = ecu_->BlocksReceived() + 1;
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    EXPECT_EQ(DvVagGetFaults(&count, &faults), 8u);
    EXPECT_EQ(faults, nullptr);
    EXPECT_EQ(KwConnection().state, KwLinkState::Broken);
    EXPECT_EQ(LogCount("Reestablishing"), 0);
}

TEST_F(KwConnectionTest, FailedReestablishMarksBrokenAndDisconnectOnlyClosesThePort) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    DropLinkAtNextBlock();
    DropTesterBytes(4, 9);
    EXPECT_EQ(DvVagClearFaults(), 8u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Broken);
    EXPECT_EQ(LogCount(kRetrying), 2);
    const size_t testerBytes = dvtest::TraceCount(TraceKind::TesterByte);
    const size_t mark = BenchTrace().size();
    dvtest::LogCaptureReset();
    DvVagDisconnect();
    EXPECT_EQ(dvtest::TraceCount(TraceKind::TesterByte), testerBytes);
    EXPECT_FALSE(PortOpen());
    EXPECT_TRUE(Pauses(mark).empty());
    EXPECT_NE(ecu_->TitlesReceived().back(), 0x06);
    EXPECT_TRUE(LogHasInOrder(
        {"\r\nDisconnecting from ECU\r\n", "\r\nDisconnected\r\n", "\r\nConnection duration - "}));
    EXPECT_EQ(KwConnection().state, KwLinkState::NotConnected);
}

TEST_F(KwConnectionTest, ServicesWithoutAConnectionReturnThePortCode) {
    InstallEngine();
    EXPECT_EQ(DvVagIdle(), 5u);
    EXPECT_EQ(DvVagClearFaults(), 5u);
    EXPECT_EQ(DvVagLogin(1, 2), 5u);
    EXPECT_EQ(KwConnection().state, KwLinkState::NotConnected);
    EXPECT_EQ(KwCounter(), 0);
    DvVagDisconnect();
    EXPECT_EQ(dvtest::TraceCount(TraceKind::TesterByte), 0u);
    EXPECT_EQ(dvtest::TraceCount(TraceKind::Open), 0u);
    EXPECT_TRUE(LogHasInOrder({"\r\nDisconnecting from ECU\r\n", "\r\nDisconnected\r\n"}));
}

// ---- disconnect ---------------------------------------------------------------------------------

TEST_F(KwConnectionTest, DisconnectSendsTheEndBlockClosesThePortAndReports) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    dvtest::LogCaptureReset();
    const int64_t start = BenchNow();
    DvVagDisconnect();
    EXPECT_EQ(ecu_->TitlesReceived().back(), 0x06);
    EXPECT_EQ(ecu_->LinksDropped(), 1);
    EXPECT_FALSE(PortOpen());
    EXPECT_EQ(KwConnection().state, KwLinkState::NotConnected);
    EXPECT_EQ(KwStatistics().blocksSent, 9u);
    const uint32_t seconds = (KwStatistics().endTick - KwStatistics().startTick) / 1000;
    EXPECT_GE(KwStatistics().endTick, static_cast<uint32_t>(start / kFakeTicksPerMs));
    const std::vector<std::string> calls = dvtest::LogCalls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0], "\r\n\r\nDisconnecting from ECU\r\n");
    EXPECT_EQ(calls[1], "\r\n\r\nDisconnected\r\n");
    EXPECT_EQ(calls[2], "\r\n\r\nConnection duration - " + std::to_string(seconds) +
                            " sec\r\nBlocks sent - 9, breaks - 0 (0 %)\r\n"
                            "Blocks received - 9, resets - 0 (0 %)\r\nReestablishments - 0\r\n");
}

TEST_F(KwConnectionTest, DisconnectWithAFailedEndBlockPausesBeforeClosing) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    BenchFault().Fail(FakeCall::Write, BenchCallCount(FakeCall::Write) + 1, 31);
    const uint8_t counter = KwCounter();
    const size_t mark = BenchTrace().size();
    DvVagDisconnect();
    EXPECT_EQ(KwCounter(), counter);
    EXPECT_EQ(Pauses(mark), (std::vector<uint32_t>{3000}));
    EXPECT_FALSE(PortOpen());
}

TEST_F(KwConnectionTest, DisconnectWithAFailedExchangeSectionPausesAndCloses) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    BenchFault().Fail(FakeCall::GetPriority, BenchCallCount(FakeCall::GetPriority) + 1, 0);
    const size_t testerBytes = dvtest::TraceCount(TraceKind::TesterByte);
    const size_t mark = BenchTrace().size();
    DvVagDisconnect();
    EXPECT_EQ(dvtest::TraceCount(TraceKind::TesterByte), testerBytes);
    EXPECT_EQ(Pauses(mark), (std::vector<uint32_t>{3000}));
    EXPECT_FALSE(PortOpen());
}

} // namespace
} // namespace dv
