// Part 5.2: KWP2000 initialisation and connection on the fake port (virtual clock, scripted
// ECU). The five-baud address ends 1900 ms after it starts; the scripts put the ECU's
// synchronisation and key bytes on the line at chosen times after that.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "bench/bench.h"
#include "bench/kwp2000_ecu.h"
#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "kwp2000_fake_ecu.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace {

using namespace dvtest;
using dv::bench::FakeCall;
using dv::bench::FakeEvent;

constexpr int64_t kAddressMs = 1900; // start bit, 7 data bits, parity at 200 ms, half a stop bit
constexpr int64_t kPortOpenMs = 50;  // PortOpen's closing sleep

const DvChar *Port(const char16_t *name = u"COM1") {
    return reinterpret_cast<const DvChar *>(name);
}

class KwpConnectionTest : public ::testing::Test {
protected:
    FakeKwpEcu ecu;

    void SetUp() override {
        dv::bench::FakeInstall();
        Fake().echoWrites = true;
        Fake().breakEchoes = true;
        ASSERT_EQ(ConstructLibrary(2), 0u);
        ecu.Install();
    }

    void TearDown() override {
        if (dv::PortIsOpen()) {
            dv::PortClose();
        }
        DvDestruct();
        dv::bench::FakeUninstall();
    }

    static int64_t Ms(int64_t ms) { return ms * kFakeTicksPerMs; }

    // The ECU's answer to a five-baud address that starts at `start`: sync 50 ms after the
    // address, key bytes 10 and 15 ms after it. Returns the time key byte 2 is queued.
    static int64_t QueueKeyBytes(int64_t start, uint8_t kb1, uint8_t kb2, uint8_t sync = 0x55) {
        const int64_t syncAt = start + Ms(kAddressMs + 50);
        Fake().QueueInputAt(syncAt, {sync});
        Fake().QueueInputAt(syncAt + Ms(10), {kb1});
        Fake().QueueInputAt(syncAt + Ms(15), {kb2});
        return syncAt + Ms(15);
    }

    // Opens the fake port as the connect does, for calling the init steps directly.
    void OpenPort(uint32_t level = 3) {
        ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 1024, 1024), 0u);
        DvSetMessagesLevel(level);
        Fake().events.clear();
        LogCaptureReset();
    }

    // A connected link as after a fast start to target 0x10 with key bytes DF 8F.
    void Connected(uint32_t mode = 1) {
        ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 1024, 1024), 0u);
        dv::PortSetByteDelay(10);
        dv::IsoLink &link = dv::IsoLinkState();
        link.keyByte1 = 0xDF;
        link.keyByte2 = 0x8F;
        link.targetAddress = 0x10;
        link.initAddress = 0x01;
        link.connectMode = mode;
        link.connected = 1;
        link.startTick = dv::TickCount();
        dv::IsoLoadDefaultTiming();
        Fake().events.clear();
        LogCaptureReset();
    }

    static std::vector<uint32_t> Sleeps() {
        std::vector<uint32_t> ms;
        for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::Sleep)) {
            if (event->value != 1 && event->value != 180 && event->value != 80 &&
                event->value != 5) { // polls and the slow bits' sleeps
                ms.push_back(event->value);
            }
        }
        return ms;
    }

    static const FakeEvent *LastTimeouts() {
        return Fake().EventsOf(FakeEvent::Kind::SetTimeouts).back();
    }
};

// ---- five-baud initialisation ------------------------------------------------------------------

TEST_F(KwpConnectionTest, SlowInitAnswersKeyByte2AndChecksTheInvertedAddress) {
    OpenPort();
    const int64_t start = Fake().now;
    const int64_t kb2At = QueueKeyBytes(start, 0xDF, 0x8F);
    ecu.addressAnswer = 0xFE;
    EXPECT_EQ(dv::IsoSlowInit(0x01), 0u);
    EXPECT_EQ(dv::IsoLinkState().keyByte1, 0xDF);
    EXPECT_EQ(dv::IsoLinkState().keyByte2, 0x8F);
    // The inverted key byte 2 goes out alone 37 ms after key byte 2, with byte delay 0.
    const auto writes = Fake().EventsOf(FakeEvent::Kind::Write);
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(Hex(writes[0]->bytes), "70");
    EXPECT_EQ(writes[0]->at - kb2At, Ms(37));
    // The address 0x01: start 0, data 1 0 0 0 0 0 0, parity 0, stop 1: two falling edges, so
    // two echo bytes read at once (deadline 0), then the deadlines 400, 20, 20, 25, 50 (+ 1).
    std::vector<uint32_t> constants;
    for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::SetTimeouts)) {
        constants.push_back(event->timeouts.readConstant);
    }
    EXPECT_EQ(constants, (std::vector<uint32_t>{0, 401, 21, 21, 26, 51}));
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 6u);
    EXPECT_EQ(Hex(reads[0]->bytes), "00 00");
    EXPECT_EQ(reads[0]->at - start, Ms(kAddressMs));
    EXPECT_EQ(Hex(reads[5]->bytes), "FE");
    const std::string log = LogText();
    EXPECT_NE(log.find("\r\nBaud Rate Synch Byte is Ok"), std::string::npos);
    EXPECT_NE(log.find("\r\nKey Bytes are Ok"), std::string::npos);
    EXPECT_EQ(log.find("\r\n<<< [1] '70'"), log.find("<<< [1] '70'") - 2);
}

TEST_F(KwpConnectionTest, SlowInitAcceptsTheAddressAnswerByItsLow7Bits) {
    OpenPort();
    QueueKeyBytes(Fake().now, 0xDF, 0x8F);
    ecu.addressAnswer = 0x7E; // ~0x01 = 0xFE, low 7 bits equal
    EXPECT_EQ(dv::IsoSlowInit(0x01), 0u);
}

TEST_F(KwpConnectionTest, SlowInitWrongInvertedAddressGives12) {
    OpenPort();
    QueueKeyBytes(Fake().now, 0xDF, 0x8F);
    ecu.addressAnswer = 0xEF;
    EXPECT_EQ(dv::IsoSlowInit(0x01), 12u);
    EXPECT_NE(LogText().find("\r\nBad ECU address echo : 'EF' vs 'FE'"), std::string::npos);
}

TEST_F(KwpConnectionTest, SlowInitWithoutSyncByteGives8) {
    OpenPort();
    const int64_t start = Fake().now;
    EXPECT_EQ(dv::IsoSlowInit(0x01), 8u);
    EXPECT_NE(LogText().find("\r\nNo ECU data"), std::string::npos);
    EXPECT_EQ(Fake().now - start, Ms(kAddressMs + 401));
}

TEST_F(KwpConnectionTest, SlowInitBadSyncByteGives9) {
    OpenPort();
    QueueKeyBytes(Fake().now, 0xDF, 0x8F, 0x54);
    EXPECT_EQ(dv::IsoSlowInit(0x01), 9u);
    EXPECT_NE(LogText().find("\r\nBad Baud Rate Synch Byte: '54' vs '55'"), std::string::npos);
}

TEST_F(KwpConnectionTest, SlowInitObd2KeyBytesGive10) {
    for (uint8_t kb : {0x94, 0x80}) {
        OpenPort();
        QueueKeyBytes(Fake().now, kb, kb);
        EXPECT_EQ(dv::IsoSlowInit(0x01), 10u);
        EXPECT_NE(LogText().find("\r\nOBD2 is not supported yet"), std::string::npos);
        EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Write).empty());
        dv::PortClose();
    }
}

TEST_F(KwpConnectionTest, SlowInitBadKeyByte2PrintsKeyByte2First) {
    OpenPort();
    QueueKeyBytes(Fake().now, 0xDF, 0x8E);
    EXPECT_EQ(dv::IsoSlowInit(0x01), 10u);
    EXPECT_NE(LogText().find("\r\nBad Key Bytes : '8EDF'"), std::string::npos);
}

TEST_F(KwpConnectionTest, SlowInitBadKeyByte1Gives10) {
    // No timing bit; both timing bits; no length bit; no header bit.
    for (uint8_t kb1 : {0x8F, 0xBF, 0xDC, 0xD3}) {
        OpenPort();
        QueueKeyBytes(Fake().now, kb1, 0x8F);
        EXPECT_EQ(dv::IsoSlowInit(0x01), 10u) << int{kb1};
        char line[40];
        std::snprintf(line, sizeof line, "\r\nBad Key Byte 1 : '%02X'", kb1);
        EXPECT_NE(LogText().find(line), std::string::npos);
        dv::PortClose();
    }
}

TEST_F(KwpConnectionTest, SlowInitMissingEchoOfKeyByte2Gives6) {
    OpenPort();
    Fake().echoWrites = false;
    QueueKeyBytes(Fake().now, 0xDF, 0x8F);
    EXPECT_EQ(dv::IsoSlowInit(0x01), 6u);
    EXPECT_NE(LogText().find("\r\nNo adapter echo"), std::string::npos);
}

TEST_F(KwpConnectionTest, SlowInitWrongEchoOfKeyByte2IsOnlyReported) {
    OpenPort();
    Fake().echoWrites = false;
    Fake().onWrite = [](FakeLine &line, const Bytes &) {
        line.QueueInputAt(line.now + line.ByteTicks(), {0x71});
        line.QueueInputAt(line.now + Ms(30), {0xFE});
    };
    QueueKeyBytes(Fake().now, 0xDF, 0x8F);
    EXPECT_EQ(dv::IsoSlowInit(0x01), 0u);
    EXPECT_NE(LogText().find("\r\nBad adapter echo : '71' vs '70'"), std::string::npos);
}

TEST_F(KwpConnectionTest, SlowInitMissingAddressEchoGives6) {
    OpenPort();
    Fake().breakEchoes = false;
    // A status that reports one queued byte but no byte to read: the echo count stays 2.
    Fake().QueueInputAt(Fake().now + Ms(100), {0x00});
    EXPECT_EQ(dv::IsoSlowInit(0x01), 6u);
    EXPECT_NE(LogText().find("\r\nNo adapter echo"), std::string::npos);
}

TEST_F(KwpConnectionTest, SlowInitMissingKeyByteResetsWith280msSyncWait) {
    OpenPort();
    const int64_t start = Fake().now;
    const int64_t syncAt = start + Ms(kAddressMs + 50);
    Fake().QueueInputAt(syncAt, {0x55}); // then silence: key byte 1 missing
    QueueKeyBytes(syncAt + Ms(21 + 100 - kAddressMs - 50), 0xDF, 0x8F);
    ecu.addressAnswer = 0xFE;
    EXPECT_EQ(dv::IsoSlowInit(0x01), 0u);
    const std::string log = LogText();
    EXPECT_NE(log.find("\r\nNo ECU data\r\n\r\nResetting\r\n\r\n"), std::string::npos);
    std::vector<uint32_t> constants;
    for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::SetTimeouts)) {
        constants.push_back(event->timeouts.readConstant);
    }
    // The address is not sent again: the second sync is waited for 280 ms.
    EXPECT_EQ(constants, (std::vector<uint32_t>{0, 401, 21, 281, 21, 21, 26, 51}));
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Escape).size(), 20u); // one address only
}

TEST_F(KwpConnectionTest, SlowInitMissingAddressAnswerResetsWith250msSyncWait) {
    OpenPort();
    const int64_t start = Fake().now;
    const int64_t kb2At = QueueKeyBytes(start, 0xDF, 0x8F);
    // First 0x70 at kb2 + 37 unanswered (miss 51 ms later), the second sync 100 ms after it.
    const int64_t second = kb2At + Ms(37 + 51 + 100);
    Fake().QueueInputAt(second, {0x55});
    Fake().QueueInputAt(second + Ms(10), {0xDF});
    Fake().QueueInputAt(second + Ms(15), {0x8F});
    ecu.addressAnswer = 0xFE;
    ecu.addressAnswerSkips = 1;
    EXPECT_EQ(dv::IsoSlowInit(0x01), 0u);
    EXPECT_EQ(ecu.singleBytes, 2);
    std::vector<uint32_t> constants;
    for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::SetTimeouts)) {
        constants.push_back(event->timeouts.readConstant);
    }
    EXPECT_EQ(constants, (std::vector<uint32_t>{0, 401, 21, 21, 26, 51, 251, 21, 21, 26, 51}));
    EXPECT_EQ(Occurrences(LogText(), "\r\n\r\nResetting\r\n\r\n"), 1u);
}

TEST_F(KwpConnectionTest, SlowInitSixteenMissesSleep280AndGive8) {
    OpenPort();
    const int64_t start = Fake().now;
    // A sync byte every 50 ms and never a key byte: each key byte read misses after 21 ms.
    for (int i = 0; i < 16; ++i) {
        Fake().QueueInputAt(start + Ms(kAddressMs + 50 + 50 * i), {0x55});
    }
    EXPECT_EQ(dv::IsoSlowInit(0x01), 8u);
    const std::string log = LogText();
    EXPECT_EQ(Occurrences(log, "\r\nNo ECU data"), 16u);
    EXPECT_EQ(Occurrences(log, "\r\n\r\nResetting\r\n\r\n"), 15u);
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{280});
    // The last miss at the 16th sync + 21 ms, then the sleep.
    EXPECT_EQ(Fake().now - start, Ms(kAddressMs + 50 + 50 * 15 + 21 + 280));
}

TEST_F(KwpConnectionTest, SlowInitSixteenAddressMissesSleep250AndGive8) {
    OpenPort();
    int64_t kb2At = QueueKeyBytes(Fake().now, 0xDF, 0x8F);
    for (int i = 1; i < 16; ++i) {
        const int64_t next = kb2At + Ms(37 + 51 + 100);
        Fake().QueueInputAt(next, {0x55});
        Fake().QueueInputAt(next + Ms(10), {0xDF});
        Fake().QueueInputAt(next + Ms(15), {0x8F});
        kb2At = next + Ms(15);
    }
    EXPECT_EQ(dv::IsoSlowInit(0x01), 8u);
    EXPECT_EQ(ecu.singleBytes, 16);
    EXPECT_EQ(Occurrences(LogText(), "\r\n\r\nResetting\r\n\r\n"), 15u);
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{250});
    // The inverted key byte 2, its echo one byte time later, 51 ms for the answer, the sleep.
    EXPECT_EQ(Fake().now - kb2At, Ms(37 + 51 + 250) + Fake().ByteTicks());
}

// ---- slow connect ----------------------------------------------------------------------------

TEST_F(KwpConnectionTest, SlowConnectWithNormalTimingLoadsIsoDefaultTiming) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.P2max = 100;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    const int64_t t0 = Fake().now;
    const int64_t kb2At = QueueKeyBytes(t0 + Ms(kPortOpenMs), 0xDF, 0x8F);
    ecu.addressAnswer = 0xFE;
    uint32_t keepAlive = 0;
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, &keepAlive), 0u);
    EXPECT_EQ(keepAlive, 4945u);
    const dv::IsoLink &link = dv::IsoLinkState();
    EXPECT_EQ(link.timing.P2max, 50u);
    EXPECT_EQ(link.timing.P3min, 55u);
    EXPECT_EQ(link.connected, 1u);
    EXPECT_EQ(link.connectMode, 0u);
    EXPECT_EQ(link.targetAddress, 0x01);
    EXPECT_EQ(link.initAddress, 0x01);
    EXPECT_EQ(Fake().inQueueSize, 1024u);
    EXPECT_EQ(Fake().baud, 10400u);
    // The address answer at kb2 + 37 + 30 ms, then 55 ms busy-waited.
    EXPECT_EQ(Fake().now - kb2At, Ms(37 + 30 + 55));
    EXPECT_EQ(LogText(), "\r\n\r\nConnecting to ECU at address 01h with slow connect\r\n"
                         "\r\n\r\nConnected successfully\r\n");
    EXPECT_EQ(LogCalls().size(), 2u);
    // Requests now go out 10 ms a byte.
    ecu.replies.push_back({{25, EcuMessage({0x7E}, 0xF1, 0x01)}});
    uint8_t request = 0x3E;
    uint32_t length = 0;
    uint8_t *data = nullptr;
    ASSERT_EQ(dv::IsoExchange(1, &request, &length, &data), 0u);
    EXPECT_EQ(Hex(ecu.requests[0]), "81 01 F1 3E B1");
}

TEST_F(KwpConnectionTest, SlowConnectWithExtendedTimingKeepsTheSettingsTiming) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.P2max = 100;
    settings.P1max = 30;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    QueueKeyBytes(Fake().now + Ms(kPortOpenMs), 0xEF, 0x8F);
    ecu.addressAnswer = 0xFE;
    uint32_t keepAlive = 0;
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, &keepAlive), 0u);
    const dv::IsoTiming &timing = dv::IsoLinkState().timing;
    EXPECT_EQ(timing.P1max, 30u);
    EXPECT_EQ(timing.P2min, 35u);
    EXPECT_EQ(timing.P2max, 100u);
    EXPECT_EQ(timing.P3min, 105u);
    EXPECT_EQ(keepAlive, 4895u);
    // And the settings keep reaching the live timing.
    settings.P2max = 200;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(timing.P2max, 200u);
    EXPECT_EQ(timing.P3min, 205u);
}

TEST_F(KwpConnectionTest, SlowConnectRetriesObd2KeyBytesWith3000msPauses) {
    const int64_t t0 = Fake().now;
    int64_t start = t0 + Ms(kPortOpenMs);
    for (int i = 0; i < 3; ++i) {
        const int64_t failAt = QueueKeyBytes(start, 0x94, 0x94);
        start = failAt + Ms(3000);
    }
    uint32_t keepAlive = 0;
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, &keepAlive), 10u);
    const std::string log = LogText();
    EXPECT_EQ(Occurrences(log, "\r\nOBD2 is not supported yet"), 3u);
    EXPECT_EQ(Occurrences(log, "\r\n\r\nRetrying to connect to ECU\r\n\r\n"), 2u);
    EXPECT_EQ(log.find("Connected successfully"), std::string::npos);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 3000, 3000, 3000}));
    EXPECT_EQ(Fake().now, start); // the last pause ends the attempts
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_EQ(dv::IsoLinkState().connected, 0u);
    // All three attempts ran in one exchange section: one callback call for them.
    EXPECT_EQ(LogCalls().size(), 2u);
}

TEST_F(KwpConnectionTest, SlowConnectSilentEcuGives8After2700msPauses) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.isoConnectAttempts = 2;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 8u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 2700, 2700}));
    EXPECT_EQ(Occurrences(LogText(), "\r\nNo ECU data"), 2u);
    EXPECT_FALSE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, SlowConnectReportsTheLast9Or10Or12Over8) {
    // Attempt 1: bad sync (9); attempt 2: silence (8); attempt 3: silence (8): reported 9.
    QueueKeyBytes(Fake().now + Ms(kPortOpenMs), 0xDF, 0x8F, 0x54);
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 9u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 3000, 2700, 2700}));
}

TEST_F(KwpConnectionTest, SlowConnectOtherFailureSleeps3000AndReturnsAtOnce) {
    Fake().Fail(FakeCall::Escape, 3, 21); // the address's second bit
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 5u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 3000}));
    EXPECT_FALSE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, SlowConnectFailedExchangeBeginClosesThePort) {
    Fake().Fail(FakeCall::GetPriority, 1, 5);
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 1u);
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Close).size(), 1u);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Escape).empty());
}

TEST_F(KwpConnectionTest, FastConnectFailedWakeUpSleeps600AndCloses) {
    Fake().Fail(FakeCall::Escape, 1, 31);
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 5u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 600}));
    EXPECT_FALSE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, FastConnectFailedReadSleeps600AndCloses) {
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    Fake().Fail(FakeCall::Read, 3, 31); // wake-up echo, message echo, then the answer
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 5u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 600}));
    EXPECT_FALSE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, SlowConnectMissingPortGives5) {
    Fake().missingPorts.push_back(u"COM9");
    EXPECT_EQ(DvIsoStartCommunication(Port(u"COM9"), 0, 0x01, nullptr), 5u);
    EXPECT_NE(LogText().find("Could not open communication port 'COM9' (0x00000002)"),
              std::string::npos);
}

TEST_F(KwpConnectionTest, SlowConnectToAddress0x80IsSimulatedWithoutPort) {
    const int64_t t0 = Fake().now;
    uint32_t keepAlive = 0;
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x80, &keepAlive), 0u);
    EXPECT_EQ(Fake().now - t0, Ms(2000));
    EXPECT_EQ(Fake().CallCount(FakeCall::Open), 0);
    EXPECT_EQ(keepAlive, 4945u);
    // DvIsoStartCommunication keeps target 0x80: not the simulated link.
    EXPECT_EQ(dv::IsoLinkState().targetAddress, 0x80);
    EXPECT_FALSE(dv::IsoIsSimulated());
    EXPECT_EQ(LogText(), "\r\n\r\nConnecting to ECU at address 80h with slow connect\r\n"
                         "\r\n\r\nConnected successfully\r\n");
}

// ---- fast initialisation and connect -----------------------------------------------------------

TEST_F(KwpConnectionTest, FastConnectModule01SendsStartCommunicationAfterWakeUp) {
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    const int64_t t0 = Fake().now;
    uint32_t keepAlive = 0;
    EXPECT_EQ(DvVagIsoStartCommunication(Port(), 1, 0x01, &keepAlive), 0u);
    ASSERT_EQ(ecu.requests.size(), 1u);
    EXPECT_EQ(Hex(ecu.requests[0]), "81 10 F1 81 03");
    // Wake-up: break and RTS for 25 ms, released for 25 ms, then the first byte.
    const auto escapes = Fake().EventsOf(FakeEvent::Kind::Escape);
    ASSERT_GE(escapes.size(), 4u);
    EXPECT_EQ(escapes[0]->value, static_cast<uint32_t>(dv::Escape::SetBreak));
    EXPECT_EQ(escapes[1]->value, static_cast<uint32_t>(dv::Escape::SetRts));
    EXPECT_EQ(escapes[2]->value, static_cast<uint32_t>(dv::Escape::ClrBreak));
    EXPECT_EQ(escapes[3]->value, static_cast<uint32_t>(dv::Escape::ClrRts));
    EXPECT_EQ(escapes[0]->at - t0, Ms(kPortOpenMs));
    EXPECT_EQ(escapes[2]->at - escapes[0]->at, Ms(25));
    const auto writes = Fake().EventsOf(FakeEvent::Kind::Write);
    ASSERT_EQ(writes.size(), 5u);
    EXPECT_EQ(writes[0]->at - escapes[0]->at, Ms(50));
    EXPECT_EQ(writes[4]->at - writes[0]->at, Ms(40));
    const dv::IsoLink &link = dv::IsoLinkState();
    EXPECT_EQ(link.keyByte1, 0xDF);
    EXPECT_EQ(link.keyByte2, 0x8F);
    EXPECT_EQ(link.targetAddress, 0x10);
    EXPECT_EQ(link.initAddress, 0x01);
    EXPECT_EQ(link.connectMode, 1u);
    EXPECT_EQ(link.servicesRequested, 1u);
    EXPECT_EQ(link.response.inUse, 0);
    EXPECT_EQ(keepAlive, 4945u);
    EXPECT_EQ(LogText(), "\r\n\r\nConnecting to ECU at address 10h with fast connect\r\n"
                         "\r\nConnected successfully");
}

TEST_F(KwpConnectionTest, FastInitReadsTheWakeUpEchoThenTheMessageEcho) {
    OpenPort(4);
    dv::PortSetByteDelay(10);
    dv::IsoLoadDefaultTiming();
    EXPECT_EQ(dv::IsoFastInit(0x10), 0u);
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(Hex(reads[0]->bytes), "00");
    EXPECT_EQ(Hex(reads[1]->bytes), "81 10 F1 81 03");
    const auto timeouts = Fake().EventsOf(FakeEvent::Kind::SetTimeouts);
    ASSERT_EQ(timeouts.size(), 2u);
    EXPECT_EQ(timeouts[0]->timeouts.readInterval, 0xFFFFFFFFu); // at once
    EXPECT_EQ(timeouts[1]->timeouts.readConstant, 6u);          // P2min - P4max
}

TEST_F(KwpConnectionTest, FastInitWithoutWakeUpEchoCountPurgesTheInput) {
    OpenPort();
    // Two bytes more than the break's own echo arrive while the line is low: echo unknown.
    Fake().QueueInputAt(Fake().now + Ms(5), {0x00, 0x00});
    dv::PortSetByteDelay(10);
    EXPECT_EQ(dv::IsoFastInit(0x10), 0u);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Read).empty());
    const auto purges = Fake().EventsOf(FakeEvent::Kind::Purge);
    ASSERT_EQ(purges.size(), 2u);
    EXPECT_EQ(purges[1]->value, dv::kPurgeRxClear);
}

TEST_F(KwpConnectionTest, FastInitMissingEchoGives6) {
    OpenPort();
    Fake().echoWrites = false;
    dv::PortSetByteDelay(10);
    EXPECT_EQ(dv::IsoFastInit(0x10), 6u);
    EXPECT_NE(LogText().find("\r\nNo adapter echo"), std::string::npos);
}

TEST_F(KwpConnectionTest, FastInitWrongEchoIsOnlyReported) {
    OpenPort();
    Fake().echoWrites = false;
    Fake().onWrite = [](FakeLine &line, const Bytes &bytes) {
        line.QueueInputAt(line.now + line.ByteTicks(), {static_cast<uint8_t>(bytes[0] ^ 2)});
    };
    dv::PortSetByteDelay(10);
    EXPECT_EQ(dv::IsoFastInit(0x10), 0u);
    EXPECT_NE(LogText().find("\r\nBad adapter echo"), std::string::npos);
}

struct BadStart {
    const char *name;
    Bytes answer;
    uint32_t result;
    const char *line;
};

class KwpBadStartTest : public KwpConnectionTest, public ::testing::WithParamInterface<BadStart> {};

TEST_P(KwpBadStartTest, FastConnectRefusesTheAnswerAndClosesThePort) {
    const BadStart &bad = GetParam();
    ecu.replies.push_back({{25, EcuMessage(bad.answer)}});
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), bad.result);
    EXPECT_NE(LogText().find(std::string("\r\n") + bad.line), std::string::npos) << LogText();
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 545}));
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 0);
    EXPECT_EQ(dv::IsoLinkState().servicesRequested, 1u);
    EXPECT_EQ(dv::IsoLinkState().connected, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Part52, KwpBadStartTest,
    ::testing::Values(
        BadStart{"ServiceId", {0x7F, 0x81, 0x10}, 13, "Bad service id : '7F' vs 'C1'"},
        BadStart{"KeyByte2", {0xC1, 0xDF, 0x8E}, 10, "Bad Key Bytes : '8EDF'"},
        BadStart{"Obd2KeyBytes", {0xC1, 0x94, 0x94}, 10, "Bad Key Bytes : '9494'"},
        BadStart{"KeyByte1", {0xC1, 0x8F, 0x8F}, 10, "Bad Key Byte 1 : '8F'"},
        BadStart{"ShortAnswer", {0xC1}, 10, "Bad Key Bytes : '0000'"}),
    [](const ::testing::TestParamInfo<BadStart> &info) { return info.param.name; });

TEST_F(KwpConnectionTest, FastConnectSilentEcuGives8After550msPauses) {
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 8u);
    EXPECT_EQ(ecu.requests.size(), 3u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 550, 550, 550}));
    EXPECT_EQ(Occurrences(LogText(), "\r\nRetrying to connect to ECU"), 2u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 2u);
    EXPECT_FALSE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, FastConnectReports12Over8) {
    ecu.replies.push_back({{25, {0x41, 0x00}}}); // bad addressing, then silence
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 12u);
    EXPECT_EQ(ecu.requests.size(), 3u);
}

TEST_F(KwpConnectionTest, FastConnectSecondAttemptSucceeds) {
    ecu.replies.push_back({});
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xEF, 0x8F})}});
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 0u);
    EXPECT_EQ(dv::IsoLinkState().repeats, 1u);
    EXPECT_EQ(dv::IsoLinkState().servicesRequested, 1u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 550}));
}

TEST_F(KwpConnectionTest, FastConnectTimingByKeyByte1) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.P2max = 100;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xEF, 0x8F})}});
    ASSERT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 0u);
    EXPECT_EQ(dv::IsoLinkState().timing.P2max, 100u); // bit 5: settings timing
    EXPECT_EQ(dv::IsoLinkState().timing.P3min, 105u);
    dv::PortClose();
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ASSERT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 0u);
    EXPECT_EQ(dv::IsoLinkState().timing.P2max, 50u); // bit 4: ISO default timing
    EXPECT_EQ(dv::IsoLinkState().timing.P3min, 55u);
}

TEST_F(KwpConnectionTest, FastConnectAnswerWaitUsesTheSettingsTiming) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.P2max = 100;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    // 70 ms after the request: too late for P2max 50, in time for 100.
    ecu.replies.push_back({{70, EcuMessage({0xC1, 0xDF, 0x8F})}});
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 0u);
    EXPECT_EQ(ecu.requests.size(), 1u);
}

// ---- module address map --------------------------------------------------------------------

TEST_F(KwpConnectionTest, UnknownModuleGives2AndOpensNoPort) {
    EXPECT_EQ(DvVagIsoStartCommunication(Port(), 1, 0x04, nullptr), 2u);
    EXPECT_EQ(Fake().CallCount(FakeCall::Open), 0);
    EXPECT_EQ(LogText(), "\r\nTarget address is unkown : 0x04");
}

TEST_F(KwpConnectionTest, ModuleAddressMapIsTheTable) {
    const std::vector<std::pair<uint32_t, uint8_t>> map = {
        {0x01, 0x10}, {0x02, 0x1A}, {0x03, 0x28}, {0x06, 0xA5}, {0x08, 0x98}, {0x09, 0xA4},
        {0x11, 0x11}, {0x12, 0x1B}, {0x13, 0x29}, {0x15, 0x58}, {0x16, 0x30}, {0x17, 0x61},
        {0x22, 0x1C}, {0x25, 0xC0}, {0x26, 0xA0}, {0x34, 0x38}, {0x35, 0xC1}, {0x36, 0xA1},
        {0x37, 0x62}, {0x44, 0x31}, {0x45, 0xC2}, {0x46, 0xA2}, {0x47, 0x81}, {0x55, 0x70},
        {0x56, 0x80}, {0x61, 0x42}, {0x65, 0x3A}, {0x71, 0x43}, {0x75, 0x90}, {0x76, 0x60},
        {0x80, 0xFF}};
    for (const auto &[module, target] : map) {
        uint8_t got = 0;
        EXPECT_EQ(dv::IsoMapTargetAddress(module, &got), 0u);
        EXPECT_EQ(got, target) << module;
    }
    uint32_t known = 0;
    for (uint32_t module = 0; module < 0x200; ++module) {
        uint8_t got = 0;
        known += dv::IsoMapTargetAddress(module, &got) == 0 ? 1 : 0;
    }
    EXPECT_EQ(known, 31u);
    uint8_t got = 0;
    EXPECT_EQ(dv::IsoMapTargetAddress(0x101, &got), 2u); // no truncation to 0x01
}

TEST_F(KwpConnectionTest, SlowVagStartInitialisesWithTheModuleAddress) {
    const int64_t kb2At = QueueKeyBytes(Fake().now + Ms(kPortOpenMs), 0xDF, 0x8F);
    (void)kb2At;
    ecu.addressAnswer = 0xFE; // ~0x01
    EXPECT_EQ(DvVagIsoStartCommunication(Port(), 0, 0x01, nullptr), 0u);
    EXPECT_EQ(dv::IsoLinkState().initAddress, 0x01);
    EXPECT_EQ(dv::IsoLinkState().targetAddress, 0x10);
    // The address 0x01 went out: start 0, data 1 0 0 0 0 0 0, parity 0, stop 1.
    size_t breaks = 0;
    for (const FakeEvent *e : Fake().EventsOf(FakeEvent::Kind::Escape)) {
        breaks += e->value == static_cast<uint32_t>(dv::Escape::SetBreak) ? 1 : 0;
    }
    EXPECT_EQ(breaks, 8u); // every '0' bit sets break: start, six data 0s, parity
}

TEST_F(KwpConnectionTest, SimulatorModuleGivesSimulatedLinkAndResetsTheSimulator) {
    for (uint32_t mode : {0u, 1u}) {
        dv::VagIsoSimulatorState().dtcSet1 = false;
        dv::VagIsoSimulatorState().actuator = 1262;
        dv::VagIsoSimulatorState().stepFlag = 1;
        dv::IsoLinkState().sessionMode = 0x89;
        const int64_t t0 = Fake().now;
        uint32_t keepAlive = 0;
        EXPECT_EQ(DvVagIsoStartCommunication(Port(), mode, 0x80, &keepAlive), 0u);
        EXPECT_EQ(Fake().now - t0, Ms(mode == 0 ? 2000 : 100));
        EXPECT_TRUE(dv::IsoIsSimulated());
        EXPECT_EQ(dv::IsoLinkState().connected, 1u);
        EXPECT_EQ(dv::IsoLinkState().sessionMode, 0x89); // left as it is
        EXPECT_TRUE(dv::VagIsoSimulatorState().dtcSet1);
        EXPECT_TRUE(dv::VagIsoSimulatorState().dtcSet2);
        EXPECT_EQ(dv::VagIsoSimulatorState().actuator, 0);
        EXPECT_EQ(dv::VagIsoSimulatorState().stepFlag, 0);
        EXPECT_EQ(keepAlive, 4945u);
        EXPECT_EQ(Fake().CallCount(FakeCall::Open), 0);
    }
}

TEST_F(KwpConnectionTest, IsoStartClearsTheSessionMode) {
    dv::IsoLinkState().sessionMode = 0x89;
    EXPECT_EQ(DvIsoStartCommunication(Port(), 1, 0xFF, nullptr), 0u);
    EXPECT_EQ(dv::IsoLinkState().sessionMode, 0);
    EXPECT_TRUE(dv::IsoIsSimulated());
}

// ---- stop --------------------------------------------------------------------------------------

TEST_F(KwpConnectionTest, StoppingASimulatedLinkSleeps100msAndPrintsTheStatistics) {
    ASSERT_EQ(DvVagIsoStartCommunication(Port(), 1, 0x80, nullptr), 0u);
    LogCaptureReset();
    Fake().events.clear();
    DvIsoStopCommunication();
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{100});
    EXPECT_EQ(Fake().events.size(), 1u); // the sleep: no port call
    EXPECT_EQ(LogText(), "\r\n\r\nDisconnecting from ECU\r\n"
                         "\r\n\r\nDisconnected\r\n"
                         "\r\n\r\nConnection duration - 0 sec\r\nServices requested - 0, "
                         "repeats - 0 (0 %)\r\nRestarts - 0\r\n");
    EXPECT_EQ(dv::IsoLinkState().connected, 0u);
}

TEST_F(KwpConnectionTest, StopSendsStopCommunicationAndClosesOnPositiveAnswer) {
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ASSERT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 0u);
    dv::IsoLinkState().repeats = 1; // as if one request had been repeated
    ecu.replies.push_back({{25, EcuMessage({0xC2})}});
    dv::SleepMs(2500);
    LogCaptureReset();
    Fake().events.clear();
    DvIsoStopCommunication();
    ASSERT_EQ(ecu.requests.size(), 2u);
    EXPECT_EQ(Hex(ecu.requests[1]), "81 10 F1 82 04");
    EXPECT_TRUE(Sleeps().empty());
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_EQ(dv::IsoLinkState().request.inUse, 0);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 0);
    // Start: 50 + 50 wake-up + ~80 exchange; 2500 slept; the stop exchange: under 3 s.
    EXPECT_EQ(LogCalls().back(), "\r\n\r\nConnection duration - 2 sec\r\nServices requested - 2, "
                                 "repeats - 1 (50 %)\r\nRestarts - 0\r\n");
    EXPECT_EQ(LogCalls()[0], "\r\n\r\nDisconnecting from ECU\r\n");
    EXPECT_EQ(dv::IsoLinkState().connected, 0u);
}

TEST_F(KwpConnectionTest, StopAfterNegativeAnswerSleeps9945msBeforeClosing) {
    Connected();
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x82, 0x11})}});
    DvIsoStopCommunication();
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{9945});
    const auto sleeps = Fake().EventsOf(FakeEvent::Kind::Sleep);
    const auto closes = Fake().EventsOf(FakeEvent::Kind::Close);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0]->at - sleeps.back()->at, Ms(9945));
    EXPECT_EQ(LogText().find("Bad service id"), std::string::npos);
    EXPECT_NE(LogText().find("\r\nConnection duration - 10 sec\r\n"), std::string::npos);
}

TEST_F(KwpConnectionTest, StopAfterWrongAnswerLogsAndSleeps9945ms) {
    Connected();
    ecu.replies.push_back({{25, EcuMessage({0xC1})}});
    DvIsoStopCommunication();
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{9945});
    EXPECT_NE(LogText().find("\r\nBad service id : 'C1' vs 'C2'"), std::string::npos);
    EXPECT_FALSE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, StopWithSilentEcuSleeps9945msAfterTheRepeats) {
    Connected();
    DvIsoStopCommunication();
    EXPECT_EQ(ecu.requests.size(), 3u);
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{9945});
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_EQ(dv::IsoLinkState().request.inUse, 0);
    EXPECT_NE(LogText().find("Services requested - 0, repeats - 2 (0 %)"), std::string::npos);
}

TEST_F(KwpConnectionTest, StopOfALostLinkOnlyClosesThePort) {
    Connected();
    dv::IsoLinkState().connected = 2;
    DvIsoStopCommunication();
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Write).empty());
    EXPECT_TRUE(Sleeps().empty());
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Close).size(), 1u);
    EXPECT_NE(LogText().find("\r\n\r\nDisconnected\r\n"), std::string::npos);
    EXPECT_EQ(dv::IsoLinkState().connected, 0u);
}

// ---- restart and session restore ---------------------------------------------------------------

TEST_F(KwpConnectionTest, FastRestartRestoresTheSession) {
    Connected(1);
    dv::IsoLinkState().sessionMode = 0x89;
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ecu.replies.push_back({{25, EcuMessage({0x50, 0x89})}});
    const int64_t t0 = Fake().now;
    EXPECT_EQ(dv::IsoRestartCommunication(), 0u);
    ASSERT_EQ(ecu.requests.size(), 2u);
    EXPECT_EQ(Hex(ecu.requests[0]), "81 10 F1 81 03");
    EXPECT_EQ(Hex(ecu.requests[1]), "82 10 F1 10 89 1C");
    EXPECT_EQ(dv::IsoLinkState().restarts, 1u);
    EXPECT_EQ(dv::IsoLinkState().servicesRequested, 2u);
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{545}); // 600 - P3min
    const auto escapes = Fake().EventsOf(FakeEvent::Kind::Escape);
    EXPECT_EQ(escapes[0]->at - t0, Ms(545));
    const std::string log = LogText();
    EXPECT_NE(log.find("\r\n\r\nReconnecting to ECU with fast connect\r\n"), std::string::npos);
    EXPECT_NE(log.find("\r\n\r\nReconnected successfully\r\n"), std::string::npos);
    EXPECT_TRUE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, FastRestartWithoutSessionSendsNoSessionRequest) {
    Connected(1);
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 0u);
    EXPECT_EQ(ecu.requests.size(), 1u);
    EXPECT_EQ(dv::IsoLinkState().restarts, 1u);
}

TEST_F(KwpConnectionTest, FailedFastRestartLeavesThePortOpen) {
    Connected(1);
    EXPECT_EQ(dv::IsoRestartCommunication(), 8u);
    EXPECT_EQ(ecu.requests.size(), 3u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{545, 550, 550, 550}));
    EXPECT_TRUE(Fake().portOpen);
    EXPECT_EQ(dv::IsoLinkState().restarts, 0u);
    EXPECT_EQ(dv::IsoLinkState().connected, 1u);
    EXPECT_EQ(Occurrences(LogText(), "\r\nRetrying to connect to ECU"), 2u);
    // The reconnect line, then one callback a section: the retry pauses end the sections.
    EXPECT_EQ(LogCalls().size(), 1u + 3u);
}

TEST_F(KwpConnectionTest, FastRestartBadKeyBytesSleeps545WithoutClosing) {
    Connected(1);
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8E})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 10u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{545, 545}));
    EXPECT_TRUE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, RestoreSessionRefusedGives0x100PlusCode) {
    Connected(1);
    dv::IsoLinkState().sessionMode = 0x89;
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ecu.replies.push_back({{25, EcuMessage({0x7F, 0x10, 0x12})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 0x112u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{545, 600}));
    EXPECT_EQ(dv::IsoLinkState().restarts, 0u);
    EXPECT_EQ(dv::IsoLinkState().request.inUse, 0);
    EXPECT_EQ(dv::IsoLinkState().response.inUse, 0);
}

TEST_F(KwpConnectionTest, RestoreSessionWrongModeGives7) {
    Connected(1);
    dv::IsoLinkState().sessionMode = 0x89;
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ecu.replies.push_back({{25, EcuMessage({0x50, 0x85})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 7u);
    EXPECT_NE(LogText().find("\r\nBad diagnostic session mode : '85' vs '89'"), std::string::npos);
}

TEST_F(KwpConnectionTest, RestoreSessionWrongServiceIdGives13) {
    Connected(1);
    dv::IsoLinkState().sessionMode = 0x89;
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ecu.replies.push_back({{25, EcuMessage({0x51, 0x89})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 13u);
    EXPECT_NE(LogText().find("\r\nBad service id : '51' vs '50'"), std::string::npos);
}

TEST_F(KwpConnectionTest, RestoreSessionSilenceReinitialisesAgain) {
    Connected(1);
    dv::IsoLinkState().sessionMode = 0x89;
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ecu.replies.push_back({}); // the session request is not answered, three times
    ecu.replies.push_back({});
    ecu.replies.push_back({});
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    ecu.replies.push_back({{25, EcuMessage({0x50, 0x89})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 0u);
    EXPECT_EQ(ecu.requests.size(), 6u);
    EXPECT_EQ(Hex(ecu.requests[4]), "81 10 F1 81 03");
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{545, 545}));
    EXPECT_EQ(dv::IsoLinkState().restarts, 1u);
}

TEST_F(KwpConnectionTest, RestoreSessionSilenceAtTheLimitSleeps545) {
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.isoConnectAttempts = 1;
    ASSERT_EQ(DvSetSettings(&settings), 0u);
    Connected(1);
    dv::IsoLinkState().sessionMode = 0x89;
    ecu.replies.push_back({{25, EcuMessage({0xC1, 0xDF, 0x8F})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 8u);
    EXPECT_EQ(ecu.requests.size(), 4u); // StartCommunication, the session request three times
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{545, 545}));
    EXPECT_EQ(dv::IsoLinkState().restarts, 0u);
}

TEST_F(KwpConnectionTest, FastRestartFailedInitSleeps600) {
    Connected(1);
    Fake().Fail(FakeCall::Escape, 1, 31);
    EXPECT_EQ(dv::IsoRestartCommunication(), 5u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{545, 600}));
    EXPECT_TRUE(Fake().portOpen);
}

TEST_F(KwpConnectionTest, FastRestartFailedExchangeBeginIsReturned) {
    Connected(1);
    Fake().Fail(FakeCall::GetPriority, 1, 5);
    EXPECT_EQ(dv::IsoRestartCommunication(), 1u);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Escape).empty());
}

TEST_F(KwpConnectionTest, SlowRestartOtherFailureSleeps3000) {
    Connected(0);
    Fake().Fail(FakeCall::Escape, 1, 31);
    EXPECT_EQ(dv::IsoRestartCommunication(), 5u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{2945, 3000}));
    EXPECT_TRUE(Fake().portOpen);
    EXPECT_EQ(dv::IsoLinkState().restarts, 0u);
}

TEST_F(KwpConnectionTest, SlowRestartReinitialisesWithTheInitAddress) {
    Connected(0);
    dv::IsoLinkState().sessionMode = 0x85;
    const int64_t start = Fake().now + Ms(2945); // 3000 - P3min
    const int64_t kb2At = QueueKeyBytes(start, 0xDF, 0x8F);
    ecu.addressAnswer = 0xFE; // ~0x01, the init address
    ecu.replies.push_back({{25, EcuMessage({0x50, 0x85})}});
    EXPECT_EQ(dv::IsoRestartCommunication(), 0u);
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{2945});
    ASSERT_EQ(ecu.requests.size(), 1u);
    EXPECT_EQ(Hex(ecu.requests[0]), "82 10 F1 10 85 18");
    // The session request's first byte: after the address answer and the 55 ms wait.
    const auto writes = Fake().EventsOf(FakeEvent::Kind::Write);
    ASSERT_GE(writes.size(), 2u);
    EXPECT_EQ(writes[1]->at - kb2At, Ms(37 + 30 + 55));
    EXPECT_EQ(writes[2]->at - writes[1]->at, Ms(10)); // byte delay 10 again
    EXPECT_EQ(dv::IsoLinkState().restarts, 1u);
    const std::string log = LogText();
    EXPECT_NE(log.find("\r\n\r\nReconnecting to ECU with slow connect\r\n"), std::string::npos);
    EXPECT_NE(log.find("\r\n\r\nReconnected successfully\r\n"), std::string::npos);
}

TEST_F(KwpConnectionTest, FailedSlowRestartRetriesWithPausesAndKeepsThePortOpen) {
    Connected(0);
    EXPECT_EQ(dv::IsoRestartCommunication(), 8u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{2945, 2700, 2700, 2700}));
    EXPECT_EQ(Occurrences(LogText(), "\r\nRetrying to connect to ECU"), 2u);
    EXPECT_TRUE(Fake().portOpen);
    EXPECT_EQ(dv::IsoLinkState().restarts, 0u);
}

} // namespace

// ---- on the bench: whole sessions with the emulated KWP2000 engine ECU ------------------------

namespace {

using dv::bench::BenchTraceBytes;
using dv::bench::BenchTraceOf;
using dv::bench::Kwp2000Profile;
using dv::bench::TraceKind;

class KwpConnectionBenchTest : public ::testing::Test {
protected:
    template <typename Change> void Install(Change change, uint32_t level = 2) {
        Kwp2000Profile profile = dv::bench::Kwp2000EngineProfile();
        change(profile);
        dv::bench::BenchInstall(dv::bench::MakeKwp2000Ecu(profile));
        ASSERT_EQ(ConstructLibrary(level), 0u);
    }
    void Install() {
        Install([](Kwp2000Profile &) {});
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

    // A session restored by a restart: the service records the mode it started.
    static uint32_t StartSession(uint8_t mode) {
        Bytes answer;
        const uint32_t result = Exchange({0x10, mode}, &answer);
        if (result == 0 && answer == Bytes{0x50, mode}) {
            dv::IsoLinkState().sessionMode = mode;
        }
        return result;
    }

    static std::string TesterBytes() { return Hex(BenchTraceBytes(TraceKind::TesterByte)); }

    static std::vector<uint32_t> Sleeps() {
        std::vector<uint32_t> ms;
        for (const auto &entry : BenchTraceOf(TraceKind::Sleep)) {
            if (entry.value != 1 && entry.value != 180 && entry.value != 80 && entry.value != 5) {
                ms.push_back(entry.value);
            }
        }
        return ms;
    }
};

TEST_F(KwpConnectionBenchTest, SlowInitSessionWithStatisticsReport) {
    Install();
    uint32_t keepAlive = 0;
    // The ECU takes its target address 0x10 as five-baud address too.
    ASSERT_EQ(DvIsoStartCommunication(Port(), 0, 0x10, &keepAlive), 0u);
    EXPECT_EQ(keepAlive, 4945u);
    const dv::IsoLink &link = dv::IsoLinkState();
    EXPECT_EQ(link.keyByte1, 0xEF); // extended timing: the settings timing (default values)
    EXPECT_EQ(link.keyByte2, 0x8F);
    EXPECT_EQ(link.timing.P2max, 50u);
    EXPECT_EQ(link.targetAddress, 0x10); // the same address for init and messages
    EXPECT_EQ(link.initAddress, 0x10);
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 0u);
    EXPECT_EQ(Hex(answer), "7E");
    EXPECT_EQ(StartSession(0x89), 0u);
    dv::bench::BenchTraceClear();
    DvIsoStopCommunication();
    EXPECT_EQ(TesterBytes(), "81 10 F1 82 04");
    EXPECT_EQ(BenchTraceOf(TraceKind::Close).size(), 1u);
    const std::string &report = LogCalls().back();
    EXPECT_EQ(report.substr(0, 26), "\r\n\r\nConnection duration - ");
    EXPECT_NE(report.find(" sec\r\nServices requested - 3, repeats - 0 (0 %)\r\nRestarts - 0\r\n"),
              std::string::npos)
        << report;
    EXPECT_EQ(link.connected, 0u);
}

TEST_F(KwpConnectionBenchTest, SlowInitOnTheLineHasTheIsoTimes) {
    Install([](Kwp2000Profile &) {}, 3);
    ASSERT_EQ(DvVagIsoStartCommunication(Port(), 0, 0x01, nullptr), 0u);
    // Sync, key bytes, the inverted key byte 2 37 ms after key byte 2, the inverted address.
    const auto heard = BenchTraceOf(TraceKind::TesterHears);
    ASSERT_GE(heard.size(), 4u);
    EXPECT_EQ(heard[0].value, 0x55u);
    EXPECT_EQ(heard[1].value, 0xEFu);
    EXPECT_EQ(heard[2].value, 0x8Fu);
    EXPECT_EQ(heard[3].value, 0xFEu);
    const auto written = BenchTraceOf(TraceKind::TesterByte);
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].value, 0x70u);
    EXPECT_EQ(written[0].at - heard[2].at, 37 * kFakeTicksPerMs);
    const std::string log = LogText();
    EXPECT_NE(log.find("\r\nBaud Rate Synch Byte is Ok"), std::string::npos);
    EXPECT_NE(log.find("\r\nKey Bytes are Ok"), std::string::npos);
    EXPECT_EQ(dv::IsoLinkState().targetAddress, 0x10);
}

TEST_F(KwpConnectionBenchTest, FastInitSessionWithStatisticsReport) {
    Install();
    uint32_t keepAlive = 0;
    ASSERT_EQ(DvVagIsoStartCommunication(Port(), 1, 0x01, &keepAlive), 0u);
    EXPECT_EQ(TesterBytes(), "81 10 F1 81 03");
    // The wake-up: the line low 25 ms, high 25 ms, then StartCommunication.
    const auto low = BenchTraceOf(TraceKind::LineLow);
    const auto high = BenchTraceOf(TraceKind::LineHigh);
    const auto written = BenchTraceOf(TraceKind::TesterByte);
    ASSERT_EQ(low.size(), 1u);
    ASSERT_EQ(high.size(), 1u);
    EXPECT_EQ(high[0].at - low[0].at, 25 * kFakeTicksPerMs);
    EXPECT_EQ(written[0].at - low[0].at, 50 * kFakeTicksPerMs);
    EXPECT_EQ(keepAlive, 4945u);
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 0u);
    EXPECT_EQ(Exchange({0x21, 0x02}, &answer), 0u);
    EXPECT_EQ(Hex(Bytes(answer.begin(), answer.begin() + 2)), "61 02");
    DvIsoStopCommunication();
    EXPECT_NE(LogText().find("\r\n\r\nDisconnected\r\n\r\n\r\nConnection duration - 0 sec\r\n"
                             "Services requested - 4, repeats - 0 (0 %)\r\nRestarts - 0\r\n"),
              std::string::npos)
        << LogText();
}

TEST_F(KwpConnectionBenchTest, SimulatedLinkSessionNeedsNoLine) {
    Install();
    ASSERT_EQ(DvVagIsoStartCommunication(Port(), 1, 0x80, nullptr), 0u);
    DvIsoStopCommunication();
    EXPECT_EQ(dv::bench::BenchCallCount(FakeCall::Open), 0);
    EXPECT_TRUE(BenchTraceOf(TraceKind::TesterByte).empty());
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{100, 100}));
    EXPECT_EQ(LogText(), "\r\n\r\nConnecting to ECU at address FFh with fast connect\r\n"
                         "\r\nConnected successfully"
                         "\r\n\r\nDisconnecting from ECU\r\n"
                         "\r\n\r\nDisconnected\r\n"
                         "\r\n\r\nConnection duration - 0 sec\r\nServices requested - 0, "
                         "repeats - 0 (0 %)\r\nRestarts - 0\r\n");
}

TEST_F(KwpConnectionBenchTest, Obd2KeyBytesAreRetriedWith3000msPauses) {
    Install([](Kwp2000Profile &p) { p.faults.keyBytes = std::array<uint8_t, 2>{0x94, 0x94}; });
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 10u);
    EXPECT_EQ(Occurrences(LogText(), "\r\nOBD2 is not supported yet"), 3u);
    EXPECT_EQ(Occurrences(LogText(), "\r\n\r\nRetrying to connect to ECU\r\n\r\n"), 2u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 3000, 3000, 3000}));
    EXPECT_EQ(BenchTraceOf(TraceKind::Close).size(), 1u);
}

TEST_F(KwpConnectionBenchTest, BadKeyByte1Gives10) {
    Install([](Kwp2000Profile &p) { p.faults.keyBytes = std::array<uint8_t, 2>{0xCF, 0x8F}; });
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 10u);
    EXPECT_EQ(Occurrences(LogText(), "\r\nBad Key Byte 1 : 'CF'"), 3u);
}

TEST_F(KwpConnectionBenchTest, BadSyncByteGives9) {
    Install([](Kwp2000Profile &p) { p.faults.syncByte = 0x54; });
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 9u);
    EXPECT_EQ(Occurrences(LogText(), "\r\nBad Baud Rate Synch Byte: '54' vs '55'"), 3u);
}

TEST_F(KwpConnectionBenchTest, WrongInvertedAddressGives12) {
    Install([](Kwp2000Profile &p) { p.faults.wrongInvertedAddress = true; });
    EXPECT_EQ(DvIsoStartCommunication(Port(), 0, 0x01, nullptr), 12u);
    EXPECT_EQ(Occurrences(LogText(), "\r\nBad ECU address echo : 'FF' vs 'FE'"), 3u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50, 3000, 3000, 3000}));
}

TEST_F(KwpConnectionBenchTest, LostLinkIsRestartedFastWithTheSessionRestored) {
    // Request 1 StartCommunication, 2 the session, 3 tester present: the ECU ends the session
    // after answering it, so request 4 goes unanswered.
    Install([](Kwp2000Profile &p) { p.faults.dropAfterRequest = 3; });
    ASSERT_EQ(DvVagIsoStartCommunication(Port(), 1, 0x01, nullptr), 0u);
    ASSERT_EQ(StartSession(0x89), 0u);
    Bytes answer;
    ASSERT_EQ(Exchange({0x3E}, &answer), 0u);
    dv::bench::BenchTraceClear();
    EXPECT_EQ(Exchange({0x3E}, &answer), 8u);
    EXPECT_EQ(dv::IsoRestartCommunication(), 0u);
    EXPECT_EQ(TesterBytes(), "81 10 F1 3E C0 81 10 F1 3E C0 81 10 F1 3E C0 "
                             "81 10 F1 81 03 82 10 F1 10 89 1C");
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{545});
    EXPECT_EQ(dv::IsoLinkState().restarts, 1u);
    EXPECT_EQ(Exchange({0x3E}, &answer), 0u);
    DvIsoStopCommunication();
    EXPECT_NE(LogText().find("Services requested - 7, repeats - 2 (28 %)\r\nRestarts - 1\r\n"),
              std::string::npos)
        << LogText();
}

TEST_F(KwpConnectionBenchTest, LostLinkIsRestartedSlowWithTheSessionRestored) {
    Install([](Kwp2000Profile &p) { p.faults.dropAfterRequest = 1; });
    ASSERT_EQ(DvIsoStartCommunication(Port(), 0, 0x10, nullptr), 0u);
    ASSERT_EQ(StartSession(0x85), 0u); // request 1: the session ends after it
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 8u);
    dv::bench::BenchTraceClear();
    EXPECT_EQ(dv::IsoRestartCommunication(), 0u);
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{2945});
    EXPECT_EQ(TesterBytes(), "70 82 10 F1 10 85 18");
    EXPECT_NE(LogText().find("\r\n\r\nReconnecting to ECU with slow connect\r\n"),
              std::string::npos);
    EXPECT_NE(LogText().find("\r\n\r\nReconnected successfully\r\n"), std::string::npos);
    EXPECT_EQ(Exchange({0x3E}, &answer), 0u);
}

TEST_F(KwpConnectionBenchTest, FailedRestartLeavesThePortOpenAndTheStopOnlyClosesIt) {
    // Everything after the session request goes unanswered, StartCommunication included.
    Install([](Kwp2000Profile &p) {
        p.faults.silentRequest = 3;
        p.faults.silentCount = 100;
    });
    ASSERT_EQ(DvVagIsoStartCommunication(Port(), 1, 0x01, nullptr), 0u);
    ASSERT_EQ(StartSession(0x89), 0u);
    Bytes answer;
    EXPECT_EQ(Exchange({0x3E}, &answer), 8u);
    EXPECT_EQ(dv::IsoRestartCommunication(), 8u);
    EXPECT_EQ(dv::IsoLinkState().restarts, 0u);
    EXPECT_TRUE(BenchTraceOf(TraceKind::Close).empty());
    // The service marks the link lost; the stop then only closes the port.
    dv::IsoLinkState().connected = 2;
    dv::bench::BenchTraceClear();
    DvIsoStopCommunication();
    EXPECT_TRUE(BenchTraceOf(TraceKind::TesterByte).empty());
    EXPECT_EQ(BenchTraceOf(TraceKind::Close).size(), 1u);
    EXPECT_TRUE(Sleeps().empty());
}

TEST_F(KwpConnectionBenchTest, StopCommunicationIsRepeatedThenThePortClosesAfter9945ms) {
    Install([](Kwp2000Profile &p) {
        p.faults.silentRequest = 2;
        p.faults.silentCount = 3;
    });
    ASSERT_EQ(DvIsoStartCommunication(Port(), 1, 0x10, nullptr), 0u);
    dv::bench::BenchTraceClear();
    DvIsoStopCommunication();
    EXPECT_EQ(TesterBytes(), "81 10 F1 82 04 81 10 F1 82 04 81 10 F1 82 04");
    EXPECT_EQ(Sleeps(), std::vector<uint32_t>{9945});
    const auto closes = BenchTraceOf(TraceKind::Close);
    const auto sleeps = BenchTraceOf(TraceKind::Sleep);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].at - sleeps.back().at, 9945 * kFakeTicksPerMs);
}

} // namespace
