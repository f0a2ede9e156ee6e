// Whole KWP2000 sessions on the virtual K-line against the emulated engine ECU
// ("kwp2000-engine": module 0x01, target 0x10, key bytes EF 8F), with slow and with fast
// initialisation: every service of Parts 5.3 and 6.1 to 6.3, the lost link and the restored
// session, negative answers, and the stop with its statistics.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/kwp2000_ecu.h"
#include "dravelin/dravelin.h"
#include "kwp2000/kwp2000.h"
#include "support/log_capture.h"

namespace {

using dv::IsoLinkState;
using dv::bench::BenchClock;
using dv::bench::BenchInstall;
using dv::bench::BenchNowMs;
using dv::bench::BenchUninstall;
using dv::bench::Kwp2000EngineProfile;
using dv::bench::Kwp2000Profile;
using dv::bench::MakeKwp2000Ecu;

const DvChar *Port() {
    static const std::vector<DvChar> name = {'C', 'O', 'M', '1', 0};
    return name.data();
}

std::u16string Text(const DvChar *text) {
    return text == nullptr ? u"(null)" : std::u16string(reinterpret_cast<const char16_t *>(text));
}

bool LogHas(const std::string &text) {
    return dvtest::LogText().find(text) != std::string::npos;
}

struct Value {
    uint8_t kind;
    int32_t value;
};

void ExpectValues(const MeasuringValue *values, uint32_t count, std::vector<Value> expected) {
    ASSERT_EQ(count, expected.size());
    for (uint32_t i = 0; i < count; ++i) {
        EXPECT_EQ(values[i].kind, expected[i].kind) << i;
        EXPECT_EQ(values[i].value, expected[i].value) << i;
    }
}

void FreeValues(MeasuringValue *values, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        DvFree(values[i].text);
    }
    DvFree(values);
}

// The parameter: 0 slow (five-baud) initialisation, 1 fast.
class KwpBenchSession : public ::testing::TestWithParam<uint32_t> {
protected:
    void Install(const Kwp2000Profile &profile) {
        BenchInstall(MakeKwp2000Ecu(profile), BenchClock::Virtual);
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
    }

    void TearDown() override {
        DvDestruct();
        BenchUninstall();
    }

    void Start() {
        uint32_t keepAlive = 0;
        ASSERT_EQ(DvVagIsoStartCommunication(Port(), GetParam(), 0x01, &keepAlive), 0u);
        EXPECT_EQ(keepAlive, 4945u);
        EXPECT_EQ(IsoLinkState().targetAddress, 0x10);
        EXPECT_EQ(IsoLinkState().connected, 1u);
    }
};

TEST_P(KwpBenchSession, FullSession) {
    Install(Kwp2000EngineProfile());
    Start();

    EXPECT_EQ(DvVagIsoStartDiagnosticSession(1), 0u);
    EXPECT_EQ(IsoLinkState().sessionMode, 0x89);
    EXPECT_EQ(DvIsoTesterPresent(), 0u);
    EXPECT_EQ(DvIsoTesterPresentExtended(1), 0u);
    EXPECT_EQ(DvIsoTesterPresentExtended(0), 0u);

    // Identification and capabilities.
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

    // Trouble codes, by status and group, and a freeze frame.
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    ASSERT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(codes[0], 0x4066);
    EXPECT_EQ(codes[1], 0x412C);
    EXPECT_EQ(codes[2], 0x4575);
    DvFree(codes);
    DtcEntry *entries = nullptr;
    ASSERT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0u);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(entries[0].code, 0x4066);
    EXPECT_EQ(entries[0].status, 0x04);
    EXPECT_EQ(entries[1].status, 0x03);
    EXPECT_EQ(entries[2].status, 0x08);
    DvFree(entries);
    ASSERT_EQ(DvVagIsoReadDtcByStatus(2, &count, &entries), 0u);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(entries[1].code, 0x4575);
    DvFree(entries);
    ASSERT_EQ(DvVagIsoReadDtcByStatusExtended(0, 0x412C, &count, &entries), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(entries[0].code, 0x412C);
    DvFree(entries);
    MeasuringValue *values = nullptr;
    ASSERT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x4066, &count, &values), 0u);
    ExpectValues(values, count, {{1, 8000}, {5, 820}, {11, 1022}, {16, 23360}});
    FreeValues(values, count);
    values = nullptr;
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x412C, &count, &values), 0x131u);

    // Measuring values by local id: once, then again into the same array.
    values = nullptr;
    ASSERT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    ExpectValues(values, count, {{1, 14000}, {5, 820}, {11, 1000}, {16, 23360}});
    MeasuringValue *const first = values;
    ASSERT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    EXPECT_EQ(values, first);
    FreeValues(values, count);
    values = nullptr;
    ASSERT_EQ(DvVagIsoReadDataByLocalId(3, &count, &values), 0u);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 0x5F);
    EXPECT_EQ(Text(values[0].text), u"Idle");
    EXPECT_EQ(values[1].value, 14000);
    FreeValues(values, count);
    values = nullptr;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(9, &count, &values), 0x131u);

    // The actuator test: each actuator is selected, then run, then the test ends.
    EXPECT_EQ(DvVagIsoTestActuator(0), 0u);
    values = nullptr;
    ASSERT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    ExpectValues(values, count, {{16, 1262}});
    FreeValues(values, count);
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    values = nullptr;
    ASSERT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    ExpectValues(values, count, {{1, 0}, {52, 250}, {18, 3774}, {2, 1024}});
    FreeValues(values, count);
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    values = nullptr;
    ASSERT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    ExpectValues(values, count, {{16, 1264}});
    FreeValues(values, count);
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    EXPECT_EQ(DvVagIsoTestActuator(1), 0x122u);

    // Clearing one group, then all.
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x4066), 0u);
    entries = nullptr;
    ASSERT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0u);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(entries[0].code, 0x412C);
    DvFree(entries);
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0u);
    codes = nullptr;
    ASSERT_EQ(DvIsoReadDtc(&count, &codes), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(codes, nullptr);

    EXPECT_EQ(DvIsoStopDiagnosticSession(), 0u);
    EXPECT_EQ(IsoLinkState().sessionMode, 0);
    EXPECT_EQ(IsoLinkState().restarts, 0u);
    EXPECT_EQ(IsoLinkState().repeats, 0u);
    // 29 answered exchanges (3E 02 waits for none); the fast init's StartCommunication counts
    // as one more.
    const uint32_t requested = IsoLinkState().servicesRequested;
    EXPECT_EQ(requested, GetParam() == 0 ? 29u : 30u);

    dvtest::LogCaptureReset();
    DvIsoStopCommunication();
    EXPECT_EQ(IsoLinkState().connected, 0u);
    EXPECT_TRUE(LogHas("\r\nServices requested - " + std::to_string(requested + 1) +
                       ", repeats - 0 (0 %)\r\nRestarts - 0\r\n"));
    EXPECT_FALSE(LogHas("Bad"));
}

TEST_P(KwpBenchSession, LostLinkIsRestartedAndTheSessionRestored) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    // The ECU ends its session after answering the diagnostic session request.
    profile.faults.dropAfterRequest = GetParam() == 0 ? 1 : 2;
    Install(profile);
    Start();
    ASSERT_EQ(DvVagIsoStartDiagnosticSession(1), 0u);
    dvtest::LogCaptureReset();

    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    ASSERT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    ExpectValues(values, count, {{1, 14000}, {5, 820}, {11, 1000}, {16, 23360}});
    FreeValues(values, count);
    EXPECT_TRUE(LogHas("\r\nRestarting communication\r\n"));
    EXPECT_TRUE(LogHas("\r\nReconnected successfully\r\n"));
    EXPECT_EQ(IsoLinkState().restarts, 1u);
    EXPECT_EQ(IsoLinkState().repeats, 2u);
    EXPECT_EQ(IsoLinkState().sessionMode, 0x89);
    EXPECT_EQ(IsoLinkState().connected, 1u);
}

TEST_P(KwpBenchSession, SilentEcuEndsWith8AndTheStopOnlyCloses) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.faults.silentRequest = GetParam() == 0 ? 1 : 2;
    profile.faults.silentCount = 1000;
    Install(profile);
    Start();
    EXPECT_EQ(DvIsoClearDiagnosticInformation(), 8u);
    EXPECT_EQ(IsoLinkState().connected, 2u);
    dv::bench::BenchTraceClear();
    DvIsoStopCommunication();
    EXPECT_TRUE(dv::bench::BenchTraceBytes(dv::bench::TraceKind::TesterByte).empty());
    EXPECT_EQ(dv::bench::BenchTraceOf(dv::bench::TraceKind::Close).size(), 1u);
}

TEST_P(KwpBenchSession, NegativeAnswersAndWrongEchoes) {
    Install(Kwp2000EngineProfile());
    Start();
    // Session 0x82 is not one of the ECU's: 7F 10 12.
    EXPECT_EQ(DvIsoStartDiagnosticSession(1), 0x112u);
    EXPECT_EQ(IsoLinkState().sessionMode, 0);
    // A step without a started test: 7F 31 22.
    EXPECT_EQ(DvVagIsoTestActuator(1), 0x122u);
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0x122u);
    EXPECT_EQ(values, nullptr);
    // Status selector 0x45 is refused: 7F 18 12.
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0x45, &count, &entries), 0x112u);
    EXPECT_EQ(IsoLinkState().connected, 1u);
    EXPECT_EQ(IsoLinkState().restarts, 0u);
}

INSTANTIATE_TEST_SUITE_P(SlowAndFast, KwpBenchSession, ::testing::Values(0u, 1u),
                         [](const auto &info) { return info.param == 0 ? "Slow" : "Fast"; });

} // namespace
