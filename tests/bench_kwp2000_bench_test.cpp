// The KWP2000 ECU on the virtual K-line: five-baud and fast initialisation and a framed request
// driven byte by byte through the line primitives, then the library's KWP2000 link (Parts 5.1,
// 5.2) against the model, with each KWP2000 fault of the model doing what it says.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "bench/bench.h"
#include "bench/kwp2000_ecu.h"
#include "bench/profiles.h"
#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace dv::bench {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int64_t kMs = kFakeTicksPerMs;
const int64_t kByte = ByteTicksAt(10400);

uint8_t Sum(const Bytes &bytes) {
    uint32_t sum = 0;
    for (uint8_t b : bytes)
        sum += b;
    return static_cast<uint8_t>(sum);
}

Bytes Framed(uint8_t target, uint8_t source, const Bytes &data) {
    Bytes m{static_cast<uint8_t>(0x80 | data.size()), target, source};
    m.insert(m.end(), data.begin(), data.end());
    m.push_back(Sum(m));
    return m;
}

std::vector<int64_t> TimesOf(TraceKind kind) {
    std::vector<int64_t> times;
    for (const TraceEntry &e : BenchTraceOf(kind))
        times.push_back(e.at);
    return times;
}

bool Noted(const std::string &text) {
    for (const TraceEntry &e : BenchTraceOf(TraceKind::Note))
        if (e.note == text)
            return true;
    return false;
}

int Count(const std::string &text, const std::string &what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// ---- byte by byte through the line primitives -------------------------------------------------

class Kwp2000LineTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(BenchInstall("kwp2000-engine"));
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        ASSERT_EQ(PortOpen(u"COM1", 10400, 1024, 1024), 0u);
        PortSetByteDelay(0);
    }
    void TearDown() override {
        PortClose();
        DvDestruct();
        BenchUninstall();
    }
    // A read with a total deadline, and an inter-byte gap when intervalMs is not 0.
    Bytes Read(uint32_t count, uint32_t totalMs, uint32_t intervalMs = 0) {
        EXPECT_EQ(PortSetTimeouts(totalMs, 0, intervalMs == 0 ? kNoLimit : intervalMs), 0u);
        Bytes buffer(count);
        uint32_t got = 0;
        EXPECT_EQ(LineRead(3, count, buffer.data(), &got), 0u);
        buffer.resize(got);
        return buffer;
    }
    void Write(const Bytes &bytes) {
        ASSERT_EQ(LineWrite(3, static_cast<uint32_t>(bytes.size()), bytes.data()), 0u);
    }
};

TEST_F(Kwp2000LineTest, SlowInitByteByByte) {
    int32_t echo = 0;
    ASSERT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(echo, 2);
    EXPECT_EQ(Read(2, 0), (Bytes{0x00, 0x00})); // the KKL echo of the slow frame
    const int64_t frame = TimesOf(TraceKind::LineLow).front();

    EXPECT_EQ(Read(1, 400), Bytes{0x55});
    EXPECT_EQ(Read(1, 20), Bytes{0xEF});
    EXPECT_EQ(Read(1, 20), Bytes{0x8F});
    const auto ecu = BenchTraceOf(TraceKind::EcuByte);
    ASSERT_EQ(ecu.size(), 3u);
    EXPECT_EQ(ecu[0].at, frame + 2000 * kMs + 60 * kMs); // W1 after the stop bit
    EXPECT_EQ(ecu[1].at, ecu[0].at + kByte + 10 * kMs);  // W2
    EXPECT_EQ(ecu[2].at, ecu[1].at + kByte + 10 * kMs);  // W3

    DelayMs(37);
    Write({0x70});
    EXPECT_EQ(Read(1, 25), Bytes{0x70}); // adapter echo
    EXPECT_EQ(Read(1, 50), Bytes{0xFE});
    const auto heard = BenchTraceOf(TraceKind::EcuHears);
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].value, 0x70u);
    const auto answer = BenchTraceOf(TraceKind::EcuByte);
    ASSERT_EQ(answer.size(), 4u);
    EXPECT_EQ(answer[3].at, heard[0].at + 30 * kMs); // W4
    EXPECT_TRUE(Noted("address 01: sync and key bytes follow"));
    EXPECT_TRUE(Noted("session started"));
}

TEST_F(Kwp2000LineTest, FastInitAndOneFramedRequestByteByByte) {
    int32_t echo = 0;
    ASSERT_EQ(LineSendWakeUp(25, &echo), 0u);
    EXPECT_EQ(echo, 1);
    PortSetByteDelay(10);
    const Bytes start{0x81, 0x10, 0xF1, 0x81, 0x03}; // Part 5.2: module 0x01 with fast init
    Write(start);
    Bytes expected{0x00};
    expected.insert(expected.end(), start.begin(), start.end());
    const Bytes answer{0x83, 0xF1, 0x10, 0xC1, 0xEF, 0x8F, 0xC3};
    expected.insert(expected.end(), answer.begin(), answer.end());
    EXPECT_EQ(Read(13, 200), expected);
    EXPECT_EQ(BenchTraceBytes(TraceKind::EcuHears), start);
    const auto heard = TimesOf(TraceKind::EcuHears);
    const auto sent = TimesOf(TraceKind::EcuByte);
    ASSERT_EQ(sent.size(), 7u);
    EXPECT_EQ(sent[0], heard.back() + 30 * kMs); // P2
    for (size_t i = 1; i < sent.size(); ++i)
        EXPECT_EQ(sent[i], sent[i - 1] + kByte + 1 * kMs); // P1

    DelayMs(60);
    const Bytes request{0x82, 0x10, 0xF1, 0x21, 0x01, 0xA5};
    EXPECT_EQ(Sum(Bytes(request.begin(), request.end() - 1)), request.back());
    Write(request);
    EXPECT_EQ(Read(6, 30), request);
    const Bytes reply = Read(18, 100, 20);
    ASSERT_EQ(reply.size(), 18u);
    EXPECT_EQ(reply, Framed(0xF1, 0x10,
                            {0x61, 0x01, 0x01, 0xC8, 0x23, 0x05, 0x0A, 0xB6, 0x0B, 0x0A, 0x80, 0x10,
                             0x5B, 0x40}));
    EXPECT_EQ(reply.back(), Sum(Bytes(reply.begin(), reply.end() - 1)));
    const auto all = BenchTraceBytes(TraceKind::EcuHears);
    EXPECT_EQ(Bytes(all.end() - 6, all.end()), request);
}

TEST_F(Kwp2000LineTest, RequestWithABadChecksumIsNotAnswered) {
    int32_t echo = 0;
    ASSERT_EQ(LineSendWakeUp(25, &echo), 0u);
    PortSetByteDelay(10);
    Write({0x81, 0x10, 0xF1, 0x81, 0x03});
    EXPECT_EQ(Read(13, 200).size(), 13u);
    DelayMs(60);
    Write({0x81, 0x10, 0xF1, 0x3E, 0xC1});
    EXPECT_EQ(Read(10, 200).size(), 5u); // the echo only
    EXPECT_TRUE(Noted("request ignored: bad checksum"));
}

TEST(Kwp2000VecuTest, VecuNameOpensTheEngineOnTheRealClock) {
    BenchUninstall(); // the routed native platform
    const Platform &p = PlatformGet();
    const PortHandle port = p.portOpen(u"vecu:kwp2000-engine");
    ASSERT_NE(port, kInvalidPort);
    EXPECT_TRUE(VecuOwns(port));
    CommState state{};
    ASSERT_TRUE(p.portGetState(port, &state));
    state.baudRate = 10400;
    ASSERT_TRUE(p.portSetState(port, &state));
    CommTimeouts t{0, 0, 40, 0, 0};
    ASSERT_TRUE(p.portSetTimeouts(port, &t));
    const uint8_t byte = 0x3E;
    uint32_t written = 0;
    ASSERT_TRUE(p.portWrite(port, &byte, 1, &written));
    uint8_t buffer[2] = {};
    uint32_t got = 0;
    ASSERT_TRUE(p.portRead(port, buffer, 2, &got));
    EXPECT_EQ(got, 1u); // the echo: without an initialisation the ECU answers nothing
    EXPECT_EQ(buffer[0], 0x3E);
    ASSERT_TRUE(p.portClose(port));
    BenchUninstall();
}

// ---- the library's KWP2000 link against the model ---------------------------------------------

class Kwp2000LinkTest : public ::testing::Test {
protected:
    void TearDown() override {
        PortClose();
        DvDestruct();
        BenchUninstall();
    }
    void Install(const Kwp2000Faults &faults = {}) {
        Kwp2000Profile profile = Kwp2000EngineProfile();
        profile.faults = faults;
        BenchInstall(MakeKwp2000Ecu(profile));
        ASSERT_EQ(dvtest::ConstructLibrary(3), 0u);
    }
    uint32_t Start(uint32_t mode) {
        uint32_t keepAlive = 0;
        const uint32_t result = DvVagIsoStartCommunication(
            reinterpret_cast<const DvChar *>(u"COM1"), mode, 0x01, &keepAlive);
        if (result == 0) {
            EXPECT_EQ(keepAlive, 4945u);
        }
        return result;
    }
    // One IsoExchange; the answer (service id first) or nothing.
    uint32_t Exchange(const Bytes &request, Bytes *answer = nullptr) {
        uint32_t length = 0;
        uint8_t *data = nullptr;
        const uint32_t result =
            IsoExchange(static_cast<uint32_t>(request.size()), request.data(), &length, &data);
        if (result == 0 && answer != nullptr)
            *answer = Bytes(data, data + length);
        IsoReleaseResponseBuffer();
        return result;
    }
    std::string Log() const { return dvtest::LogText(); }
};

TEST_F(Kwp2000LinkTest, SlowConnectToTheEngine) {
    Install();
    ASSERT_EQ(Start(0), 0u);
    EXPECT_EQ(IsoLinkState().keyByte1, 0xEF);
    EXPECT_EQ(IsoLinkState().keyByte2, 0x8F);
    EXPECT_NE(Log().find("Key Bytes are Ok"), std::string::npos);
    Bytes answer;
    EXPECT_EQ(Exchange({0x1A, 0x9B}, &answer), 0u);
    ASSERT_EQ(answer.size(), 48u);
    EXPECT_EQ(std::string(answer.begin() + 28, answer.end()), "1.8L R4/5VT     G   ");
}

TEST_F(Kwp2000LinkTest, FastConnectExchangeAndStop) {
    Install();
    ASSERT_EQ(Start(1), 0u);
    Bytes answer;
    EXPECT_EQ(Exchange({0x18, 0x03, 0xFF, 0x00}, &answer), 0u);
    EXPECT_EQ(answer, (Bytes{0x58, 0x03, 0x40, 0x66, 0x24, 0x41, 0x2C, 0x23, 0x45, 0x75, 0x28}));
    DvIsoStopCommunication();
    EXPECT_NE(Log().find("Disconnected"), std::string::npos);
    EXPECT_TRUE(Noted("session ended by StopCommunication"));
    EXPECT_EQ(BenchTraceBytes(TraceKind::EcuHears).back(), Sum({0x81, 0x10, 0xF1, 0x82}));
}

TEST_F(Kwp2000LinkTest, MultiMessageAnswerIsJoinedBehindOneServiceId) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.maxMessageData = 6;
    BenchInstall(MakeKwp2000Ecu(profile));
    ASSERT_EQ(dvtest::ConstructLibrary(3), 0u);
    ASSERT_EQ(Start(1), 0u);
    const size_t before = BenchTraceOf(TraceKind::EcuByte).size();
    Bytes answer;
    EXPECT_EQ(Exchange({0x21, 0x01}, &answer), 0u);
    EXPECT_EQ(answer, (Bytes{0x61, 0x01, 0x01, 0xC8, 0x23, 0x05, 0x0A, 0xB6, 0x0B, 0x0A, 0x80, 0x10,
                             0x5B, 0x40}));
    // Three messages on the line: 3 + 6 + 1, 3 + 6 + 1 and 3 + 4 + 1 bytes.
    EXPECT_EQ(BenchTraceOf(TraceKind::EcuByte).size() - before, 28u);
}

TEST_F(Kwp2000LinkTest, ThirtyTwoMessagesAreTooMany) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.maxMessageData = 2; // the service id and one byte a message
    BenchInstall(MakeKwp2000Ecu(profile));
    ASSERT_EQ(dvtest::ConstructLibrary(3), 0u);
    ASSERT_EQ(Start(1), 0u);
    EXPECT_EQ(Exchange({0x1A, 0x9B}), 7u);
    EXPECT_NE(Log().find("Too many ECU messages"), std::string::npos);
}

TEST_F(Kwp2000LinkTest, LostKeyByteIsOfferedAgain) {
    Install();
    BenchFault().DropEcuByte(2); // key byte 1 of the first offer
    ASSERT_EQ(Start(0), 0u);
    EXPECT_EQ(Count(Log(), "Resetting"), 1);
    EXPECT_TRUE(Noted("no inverted key byte 2: key bytes offered again"));
}

TEST_F(Kwp2000LinkTest, FaultWrongSyncByte) {
    Kwp2000Faults f;
    f.syncByte = 0x54;
    Install(f);
    EXPECT_EQ(Start(0), 9u);
    EXPECT_NE(Log().find("Bad Baud Rate Synch Byte: '54' vs '55'"), std::string::npos);
}

TEST_F(Kwp2000LinkTest, FaultObd2KeyBytes) {
    Kwp2000Faults f;
    f.keyBytes = std::array<uint8_t, 2>{0x94, 0x94};
    Install(f);
    EXPECT_EQ(Start(0), 10u);
    EXPECT_EQ(Count(Log(), "OBD2 is not supported yet"), 3); // every connect attempt
}

TEST_F(Kwp2000LinkTest, FaultObd2KeyBytes0x80) {
    Kwp2000Faults f;
    f.keyBytes = std::array<uint8_t, 2>{0x80, 0x80};
    Install(f);
    EXPECT_EQ(Start(1), 10u);
    EXPECT_NE(Log().find("Bad Key Bytes : '8080'"), std::string::npos);
}

TEST_F(Kwp2000LinkTest, FaultBadKeyByte1) {
    Kwp2000Faults f;
    f.keyBytes = std::array<uint8_t, 2>{0x8F, 0x8F};
    Install(f);
    EXPECT_EQ(Start(1), 10u);
    EXPECT_NE(Log().find("Bad Key Byte 1 : '8F'"), std::string::npos);
}

TEST_F(Kwp2000LinkTest, FaultWrongInvertedAddress) {
    Kwp2000Faults f;
    f.wrongInvertedAddress = true;
    Install(f);
    EXPECT_EQ(Start(0), 12u);
    EXPECT_NE(Log().find("Bad ECU address echo : 'FF' vs 'FE'"), std::string::npos);
}

TEST_F(Kwp2000LinkTest, FaultSilenceForTheNthRequest) {
    Kwp2000Faults f;
    f.silentRequest = 2; // StartCommunication is request 1
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    dvtest::LogCaptureReset();
    EXPECT_EQ(Exchange({0x3E}), 0u);
    EXPECT_EQ(Count(Log(), "No ECU data"), 1);
    EXPECT_EQ(Count(Log(), "Repeating request"), 1);
    EXPECT_TRUE(Noted("fault: request 2 left unanswered"));
}

TEST_F(Kwp2000LinkTest, FaultResponsePending) {
    Kwp2000Faults f;
    f.pendingRequest = 2;
    f.pendingCount = 2;
    f.pendingGap = 1000;
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    dvtest::LogCaptureReset();
    Bytes answer;
    EXPECT_EQ(Exchange({0x14}, &answer), 0u);
    EXPECT_EQ(answer, Bytes{0x54});
    EXPECT_EQ(Count(Log(), "Extending message timeout"), 2);
    EXPECT_EQ(Count(Log(), "Repeating request"), 0);
}

TEST_F(Kwp2000LinkTest, FaultBusyAnswers) {
    Kwp2000Faults f;
    f.busyRequest = 2;
    f.busyCodes = {0x23, 0x21};
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    const int64_t before = BenchNow();
    Bytes answer;
    EXPECT_EQ(Exchange({0x14}, &answer), 0u);
    EXPECT_EQ(answer, Bytes{0x54});
    // Two busy passes, each followed by a 2445 ms pause before the request is sent again.
    const auto sleeps = BenchTraceOf(TraceKind::Sleep);
    int pauses = 0;
    for (const TraceEntry &e : sleeps)
        pauses += e.at >= before && e.value == 2445 ? 1 : 0;
    EXPECT_EQ(pauses, 2);
}

TEST_F(Kwp2000LinkTest, FaultBusyFirstAnswer0x21IsReturned) {
    Kwp2000Faults f;
    f.busyRequest = 2;
    f.busyCodes = {0x21};
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    Bytes answer;
    EXPECT_EQ(Exchange({0x14}, &answer), 0u);
    EXPECT_EQ(answer, (Bytes{0x7F, 0x14, 0x21}));
}

TEST_F(Kwp2000LinkTest, FaultSlowAnswer) {
    Kwp2000Faults f;
    f.slowRequest = 2;
    f.slowDelay = 60;
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    const size_t heardBefore = BenchTraceOf(TraceKind::EcuHears).size();
    const size_t sentBefore = BenchTraceOf(TraceKind::EcuByte).size();
    dvtest::LogCaptureReset();
    EXPECT_EQ(Exchange({0x3E}), 0u);
    EXPECT_GE(Count(Log(), "No ECU data"), 1);
    const auto heard = BenchTraceOf(TraceKind::EcuHears);
    const auto sent = BenchTraceOf(TraceKind::EcuByte);
    ASSERT_GT(heard.size(), heardBefore + 4);
    ASSERT_GT(sent.size(), sentBefore);
    EXPECT_EQ(sent[sentBefore].at, heard[heardBefore + 4].at + 60 * kMs);
}

TEST_F(Kwp2000LinkTest, FaultDropTheLink) {
    Kwp2000Faults f;
    f.dropAfterRequest = 2;
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    EXPECT_EQ(Exchange({0x3E}), 0u);
    dvtest::LogCaptureReset();
    EXPECT_EQ(Exchange({0x3E}), 8u);
    EXPECT_EQ(Count(Log(), "No ECU data"), 3);
    EXPECT_TRUE(Noted("fault: link dropped"));
}

TEST_F(Kwp2000LinkTest, FaultBadChecksum) {
    Kwp2000Faults f;
    f.badChecksumMessage = 2; // the StartCommunication answer is message 1
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    dvtest::LogCaptureReset();
    EXPECT_EQ(Exchange({0x3E}), 0u);
    EXPECT_NE(Log().find("Bad ECU message checksum : '01' vs '00'"), std::string::npos);
    EXPECT_EQ(Count(Log(), "Repeating request"), 1);
}

TEST_F(Kwp2000LinkTest, FaultWrongTarget) {
    Kwp2000Faults f;
    f.wrongTargetMessage = 2;
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    dvtest::LogCaptureReset();
    EXPECT_EQ(Exchange({0x3E}), 0u);
    EXPECT_NE(Log().find("Bad ECU target address : 'F0' vs 'F1'"), std::string::npos);
}

TEST_F(Kwp2000LinkTest, FaultWrongAddressMode) {
    Kwp2000Faults f;
    f.wrongAddressModeMessage = 2;
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    dvtest::LogCaptureReset();
    EXPECT_EQ(Exchange({0x3E}), 0u);
    EXPECT_NE(Log().find("Bad ECU addressing : '01'"), std::string::npos);
}

TEST_F(Kwp2000LinkTest, FaultWrongSize) {
    Kwp2000Faults f;
    f.wrongSizeMessage = 2;
    Install(f);
    ASSERT_EQ(Start(1), 0u);
    dvtest::LogCaptureReset();
    EXPECT_EQ(Exchange({0x3E}), 0u);
    EXPECT_NE(Log().find("Bad ECU block size : '02'"), std::string::npos);
}

} // namespace
} // namespace dv::bench

namespace dv::bench {
namespace {

// ---- the exports of Parts 5.2-6.3 against the engine ------------------------------------------

std::u16string Text(const DvChar *text) {
    return text == nullptr ? u"" : std::u16string(reinterpret_cast<const char16_t *>(text));
}

class Kwp2000SessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(BenchInstall("kwp2000-engine"));
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        uint32_t keepAlive = 0;
        ASSERT_EQ(DvVagIsoStartCommunication(reinterpret_cast<const DvChar *>(u"COM1"), 1, 0x01,
                                             &keepAlive),
                  0u);
    }
    void TearDown() override {
        DvIsoStopCommunication();
        DvDestruct();
        BenchUninstall();
    }
    // A fresh array of values from one of the value services.
    std::vector<std::pair<int, int32_t>> Values(uint32_t result, uint32_t count,
                                                MeasuringValue *values,
                                                std::vector<std::u16string> *texts = nullptr) {
        EXPECT_EQ(result, 0u);
        std::vector<std::pair<int, int32_t>> out;
        for (uint32_t i = 0; values != nullptr && i < count; ++i) {
            out.emplace_back(values[i].kind, values[i].value);
            if (texts != nullptr)
                texts->push_back(Text(values[i].text));
            DvFree(values[i].text);
        }
        DvFree(values);
        return out;
    }
    std::vector<std::pair<int, int32_t>> ActuatorData() {
        uint32_t count = 0;
        MeasuringValue *values = nullptr;
        const uint32_t result = DvVagIsoReadActuatorData(&count, &values);
        return Values(result, count, values);
    }
    std::vector<std::tuple<uint32_t, uint16_t, uint8_t>> Dtcs(uint32_t status, uint32_t group) {
        uint32_t count = 0;
        DtcEntry *entries = nullptr;
        EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(status, group, &count, &entries), 0u);
        std::vector<std::tuple<uint32_t, uint16_t, uint8_t>> out;
        for (uint32_t i = 0; entries != nullptr && i < count; ++i)
            out.emplace_back(entries[i].index, entries[i].code, entries[i].status);
        DvFree(entries);
        return out;
    }
};

TEST_F(Kwp2000SessionTest, IdentificationAndCapabilities) {
    EXPECT_EQ(DvVagIsoStartDiagnosticSession(1), 0u); // 10 89
    EcuIdentification id{};
    ASSERT_EQ(DvVagIsoReadEcuIdentificationGeneral(&id), 0u);
    EXPECT_EQ(Text(id.partNumber), u"06A906032HN ");
    EXPECT_EQ(Text(id.componentText), u"1.8L R4/5VT     G   ");
    EXPECT_EQ(id.coding, 31u);
    EXPECT_EQ(id.workshopCode, 12345u);
    EXPECT_EQ(id.extraCode, 0x155u);
    DvFree(id.partNumber);
    DvFree(id.componentText);
    uint32_t mask = 0;
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 0u);
    EXPECT_EQ(mask, 5u);
}

TEST_F(Kwp2000SessionTest, StandardServices) {
    EXPECT_EQ(DvIsoStartDiagnosticSession(1), 0x112u); // the engine has no session 0x82
    EXPECT_EQ(DvIsoStartDiagnosticSession(2), 0u);     // 0x85
    EXPECT_EQ(DvIsoTesterPresent(), 0u);
    EXPECT_EQ(DvIsoTesterPresentExtended(1), 0u);
    EXPECT_EQ(DvIsoTesterPresentExtended(0), 0u);
    EXPECT_EQ(DvIsoStopDiagnosticSession(), 0u);
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    ASSERT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(std::vector<uint16_t>(codes, codes + count),
              (std::vector<uint16_t>{0x4066, 0x412C, 0x4575}));
    DvFree(codes);
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0u);
    codes = nullptr;
    ASSERT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(codes, nullptr);
}

TEST_F(Kwp2000SessionTest, TroubleCodesAndFreezeFrames) {
    using Dtc = std::tuple<uint32_t, uint16_t, uint8_t>;
    EXPECT_EQ(Dtcs(0, 0), (std::vector<Dtc>{{0, 0x4066, 4}, {0, 0x412C, 3}, {0, 0x4575, 8}}));
    EXPECT_EQ(Dtcs(2, 0), (std::vector<Dtc>{{0, 0x4066, 4}, {0, 0x4575, 8}}));
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint32_t result = DvVagIsoReadFreezeFrameDataByDtc(0x4066, &count, &values);
    EXPECT_EQ(Values(result, count, values),
              (std::vector<std::pair<int, int32_t>>{{1, 8000}, {5, 820}, {11, 1022}, {16, 23360}}));
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x412C, &count, &values), 0x131u);
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x4066), 0u);
    EXPECT_EQ(Dtcs(0, 0), (std::vector<Dtc>{{0, 0x412C, 3}, {0, 0x4575, 8}}));
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x4066, &count, &values), 0x131u);
}

TEST_F(Kwp2000SessionTest, LocalIdData) {
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    std::vector<std::u16string> texts;
    const uint32_t result = DvVagIsoReadDataByLocalId(3, &count, &values);
    EXPECT_EQ(Values(result, count, values, &texts),
              (std::vector<std::pair<int, int32_t>>{{0x5F, 0}, {1, 14000}}));
    EXPECT_EQ(texts, (std::vector<std::u16string>{u"Idle", u""}));
    values = nullptr;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(9, &count, &values), 0x131u);
}

TEST_F(Kwp2000SessionTest, ActuatorTest) {
    using V = std::vector<std::pair<int, int32_t>>;
    EXPECT_EQ(DvVagIsoTestActuator(0), 0u);
    EXPECT_EQ(ActuatorData(), (V{{16, 1262}}));
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    EXPECT_EQ(ActuatorData(), (V{{1, 0}, {52, 250}, {18, 3774}, {2, 1024}}));
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    EXPECT_EQ(ActuatorData(), (V{{16, 1264}}));
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    EXPECT_EQ(DvVagIsoTestActuator(1), 0x122u); // past the last actuator: the end of the test
}

} // namespace
} // namespace dv::bench
