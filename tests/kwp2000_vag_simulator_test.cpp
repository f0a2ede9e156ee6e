// The simulated KWP2000 link (module 0x80, target 0xFF): every service's built-in answer, its
// pause and the simulator state of Parts 6.2 and 6.3, without the line.
#include "kwp2000_service_fixture.h"

#include <cmath>
#include <string>

#include "kwp2000/simulator.h"

namespace kwptest {
namespace {

using dv::IsoLinkState;
using dv::VagIsoSimulatorState;

class VagIsoSimulated : public KwpFakeTest {
protected:
    void StartSimulated(uint32_t mode = 1) {
        uint32_t keepAlive = 0;
        ASSERT_EQ(DvVagIsoStartCommunication(u16("COM1"), mode, 0x80, &keepAlive), 0u);
        ASSERT_EQ(IsoLinkState().targetAddress, 0xFF);
        Forget();
    }

    // Runs `call` and returns the virtual milliseconds it took.
    template <class Call> int64_t Timed(Call call) {
        const int64_t start = NowMs();
        call();
        return NowMs() - start;
    }

    // Nothing went to the port: no open, no write.
    static void ExpectNoLine() {
        EXPECT_FALSE(Fake().portOpen);
        EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Write).empty());
        EXPECT_EQ(Fake().CallCount(FakeCall::Open), 0);
    }

    static std::u16string Text(const DvChar *text) {
        return text == nullptr ? u"(null)"
                               : std::u16string(reinterpret_cast<const char16_t *>(text));
    }

    static void ExpectValues(const MeasuringValue *values,
                             std::initializer_list<std::pair<uint8_t, int32_t>> expected) {
        size_t i = 0;
        for (const auto &[kind, value] : expected) {
            EXPECT_EQ(values[i].kind, kind) << i;
            EXPECT_EQ(values[i].value, value) << i;
            EXPECT_EQ(values[i].text, nullptr) << i;
            ++i;
        }
    }
};

TEST_F(VagIsoSimulated, SlowAndFastStartsGiveTheSimulatedLink) {
    StartSimulated(0);
    ExpectNoLine();
    StartSimulated(1);
    ExpectNoLine();
}

TEST_F(VagIsoSimulated, StandardServicesSleep100AndSucceed) {
    StartSimulated();
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvIsoStartDiagnosticSession(1), 0u); }), 100);
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvVagIsoStartDiagnosticSession(1), 0u); }), 100);
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvIsoStopDiagnosticSession(), 0u); }), 100);
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvIsoTesterPresent(), 0u); }), 100);
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvIsoTesterPresentExtended(0), 0u); }), 100);
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvIsoTesterPresentExtended(1), 0u); }), 100);
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvIsoClearDiagnosticInformation(), 0u); }), 100);
    ExpectNoLine();
}

TEST_F(VagIsoSimulated, ReadDtcGivesTwoCodes) {
    StartSimulated();
    uint32_t count = 0;
    uint16_t *codes = nullptr;
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvIsoReadDtc(&count, &codes), 0u); }), 100);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(codes[0], 0x0102);
    EXPECT_EQ(codes[1], 0x0119);
    DvFree(codes);
    ExpectNoLine();
}

TEST_F(VagIsoSimulated, IdentificationAndCapabilities) {
    StartSimulated();
    EcuIdentification record{};
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 0u); }), 200);
    EXPECT_EQ(Text(record.partNumber), u"8D0923512S");
    EXPECT_EQ(Text(record.componentText), u"SIMULATOR");
    EXPECT_EQ(record.coding, 4001u);
    EXPECT_EQ(record.workshopCode, 0u);
    EXPECT_EQ(record.extraCode, 0u);
    DvFree(record.partNumber);
    DvFree(record.componentText);
    uint32_t mask = 0;
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 0u); }), 100);
    EXPECT_EQ(mask, 5u);
    ExpectNoLine();
}

// ---- fault memory
// -----------------------------------------------------------------------------------

TEST_F(VagIsoSimulated, ReadByStatusGivesBothSets) {
    StartSimulated();
    for (uint32_t status : {0u, 1u}) {
        uint32_t count = 0;
        DtcEntry *entries = nullptr;
        EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadDtcByStatus(status, &count, &entries), 0u); }),
                  100);
        ASSERT_EQ(count, 2u);
        EXPECT_EQ(entries[0].index, 0u);
        EXPECT_EQ(entries[0].code, 0x020A);
        EXPECT_EQ(entries[0].status, 10);
        EXPECT_EQ(entries[1].index, 1u);
        EXPECT_EQ(entries[1].code, 0x0206);
        EXPECT_EQ(entries[1].status, 8);
        DvFree(entries);
    }
}

TEST_F(VagIsoSimulated, ReadByOtherStatusGivesAnEmptyArray) {
    StartSimulated();
    uint32_t count = 9;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatus(2, &count, &entries), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(entries, nullptr);
    DvFree(entries);
}

TEST_F(VagIsoSimulated, ReadByStatusAndGroup) {
    StartSimulated();
    uint32_t count = 0;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(
        Timed([&] { EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(1, 0x0206, &count, &entries), 0u); }),
        100);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(entries[0].index, 0u);
    EXPECT_EQ(entries[0].code, 0x0206);
    DvFree(entries);
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(0, 0, &count, &entries), 0u);
    EXPECT_EQ(count, 2u);
    DvFree(entries);
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(0, 0x1234, &count, &entries), 0u);
    EXPECT_EQ(count, 0u);
    DvFree(entries);
}

TEST_F(VagIsoSimulated, ClearingGroup020AThenReadingGivesOnly0206) {
    StartSimulated();
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x020A), 0u); }),
              100);
    EXPECT_FALSE(VagIsoSimulatorState().dtcSet1);
    EXPECT_TRUE(VagIsoSimulatorState().dtcSet2);
    uint32_t count = 0;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(entries[0].code, 0x0206);
    EXPECT_EQ(entries[0].status, 8);
    DvFree(entries);
}

TEST_F(VagIsoSimulated, ClearingAllGroupsEmptiesTheMemoryUntilTheNextStart) {
    StartSimulated();
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x1234), 0u);
    EXPECT_TRUE(VagIsoSimulatorState().dtcSet1);
    EXPECT_TRUE(VagIsoSimulatorState().dtcSet2);
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0), 0u);
    uint32_t count = 9;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0u);
    EXPECT_EQ(count, 0u);
    DvFree(entries);
    DvIsoStopCommunication();
    StartSimulated();
    EXPECT_TRUE(VagIsoSimulatorState().dtcSet1);
    EXPECT_TRUE(VagIsoSimulatorState().dtcSet2);
}

TEST_F(VagIsoSimulated, FreezeFrameOf0206) {
    StartSimulated();
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(
        Timed([&] { EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 0u); }),
        200);
    ASSERT_EQ(count, 4u);
    ExpectValues(values, {{1, 8000}, {5, 920}, {11, 1082}, {16, 23360}});
    DvFree(values);
    EXPECT_EQ(Timed([&] {
                  EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x020A, &count, &values), 0x111u);
              }),
              100);
}

TEST_F(VagIsoSimulated, FreezeFrameOf0206WithSet2ClearedGives0x111) {
    StartSimulated();
    ASSERT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x0206), 0u);
    uint32_t count = 9;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(Timed([&] {
                  EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 0x111u);
              }),
              100);
    EXPECT_EQ(count, 9u);
    EXPECT_EQ(values, nullptr);
}

// ---- data
// -------------------------------------------------------------------------------------------

TEST_F(VagIsoSimulated, LocalId1SwingsWithThePeriodOf4Seconds) {
    StartSimulated();
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    // The tick count after the 200 ms pause: 1000 ms (a quarter period) gives 1100.
    Fake().now = 800 * kFakeTicksPerMs + 4000 * 10 * kFakeTicksPerMs;
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u); }), 200);
    ASSERT_EQ(count, 4u);
    ExpectValues(values, {{1, 8000}, {5, 920}, {11, 1100}, {16, 23360}});
    MeasuringValue *const first = values;
    // 3000 ms: 900; 2000 ms: 1000 (sin of pi is a little above 0, truncated to 0).
    Fake().now += 1800 * kFakeTicksPerMs;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    EXPECT_EQ(values, first);
    EXPECT_EQ(values[2].value, 900);
    Fake().now += 2800 * kFakeTicksPerMs;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    EXPECT_EQ(values[2].value, 1000);
    // Any tick count: 1000 - trunc(-100 sin(t pi / 2000)).
    Fake().now += 1234 * kFakeTicksPerMs;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    const double t = static_cast<double>(Fake().NowMs());
    EXPECT_EQ(values[2].value,
              1000 - static_cast<int32_t>(-100.0 * std::sin(t * 0.0015707963267948967)));
    DvFree(values);
}

TEST_F(VagIsoSimulated, LocalId1WithAnotherCountGives1) {
    StartSimulated();
    uint32_t count = 3;
    MeasuringValue values[3] = {};
    MeasuringValue *array = values;
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &array), 1u); }), 200);
    EXPECT_EQ(array, values);
    EXPECT_EQ(values[0].kind, 0);
}

TEST_F(VagIsoSimulated, OtherLocalIdsGive0x111) {
    StartSimulated();
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadDataByLocalId(2, &count, &values), 0x111u); }),
              100);
    EXPECT_EQ(values, nullptr);
}

TEST_F(VagIsoSimulated, ActuatorTestStartFourStepsThenTheEnd) {
    StartSimulated();
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvVagIsoTestActuator(0), 0u); }), 100);
    EXPECT_EQ(VagIsoSimulatorState().actuator, 1262);
    EXPECT_EQ(VagIsoSimulatorState().stepFlag, 0);
    const std::pair<uint16_t, uint8_t> states[] = {{1262, 1}, {1264, 0}, {1264, 1}, {0, 0}};
    for (const auto &[actuator, step] : states) {
        EXPECT_EQ(Timed([] { EXPECT_EQ(DvVagIsoTestActuator(1), 0u); }), 100);
        EXPECT_EQ(VagIsoSimulatorState().actuator, actuator);
        EXPECT_EQ(VagIsoSimulatorState().stepFlag, step);
    }
    EXPECT_EQ(Timed([] { EXPECT_EQ(DvVagIsoTestActuator(1), 0x111u); }), 100);
    ExpectNoLine();
}

TEST_F(VagIsoSimulated, ActuatorStepWithoutATestGives0x111) {
    StartSimulated();
    EXPECT_EQ(DvVagIsoTestActuator(1), 0x111u);
}

TEST_F(VagIsoSimulated, ActuatorDataFollowsTheSteps) {
    StartSimulated();
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    // No actuator under test: one record with the code 0.
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u); }), 100);
    ASSERT_EQ(count, 1u);
    ExpectValues(values, {{0, 0}});
    DvFree(values);

    ASSERT_EQ(DvVagIsoTestActuator(0), 0u);
    values = nullptr;
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    ASSERT_EQ(count, 1u);
    ExpectValues(values, {{0, 1262}});
    DvFree(values);

    ASSERT_EQ(DvVagIsoTestActuator(1), 0u);
    values = nullptr;
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u); }), 200);
    ASSERT_EQ(count, 4u);
    ExpectValues(values, {{1, 0}, {52, 2220}, {18, 21900}, {2, 2560}});
    MeasuringValue *const first = values;
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    EXPECT_EQ(values, first);
    DvFree(values);

    ASSERT_EQ(DvVagIsoTestActuator(1), 0u);
    values = nullptr;
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    ExpectValues(values, {{0, 1264}});
    DvFree(values);

    ASSERT_EQ(DvVagIsoTestActuator(1), 0u);
    values = nullptr;
    EXPECT_EQ(Timed([&] { EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0x111u); }), 100);
    EXPECT_EQ(values, nullptr);
}

TEST_F(VagIsoSimulated, ActuatorDataWithAnotherCountGives1) {
    StartSimulated();
    ASSERT_EQ(DvVagIsoTestActuator(0), 0u);
    ASSERT_EQ(DvVagIsoTestActuator(1), 0u);
    uint32_t count = 1;
    MeasuringValue value{};
    MeasuringValue *array = &value;
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &array), 1u);
    EXPECT_TRUE(Logged("Bad measurement zone count: 4 vs 1\r\n"));
    EXPECT_EQ(array, &value);
}

TEST_F(VagIsoSimulated, StartResetsTheActuatorTest) {
    StartSimulated();
    ASSERT_EQ(DvVagIsoTestActuator(0), 0u);
    ASSERT_EQ(DvVagIsoTestActuator(1), 0u);
    DvIsoStopCommunication();
    StartSimulated();
    EXPECT_EQ(VagIsoSimulatorState().actuator, 0);
    EXPECT_EQ(VagIsoSimulatorState().stepFlag, 0);
}

TEST_F(VagIsoSimulated, StopOnlySleeps100) {
    StartSimulated();
    EXPECT_EQ(Timed([] { DvIsoStopCommunication(); }), 100);
    ExpectNoLine();
    EXPECT_TRUE(LogHas("\r\nDisconnected\r\n"));
}

} // namespace
} // namespace kwptest
