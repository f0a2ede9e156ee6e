// Part 5.3: the KWP2000 standard services and the service pattern, on the fake platform with a
// scripted ECU (fast-initialised link to address 0x10, tester 0xF1, key bytes EF 8F).
#include "kwp2000_service_fixture.h"

#include <cstdlib>

namespace kwptest {
namespace {

using dv::IsoLinkState;

class KwpServices : public KwpFakeTest {};

// ---- diagnostic sessions ----------------------------------------------------------------------

TEST_F(KwpServices, StartSessionMode1Sends1082AndRecordsIt) {
    Start();
    ecu.AnswerAlways({0x50, 0x82});
    EXPECT_EQ(DvIsoStartDiagnosticSession(1), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x10, 0x82, 0x15}));
    EXPECT_EQ(IsoLinkState().sessionMode, 0x82);
    EXPECT_EQ(IsoLinkState().connected, 1u);
    EXPECT_FALSE(LogHas("Bad"));
}

TEST_F(KwpServices, StartSessionAnswer5081To1082GivesResult7) {
    Start();
    ecu.AnswerAlways({0x50, 0x81});
    EXPECT_EQ(DvIsoStartDiagnosticSession(1), 7u);
    EXPECT_TRUE(Logged("Bad diagnostic session mode : '81' vs '82'\r\n"));
    EXPECT_EQ(IsoLinkState().sessionMode, 0);
}

TEST_F(KwpServices, StartSessionAnswerWithoutModeGivesResult7) {
    Start();
    ecu.AnswerAlways({0x50});
    EXPECT_EQ(DvIsoStartDiagnosticSession(0), 7u);
    EXPECT_TRUE(Logged("Bad diagnostic session mode : '00' vs '81'\r\n"));
    EXPECT_EQ(IsoLinkState().sessionMode, 0);
}

TEST_F(KwpServices, SessionModesMapHostValues) {
    Start();
    ecu.respond = [](const Bytes &request) {
        return std::vector<Bytes>{Answer({0x50, request.at(1)})};
    };
    const std::pair<uint32_t, uint8_t> cases[] = {{0, 0x81}, {1, 0x82},    {2, 0x85},    {4, 0x87},
                                                  {3, 0x03}, {0x89, 0x89}, {0x1C0, 0xC0}};
    for (const auto &[mode, sent] : cases) {
        ecu.requests.clear();
        EXPECT_EQ(DvIsoStartDiagnosticSession(mode), 0u) << mode;
        ASSERT_EQ(ecu.requests.size(), 1u);
        EXPECT_EQ(ecu.requests[0], (Bytes{0x10, sent})) << mode;
        EXPECT_EQ(IsoLinkState().sessionMode, sent);
    }
}

TEST_F(KwpServices, NegativeAnswer7F1012GivesResult0x112) {
    Start();
    ecu.AnswerAlways({0x7F, 0x10, 0x12});
    EXPECT_EQ(DvIsoStartDiagnosticSession(0), 0x112u);
    EXPECT_EQ(IsoLinkState().sessionMode, 0);
    EXPECT_FALSE(LogHas("Bad"));
}

TEST_F(KwpServices, NegativeAnswerWithoutCodeGivesResult0x100) {
    Start();
    ecu.AnswerAlways({0x7F, 0x10});
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0x100u);
}

TEST_F(KwpServices, StopSessionSends20AndClearsTheMode) {
    Start();
    ecu.AnswerInTurn({{0x50, 0x85}, {0x60}});
    ASSERT_EQ(DvIsoStartDiagnosticSession(2), 0u);
    EXPECT_EQ(IsoLinkState().sessionMode, 0x85);
    Forget();
    EXPECT_EQ(DvIsoStopDiagnosticSession(), 0u);
    EXPECT_EQ(Written(), (Bytes{0x81, 0x10, 0xF1, 0x20, 0xA2}));
    EXPECT_EQ(IsoLinkState().sessionMode, 0);
}

TEST_F(KwpServices, StopSessionRefusedKeepsTheMode) {
    Start();
    ecu.AnswerInTurn({{0x50, 0x85}, {0x7F, 0x20, 0x22}});
    ASSERT_EQ(DvIsoStartDiagnosticSession(2), 0u);
    EXPECT_EQ(DvIsoStopDiagnosticSession(), 0x122u);
    EXPECT_EQ(IsoLinkState().sessionMode, 0x85);
}

// ---- wrong service ids --------------------------------------------------------------------------

TEST_F(KwpServices, WrongServiceIdGivesResult13) {
    Start();
    ecu.AnswerAlways({0x51, 0x81});
    EXPECT_EQ(DvIsoStartDiagnosticSession(0), 13u);
    EXPECT_TRUE(Logged("Bad service id : '51' vs '50'\r\n"));
    EXPECT_EQ(IsoLinkState().sessionMode, 0);

    ecu.AnswerAlways({0x7E});
    EXPECT_EQ(DvIsoStopDiagnosticSession(), 13u);
    EXPECT_TRUE(Logged("Bad service id : '7E' vs '60'\r\n"));
    ecu.AnswerAlways({0x54});
    EXPECT_EQ(DvIsoTesterPresent(), 13u);
    EXPECT_TRUE(Logged("Bad service id : '54' vs '7E'\r\n"));
    EXPECT_EQ(DvIsoTesterPresentExtended(1), 13u);
    ecu.AnswerAlways({0x54, 0x00});
    uint32_t count = 99;
    uint16_t *codes = nullptr;
    EXPECT_EQ(DvIsoReadDtc(&count, &codes), 13u);
    EXPECT_TRUE(Logged("Bad service id : '54' vs '53'\r\n"));
    EXPECT_EQ(count, 99u);
    EXPECT_EQ(codes, nullptr);
    ecu.AnswerAlways({0x53});
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 13u);
    EXPECT_TRUE(Logged("Bad service id : '53' vs '54'\r\n"));
}

// ---- tester present
// -------------------------------------------------------------------------------

TEST_F(KwpServices, TesterPresentSends8110F13EC0) {
    Start();
    ecu.AnswerAlways({0x7E});
    EXPECT_EQ(DvIsoTesterPresent(), 0u);
    EXPECT_EQ(Written(), (Bytes{0x81, 0x10, 0xF1, 0x3E, 0xC0}));
}

TEST_F(KwpServices, TesterPresentExtendedWithAnswerSends3E01) {
    Start();
    ecu.AnswerAlways({0x7E});
    EXPECT_EQ(DvIsoTesterPresentExtended(1), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x3E, 0x01, 0xC2}));
    ecu.AnswerAlways({0x7F, 0x3E, 0x12});
    EXPECT_EQ(DvIsoTesterPresentExtended(7), 0x112u);
}

TEST_F(KwpServices, TesterPresentExtendedWithoutAnswerOnSilentEcuReturns0) {
    Start();
    DvSetMessagesLevel(3);
    const int64_t start = NowMs();
    EXPECT_EQ(DvIsoTesterPresentExtended(0), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x3E, 0x02, 0xC3}));
    // Six bytes 10 ms apart, P4max - TesterByteGap, then P3min - P4max = 35 ms.
    EXPECT_EQ(NowMs() - start, 60 + 10 + 35);
    EXPECT_TRUE(LogHas("\r\n---- ECU <- Dravelin ----\r\n\r\n"));
    EXPECT_FALSE(LogHas("Restarting"));
    EXPECT_EQ(IsoLinkState().restarts, 0u);
}

TEST_F(KwpServices, TesterPresentExtendedWithoutAnswerReturnsTheMissingEcho) {
    Start();
    Fake().echoWrites = false;
    const int64_t start = NowMs();
    EXPECT_EQ(DvIsoTesterPresentExtended(0), 6u);
    EXPECT_TRUE(LogHas("No adapter echo"));
    // The echo deadline P2min - P4max (+1 of the port timeouts), then P3min.
    EXPECT_EQ(NowMs() - start, 60 + 10 + 6 + 55);
    EXPECT_FALSE(LogHas("Restarting"));
}

TEST_F(KwpServices, TesterPresentRestartsOnceAndDoesNotSendAgain) {
    Start();
    const int64_t start = NowMs();
    EXPECT_EQ(DvIsoTesterPresent(), 0u);
    EXPECT_EQ(ecu.requests, (std::vector<Bytes>{{0x3E}, {0x3E}, {0x3E}, {0x81}}));
    EXPECT_TRUE(Logged("\r\nRestarting communication\r\n"));
    EXPECT_EQ(IsoLinkState().restarts, 1u);
    EXPECT_EQ(IsoLinkState().connected, 1u);
    // The fast reconnect pauses 600 - P3min before its wake-up.
    bool paused = false;
    for (const FakeEvent *sleep : Fake().EventsOf(FakeEvent::Kind::Sleep)) {
        paused = paused || sleep->value == 545;
    }
    EXPECT_TRUE(paused);
    EXPECT_GT(NowMs() - start, 545);
}

TEST_F(KwpServices, TesterPresentWithFailedRestartMarksTheLinkLost) {
    Start();
    ecu.answerStartCommunication = false;
    EXPECT_EQ(DvIsoTesterPresentExtended(1), 8u);
    EXPECT_EQ(ecu.Count(0x3E), 3);
    EXPECT_EQ(ecu.Count(0x81), 3);
    EXPECT_EQ(IsoLinkState().connected, 2u);
    EXPECT_EQ(IsoLinkState().restarts, 0u);
}

// ---- trouble codes
// ----------------------------------------------------------------------------------

TEST_F(KwpServices, ReadDtcAnswer5302Gives0102And0119) {
    Start();
    ecu.AnswerAlways({0x53, 0x02, 0x01, 0x02, 0x01, 0x19});
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    EXPECT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    EXPECT_EQ(Written(), (Bytes{0x81, 0x10, 0xF1, 0x13, 0x95}));
    ASSERT_EQ(count, 2u);
    ASSERT_NE(codes, nullptr);
    EXPECT_EQ(codes[0], 0x0102);
    EXPECT_EQ(codes[1], 0x0119);
    DvFree(codes);
}

TEST_F(KwpServices, ReadDtcCountZeroGivesNullArray) {
    Start();
    ecu.AnswerAlways({0x53, 0x00, 0x01, 0x02});
    uint32_t count = 7;
    uint16_t *codes = reinterpret_cast<uint16_t *>(&count);
    EXPECT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(codes, nullptr);
}

TEST_F(KwpServices, ReadDtcKeepsToTheCodesTheAnswerHolds) {
    Start();
    // n says 3, the answer holds one whole code and half of another.
    ecu.AnswerAlways({0x53, 0x03, 0x04, 0x05, 0x06});
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    EXPECT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(codes[0], 0x0405);
    DvFree(codes);
    // More codes than announced: n holds.
    ecu.AnswerAlways({0x53, 0x01, 0x04, 0x05, 0x06, 0x07});
    EXPECT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(codes[0], 0x0405);
    DvFree(codes);
}

TEST_F(KwpServices, ReadDtcNegativeAnswer) {
    Start();
    ecu.AnswerAlways({0x7F, 0x13, 0x22});
    uint32_t count = 5;
    uint16_t *codes = nullptr;
    EXPECT_EQ(DvIsoReadDtc(&count, &codes), 0x122u);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(codes, nullptr);
}

TEST_F(KwpServices, ReadDtcRefusesNullOutputs) {
    Start();
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    EXPECT_EQ(DvIsoReadDtc(nullptr, &codes), 1u);
    EXPECT_EQ(DvIsoReadDtc(&count, nullptr), 1u);
    EXPECT_TRUE(ecu.requests.empty());
}

TEST_F(KwpServices, ClearDiagnosticInformationSends14) {
    Start();
    ecu.AnswerAlways({0x54});
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0u);
    EXPECT_EQ(Written(), (Bytes{0x81, 0x10, 0xF1, 0x14, 0x96}));
    ecu.AnswerAlways({0x7F, 0x14, 0x22});
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0x122u);
}

// ---- the lost link
// ----------------------------------------------------------------------------------

TEST_F(KwpServices, SilentEcuTwoExchangesWithRestartThenConnected2AndStopOnlyCloses) {
    Start();
    // The ECU answers the initialisation but no service request.
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 8u);
    EXPECT_EQ(ecu.requests,
              (std::vector<Bytes>{{0x14}, {0x14}, {0x14}, {0x81}, {0x14}, {0x14}, {0x14}}));
    EXPECT_TRUE(Logged("\r\nRestarting communication\r\n"));
    EXPECT_EQ(IsoLinkState().restarts, 1u);
    EXPECT_EQ(IsoLinkState().connected, 2u);

    Forget();
    DvIsoStopCommunication();
    EXPECT_TRUE(ecu.requests.empty());
    EXPECT_TRUE(Written().empty());
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Close).size(), 1u);
    EXPECT_TRUE(LogHas("\r\nDisconnected\r\n"));
}

TEST_F(KwpServices, SilentEcuWithFailedRestartEndsWith8) {
    Start();
    ecu.answerStartCommunication = false;
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 8u);
    EXPECT_EQ(ecu.requests, (std::vector<Bytes>{{0x14}, {0x14}, {0x14}, {0x81}, {0x81}, {0x81}}));
    EXPECT_EQ(IsoLinkState().restarts, 0u);
    EXPECT_EQ(IsoLinkState().connected, 2u);
    EXPECT_TRUE(Fake().portOpen);
}

TEST_F(KwpServices, AnsweredExchangeSetsConnectedBackTo1) {
    Start();
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 8u);
    ASSERT_EQ(IsoLinkState().connected, 2u);
    ecu.AnswerAlways({0x54});
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0u);
    EXPECT_EQ(IsoLinkState().connected, 1u);
}

TEST_F(KwpServices, BadAnswersEndWith12WithoutMarkingTheLinkLost) {
    Start();
    ecu.respond = [](const Bytes &) {
        Bytes message = Answer({0x54});
        message.back() ^= 0xFF;
        return std::vector<Bytes>{message};
    };
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 12u);
    EXPECT_EQ(ecu.Count(0x14), 6);
    EXPECT_EQ(ecu.Count(0x81), 1);
    EXPECT_EQ(IsoLinkState().restarts, 1u);
    EXPECT_EQ(IsoLinkState().connected, 1u);
    EXPECT_TRUE(LogHas("Bad ECU message checksum"));
}

TEST_F(KwpServices, SecondAttemptAfterRestartSucceeds) {
    Start();
    int heard = 0;
    ecu.respond = [&heard](const Bytes &) {
        return ++heard <= 3 ? std::vector<Bytes>{} : std::vector<Bytes>{Answer({0x54})};
    };
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0u);
    EXPECT_EQ(ecu.requests, (std::vector<Bytes>{{0x14}, {0x14}, {0x14}, {0x81}, {0x14}}));
    EXPECT_EQ(IsoLinkState().restarts, 1u);
    EXPECT_EQ(IsoLinkState().connected, 1u);
}

TEST_F(KwpServices, SessionIsRestoredAfterARestart) {
    Start();
    ecu.AnswerAlways({0x50, 0x82});
    ASSERT_EQ(DvIsoStartDiagnosticSession(1), 0u);
    Forget();
    int dtcRequests = 0;
    ecu.respond = [&dtcRequests](const Bytes &request) {
        if (request == Bytes{0x10, 0x82}) {
            return std::vector<Bytes>{Answer({0x50, 0x82})};
        }
        if (++dtcRequests <= 3) {
            return std::vector<Bytes>{};
        }
        return std::vector<Bytes>{Answer({0x53, 0x01, 0x02, 0x0A})};
    };
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    EXPECT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    EXPECT_EQ(ecu.requests,
              (std::vector<Bytes>{{0x13}, {0x13}, {0x13}, {0x81}, {0x10, 0x82}, {0x13}}));
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(codes[0], 0x020A);
    DvFree(codes);
    EXPECT_EQ(IsoLinkState().sessionMode, 0x82);
    EXPECT_EQ(IsoLinkState().restarts, 1u);
}

TEST_F(KwpServices, RefusedSessionRestoreEndsTheServiceWithTheRestartsResult) {
    Start();
    ecu.AnswerAlways({0x50, 0x82});
    ASSERT_EQ(DvIsoStartDiagnosticSession(1), 0u);
    Forget();
    ecu.respond = [](const Bytes &request) {
        if (request == Bytes{0x10, 0x82}) {
            return std::vector<Bytes>{Answer({0x7F, 0x10, 0x12})};
        }
        return std::vector<Bytes>{};
    };
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0x112u);
    EXPECT_EQ(ecu.requests, (std::vector<Bytes>{{0x14}, {0x14}, {0x14}, {0x81}, {0x10, 0x82}}));
    EXPECT_EQ(IsoLinkState().connected, 1u);
}

TEST_F(KwpServices, RefusedThreadPriorityIsReturnedWithoutRestart) {
    Start();
    ecu.AnswerAlways({0x7E});
    Fake().Fail(FakeCall::SetPriority, Fake().CallCount(FakeCall::SetPriority) + 1, 5);
    EXPECT_EQ(DvIsoTesterPresent(), 1u);
    Fake().Fail(FakeCall::SetPriority, Fake().CallCount(FakeCall::SetPriority) + 1, 5);
    EXPECT_EQ(DvIsoTesterPresentExtended(0), 1u);
    Fake().Fail(FakeCall::SetPriority, Fake().CallCount(FakeCall::SetPriority) + 1, 5);
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 1u);
    EXPECT_TRUE(Written().empty());
    EXPECT_FALSE(LogHas("Restarting"));
    EXPECT_TRUE(LogHas("Could not set thread priority (0x00000005)\r\n"));
}

TEST_F(KwpServices, PortFailureIsReturnedWithoutRestart) {
    Start();
    Fake().Fail(FakeCall::Purge, Fake().CallCount(FakeCall::Purge) + 1, 31);
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 5u);
    EXPECT_TRUE(ecu.requests.empty());
    EXPECT_FALSE(LogHas("Restarting"));
}

} // namespace
} // namespace kwptest
