// Part 4.6: group readings, basic settings, header and curve answers, raw and channel readings,
// closing; on a scripted ECU on the fake port and on the simulated ECU at 0x80.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "kw1281/measuring_values.h"
#include "kw1281_service_ecu.h"

namespace {

using namespace kwtest;
using dv::bench::FakeCall;

class Measurements : public ::testing::Test {
protected:
    void SetUp() override { ConnectFakeEcu(); }
    void TearDown() override {
        FreeValues(count, values);
        DvFree(bytes);
        DisconnectFakeEcu();
    }

    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint8_t *bytes = nullptr;
};

TEST_F(Measurements, GroupReadingDecodesTheValues) {
    Ecu().answers = {{0xE7, 0x01, 2, 3, 0x05, 10, 120, 0x0A, 5, 5, 0x20, 0, 0x81}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    ASSERT_EQ(Ecu().requests.size(), 1u);
    EXPECT_EQ(Ecu().requests[0], (std::vector<uint8_t>{0x04, 0x01, 0x29, 0x01, 0x03}));
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 12);
    EXPECT_EQ(values[1].kind, 5);
    EXPECT_EQ(values[1].value, 200);
    EXPECT_EQ(values[2].kind, 10);
    EXPECT_EQ(TextOf(values[2]), u"WARM");
    EXPECT_EQ(values[3].kind, 32);
    EXPECT_EQ(values[3].value, -127);
    EXPECT_EQ(dv::KwConnection().state, dv::KwLinkState::Connected);
    EXPECT_EQ(dv::KwCounter(), 2);
}

TEST_F(Measurements, BytesOnTheLine) {
    // The request with its end byte, then the tester's complement of every answer byte but the
    // answer's end byte.
    Ecu().answers = {{0xE7, 0x01, 0x02, 0x03}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x04, 0x01, 0x29, 0x01, 0x03, 0xF9, 0xFD,
                                                      0x18, 0xFE, 0xFD, 0xFC}));
}

TEST_F(Measurements, RequestTitlesOfEachModeAndGroup) {
    Ecu().answers = {{0xE7, 0x01, 1, 1}, {0xE7, 0x01, 1, 1}, {0xE7, 0x01, 1, 1}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 0, &count, &values), 0u);
    ASSERT_EQ(DvVagGetGroupMeasurements(1, 3, &count, &values), 0u);
    ASSERT_EQ(DvVagGetGroupMeasurements(1, 0, &count, &values), 0u);
    ASSERT_EQ(Ecu().requests.size(), 3u);
    EXPECT_EQ(Ecu().requests[0], (std::vector<uint8_t>{0x03, 0x01, 0x12, 0x03}));
    EXPECT_EQ(Ecu().requests[1], (std::vector<uint8_t>{0x04, 0x03, 0x28, 0x03, 0x03}));
    EXPECT_EQ(Ecu().requests[2], (std::vector<uint8_t>{0x03, 0x05, 0x11, 0x03}));
}

TEST_F(Measurements, BadModeEndsTheSectionAndReturns1) {
    const size_t sets = Fake().prioritySets.size();
    EXPECT_EQ(DvVagGetGroupMeasurements(2, 1, &count, &values), 1u);
    EXPECT_EQ(Fake().prioritySets.size(), sets + 2); // raised and restored
    EXPECT_EQ(DvVagGetMeasurements(7, &count, &bytes), 1u);
    EXPECT_TRUE(Ecu().requests.empty());
    EXPECT_EQ(values, nullptr);
}

TEST_F(Measurements, HeaderAnswerThenCurveValues) {
    Ecu().answers = {{0x02, 128, 2, 0, 139, 1, 3, 0, 100, 200, 141, 2, 5, 'A', 'B', 1, 'C', 'D'},
                     {0xF4, 50, 200, 1, 7}};
    const size_t sets = Fake().prioritySets.size();
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 9, &count, &values), 0u);
    ASSERT_EQ(Ecu().requests.size(), 2u);
    EXPECT_EQ(Ecu().Request(0), (std::vector<uint8_t>{0x29, 9}));
    EXPECT_EQ(Ecu().Request(1), (std::vector<uint8_t>{0x29, 9}));
    EXPECT_EQ(Fake().prioritySets.size(), sets + 4); // two exchange sections
    EXPECT_EQ(dv::MeasurementCurveCount(), 3u);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].kind, 128);
    EXPECT_EQ(values[0].value, 100);
    EXPECT_EQ(values[1].kind, 139);
    EXPECT_EQ(values[1].value, 156);
    EXPECT_EQ(values[2].kind, 141);
    EXPECT_EQ(TextOf(values[2]), u"CD");
    EXPECT_EQ(values[3].kind, 0xFF);
    EXPECT_EQ(values[3].value, 7);
}

TEST_F(Measurements, EmptyHeaderLeavesAnEmptyTableAndRawRecords) {
    Ecu().answers = {{0x02, 128, 2, 0}, {0xF4, 1}, {0x02}, {0xF4, 10, 20}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 0u);
    EXPECT_EQ(dv::MeasurementCurveCount(), 1u);
    FreeValues(count, values);
    values = nullptr;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 0u);
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 0xFF);
    EXPECT_EQ(values[0].value, 10);
    EXPECT_EQ(values[1].kind, 0xFF);
    EXPECT_EQ(values[1].value, 20);
}

TEST_F(Measurements, SecondHeaderAnswerEndsWith13) {
    Ecu().answers = {{0x02, 128, 2, 0}, {0x02, 128, 2, 0}};
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 13u);
    EXPECT_EQ(Ecu().requests.size(), 2u);
    EXPECT_EQ(values, nullptr);
    EXPECT_EQ(Log(), "\r\nBad block type id: '02' vs 'F4' or 'E7'\r\n");
}

TEST_F(Measurements, RefusalAfterTheHeaderGives256) {
    Ecu().answers = {{0x02}, {0x0A}};
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 256u);
    EXPECT_EQ(Ecu().requests.size(), 2u);
}

TEST_F(Measurements, HeaderEntryOfOneByteIsRefusedAndTheOldTableKept) {
    Ecu().answers = {{0x02, 128, 2, 0, 132, 1, 0}, {0xF4, 1, 1}, {0x02, 128, 2, 0, 139, 1, 1, 5}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 0u);
    ASSERT_EQ(dv::MeasurementCurveCount(), 2u);
    dvtest::LogCaptureReset();
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 7u);
    EXPECT_EQ(Log(), "\r\nBad Digifant measurement curve count: '01'\r\n");
    EXPECT_EQ(dv::MeasurementCurveCount(), 2u);
    EXPECT_EQ(Ecu().requests.size(), 3u);
}

TEST_F(Measurements, HeaderEntryRunningPastTheBlockIsRefused) {
    Ecu().answers = {{0x02, 139, 1, 3, 0, 100}};
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 7u);
    EXPECT_EQ(Log(), "\r\nBad Digifant measurement curve count: '03'\r\n");
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
}

TEST_F(Measurements, HeaderEntryCutInItsLeadingBytesIsRefused) {
    Ecu().answers = {{0x02, 128, 2, 0, 139, 1}};
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 7u);
    EXPECT_EQ(Log(), "\r\nBad Digifant measurement curve count: '00'\r\n");
}

TEST_F(Measurements, SuppliedArrayWithAnotherCountReturns1AndIsUntouched) {
    Ecu().answers = {{0xE7, 0x01, 2, 3, 0x01, 2, 4}, {0xE7, 0x01, 9, 9, 0x01, 9, 9, 0x01, 9, 9}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    ASSERT_EQ(count, 2u);
    MeasuringValue *first = values;
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 2, &count, &values), 1u);
    EXPECT_EQ(values, first);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(values[0].value, 12);
    EXPECT_EQ(values[1].value, 16);
    EXPECT_EQ(Log(), "\r\nBad group measurement count: 3 vs 2\r\n");
}

TEST_F(Measurements, SuppliedArrayWithTheSameCountIsRefilled) {
    Ecu().answers = {{0xE7, 0x01, 2, 3}, {0xF4, 77}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    MeasuringValue *first = values;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    EXPECT_EQ(values, first);
    EXPECT_EQ(values[0].kind, 0xFF);
    EXPECT_EQ(values[0].value, 77);
}

TEST_F(Measurements, CurveAnswerWithAnotherCountReturns1) {
    Ecu().answers = {{0xE7, 0x01, 2, 3}, {0xF4, 1, 2}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 1u);
    EXPECT_EQ(Log(), "\r\nBad group measurement count: 2 vs 1\r\n");
}

TEST_F(Measurements, FailedDecodingFreesTheArrayAllocatedInTheCall) {
    Ecu().answers = {{0xE7, 0x0A, 1, 2, 0x3F}};
    Fake().lastError = 0x57;
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 1u);
    EXPECT_EQ(values, nullptr);
    EXPECT_EQ(Log(), "\r\nCould not convert to Unicode (0x00000057)\r\n");
}

TEST_F(Measurements, RefusalAndUnexpectedTitle) {
    Ecu().answers = {{0x0A}, {0xF6, 1}};
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 256u);
    EXPECT_EQ(Log(), "");
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'F6' vs 'F4' or 'E7'\r\n");
    EXPECT_EQ(values, nullptr);
}

TEST_F(Measurements, RawReading) {
    Ecu().answers = {{0xF4, 1, 2, 3}, {0xF4, 4, 5, 6}, {0xF4, 7}, {0xE7, 1, 1, 1}, {0x0A}};
    ASSERT_EQ(DvVagGetMeasurements(0, &count, &bytes), 0u);
    EXPECT_EQ(Ecu().Request(0), (std::vector<uint8_t>{0x12}));
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 3), (std::vector<uint8_t>{1, 2, 3}));
    uint8_t *first = bytes;
    ASSERT_EQ(DvVagGetMeasurements(1, &count, &bytes), 0u);
    EXPECT_EQ(Ecu().Request(1), (std::vector<uint8_t>{0x11}));
    EXPECT_EQ(bytes, first);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 3), (std::vector<uint8_t>{4, 5, 6}));
    EXPECT_EQ(DvVagGetMeasurements(0, &count, &bytes), 1u);
    EXPECT_EQ(Log(), "\r\nBad zone count: 1 vs 3\r\n");
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 3), (std::vector<uint8_t>{4, 5, 6}));
    dvtest::LogCaptureReset();
    EXPECT_EQ(DvVagGetMeasurements(0, &count, &bytes), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'E7' vs 'F4'\r\n");
    EXPECT_EQ(DvVagGetMeasurements(0, &count, &bytes), 256u);
}

TEST_F(Measurements, ChannelReading) {
    Ecu().answers = {{0xFB, 0x12, 0x34}, {0xFB, 0x56}, {0xE7}, {0x0A}};
    uint16_t value = 0;
    ASSERT_EQ(DvVagGetMeasurement(7, &value), 0u);
    EXPECT_EQ(Ecu().requests[0], (std::vector<uint8_t>{0x04, 0x01, 0x08, 0x07, 0x03}));
    EXPECT_EQ(value, 0x1234);
    ASSERT_EQ(DvVagGetMeasurement(7, &value), 0u);
    EXPECT_EQ(value, 0x5600); // the missing low byte reads as 0
    EXPECT_EQ(DvVagGetMeasurement(7, &value), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'E7' vs 'FB'\r\n");
    EXPECT_EQ(DvVagGetMeasurement(7, &value), 256u);
    EXPECT_EQ(value, 0x5600);
}

TEST_F(Measurements, CloseFreesTheTableAndAcknowledges) {
    Ecu().answers = {{0x02, 128, 2, 0}, {0xF4, 1}, {0x09}, {0x0A}, {0xE7}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 0u);
    ASSERT_EQ(dv::MeasurementCurveCount(), 1u);
    EXPECT_EQ(DvVagCloseGroupMeasurements(), 0u);
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    EXPECT_EQ(Ecu().requests.back(), (std::vector<uint8_t>{0x03, 0x05, 0x09, 0x03}));
    EXPECT_EQ(DvVagCloseGroupMeasurements(), 256u);
    EXPECT_EQ(DvVagCloseGroupMeasurements(), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'E7' vs '09'\r\n");
}

TEST_F(Measurements, GroupListIsClearedAndFreedForTheConnection) {
    Ecu().answers = {{0x02, 128, 2, 0}, {0xF4, 1}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 0u);
    ASSERT_EQ(dv::MeasurementCurveCount(), 1u);
    dv::KwClearGroupList();
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    dv::KwFreeGroupList();
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
}

// ---- the simulated ECU
// ------------------------------------------------------------------------------

class SimulatedMeasurements : public ::testing::Test {
protected:
    void SetUp() override { ConnectSimulator(); }
    void TearDown() override {
        FreeValues(count, values);
        DvFree(bytes);
        DisconnectSimulator();
    }

    // Runs `call` and returns the virtual milliseconds it took.
    template <typename F> int64_t Took(F call) {
        const int64_t start = Fake().NowMs();
        call();
        return Fake().NowMs() - start;
    }

    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint8_t *bytes = nullptr;
};

TEST_F(SimulatedMeasurements, GroupZero) {
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagGetGroupMeasurements(0, 0, &count, &values); }), 200);
    ASSERT_EQ(code, 0u);
    ASSERT_EQ(count, 10u);
    const int32_t expected[] = {19, 15, 32, 85, 19, 252, 254, 5, 174, 2};
    for (uint32_t i = 0; i < 10; ++i) {
        EXPECT_EQ(values[i].kind, 0xFF);
        EXPECT_EQ(values[i].value, expected[i]);
        EXPECT_EQ(values[i].text, nullptr);
    }
}

TEST_F(SimulatedMeasurements, GroupOneSwingsWithTheClock) {
    // The value is read at the tick count after the 200 ms delay: t = 4500 gives
    // 1000 + trunc(100 sin(2.25 pi)) = 1070, t = 7500 gives 1000 + trunc(-70.7) = 930.
    Fake().now = 4300 * kFakeTicksPerMs;
    dv::KwConnection().lastSimulatedExchange = 4300;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 8000);
    EXPECT_EQ(values[1].kind, 5);
    EXPECT_EQ(values[1].value, 920);
    EXPECT_EQ(values[2].kind, 11);
    EXPECT_EQ(values[2].value, 1070);
    EXPECT_EQ(values[3].kind, 16);
    EXPECT_EQ(values[3].value, 23360);
    Fake().now = 7300 * kFakeTicksPerMs;
    dv::KwConnection().lastSimulatedExchange = 7300;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    EXPECT_EQ(values[2].value, 930);
}

TEST_F(SimulatedMeasurements, GroupOneInBasicSetting) {
    ASSERT_EQ(DvVagGetGroupMeasurements(1, 1, &count, &values), 0u);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[2].value, 1000);
    EXPECT_EQ(values[3].value, 23362);
}

TEST_F(SimulatedMeasurements, OtherGroupsAreRefusedAfter100Ms) {
    uint32_t code = 0;
    EXPECT_EQ(Took([&] { code = DvVagGetGroupMeasurements(0, 2, &count, &values); }), 100);
    EXPECT_EQ(code, 256u);
}

TEST_F(SimulatedMeasurements, IdleSimulatorWakesUpFor3000Ms) {
    Fake().now += 1001 * kFakeTicksPerMs;
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagGetGroupMeasurements(0, 0, &count, &values); }), 3200);
    EXPECT_EQ(code, 0u);
    // Within 1000 ms of the last exchange: the delay alone.
    Fake().now += 1000 * kFakeTicksPerMs;
    EXPECT_EQ(Took([&] { code = DvVagGetGroupMeasurements(0, 0, &count, &values); }), 200);
}

TEST_F(SimulatedMeasurements, SuppliedArrayMustMatch) {
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 0, &count, &values), 0u);
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 1u);
    EXPECT_EQ(count, 10u);
    EXPECT_EQ(values[2].value, 32);
    EXPECT_EQ(Log(), "");
}

TEST_F(SimulatedMeasurements, GroupValuesFollowTheAdaptationValue) {
    dv::KwConnection().simulator.adaptation[0] = 160;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 0, &count, &values), 0u);
    EXPECT_EQ(values[2].value, 40);
    FreeValues(count, values);
    values = nullptr;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u);
    EXPECT_EQ(values[0].value, 10000);
}

TEST_F(SimulatedMeasurements, RawReading) {
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagGetMeasurements(0, &count, &bytes); }), 200);
    ASSERT_EQ(code, 0u);
    ASSERT_EQ(count, 10u);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 10),
              (std::vector<uint8_t>{19, 12, 32, 85, 19, 252, 254, 5, 174, 2}));
    count = 9;
    EXPECT_EQ(DvVagGetMeasurements(0, &count, &bytes), 1u);
}

TEST_F(SimulatedMeasurements, ChannelReading) {
    uint16_t value = 0;
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagGetMeasurement(0, &value); }), 100);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(value, 800);
    EXPECT_EQ(Took([&] { code = DvVagGetMeasurement(1, &value); }), 100);
    EXPECT_EQ(code, 256u);
}

TEST_F(SimulatedMeasurements, CloseReturnsAtOnceAndLeavesTheTable) {
    auto *entry = static_cast<dv::MeasurementCurve *>(std::malloc(sizeof(dv::MeasurementCurve)));
    *entry = {128, 1, 0, nullptr};
    dv::SetMeasurementCurveTable(entry, 1);
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagCloseGroupMeasurements(); }), 0);
    EXPECT_EQ(code, 0u);
    EXPECT_EQ(dv::MeasurementCurveCount(), 1u);
    dv::FreeMeasurementCurveTable();
}

TEST_F(SimulatedMeasurements, BadModeReturns1) {
    EXPECT_EQ(Took([&] { EXPECT_EQ(DvVagGetGroupMeasurements(3, 1, &count, &values), 1u); }), 0);
    EXPECT_EQ(DvVagGetMeasurements(2, &count, &bytes), 1u);
}

// ---- full sessions on the bench
// ---------------------------------------------------------------------

class BenchMeasurements : public ::testing::Test {
protected:
    void SetUp() override { ConnectBench("kw1281-engine", 10400, 0x01); }
    void TearDown() override {
        FreeValues(count, values);
        DvFree(bytes);
        DisconnectBench();
    }

    void Read(uint32_t mode, uint8_t group) {
        FreeValues(count, values);
        values = nullptr;
        ASSERT_EQ(DvVagGetGroupMeasurements(mode, group, &count, &values), 0u);
    }

    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint8_t *bytes = nullptr;
};

TEST_F(BenchMeasurements, GroupsZeroToThreeAndBasicSetting) {
    Read(0, 0);
    ASSERT_EQ(count, 10u);
    EXPECT_EQ(values[0].kind, 0xFF);
    EXPECT_EQ(values[0].value, 19);
    EXPECT_EQ(values[9].value, 2);

    Read(0, 1);
    ASSERT_EQ(count, 4u);
    const int32_t group1[] = {8000, 400, 12700, 256};
    const uint8_t kinds1[] = {1, 5, 21, 16};
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(values[i].kind, kinds1[i]);
        EXPECT_EQ(values[i].value, group1[i]);
    }
    Read(1, 1);
    EXPECT_EQ(values[3].value, 258);

    Read(0, 2);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(TextOf(values[0]), u"WARM");
    EXPECT_EQ(TextOf(values[1]), u"2.Kennfeld");
    EXPECT_EQ(TextOf(values[2]), u"12:30");

    // Group 3 is curve-coded: a header answer, the request again, then the value bytes.
    const size_t titlesBefore = BenchKwEcu().TitlesReceived().size();
    Read(0, 3);
    EXPECT_EQ(BenchKwEcu().TitlesReceived().size(), titlesBefore + 2);
    EXPECT_EQ(dv::MeasurementCurveCount(), 4u);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].kind, 128);
    EXPECT_EQ(values[0].value, 1600);
    EXPECT_EQ(values[1].kind, 139);
    EXPECT_EQ(values[1].value, 50);
    EXPECT_EQ(values[2].kind, 141);
    EXPECT_EQ(TextOf(values[2]), u"EIN");
    EXPECT_EQ(values[3].kind, 142);
    EXPECT_EQ(TextOf(values[3]), u"K\u00C8");
    // The ECU sends the header once: the next reading is one request, decoded by the table.
    // The array is refilled in place; its texts are the host's to free first.
    const MeasuringValue *first = values;
    for (uint32_t i = 0; i < count; ++i) {
        DvFree(values[i].text);
        values[i].text = nullptr;
    }
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 3, &count, &values), 0u);
    EXPECT_EQ(values, first);
    EXPECT_EQ(BenchKwEcu().TitlesReceived().size(), titlesBefore + 3);
    EXPECT_EQ(values[1].value, 50);

    EXPECT_EQ(DvVagCloseGroupMeasurements(), 0u);
    EXPECT_EQ(BenchKwEcu().TitlesReceived().back(), 0x09);
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    Read(0, 3);
    EXPECT_EQ(dv::MeasurementCurveCount(), 4u);
    EXPECT_EQ(TextOf(values[2]), u"EIN");

    FreeValues(count, values);
    values = nullptr;
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 9, &count, &values), 256u);
    EXPECT_EQ(dv::KwConnection().state, dv::KwLinkState::Connected);
    EXPECT_EQ(Log(), "");
}

TEST_F(BenchMeasurements, RawAndChannelReadings) {
    ASSERT_EQ(DvVagGetMeasurements(1, &count, &bytes), 0u);
    ASSERT_EQ(count, 10u);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 10),
              (std::vector<uint8_t>{19, 15, 32, 85, 19, 252, 254, 5, 174, 2}));
    EXPECT_EQ(BenchKwEcu().TitlesReceived().back(), 0x11);
    uint16_t value = 0;
    ASSERT_EQ(DvVagGetMeasurement(0, &value), 0u);
    EXPECT_EQ(value, 800);
    ASSERT_EQ(DvVagGetMeasurement(1, &value), 0u);
    EXPECT_EQ(value, 0x1234);
    EXPECT_EQ(DvVagGetMeasurement(2, &value), 256u);
    EXPECT_EQ(value, 0x1234);
}

TEST_F(BenchMeasurements, ArrayOfAnotherGroupWithAnotherCount) {
    Read(0, 1);
    MeasuringValue *first = values;
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 2, &count, &values), 1u);
    EXPECT_EQ(values, first);
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(values[0].value, 8000);
    EXPECT_EQ(Log(), "\r\nBad group measurement count: 3 vs 4\r\n");
}

TEST_F(BenchMeasurements, LostLinkDuringAGroupReadingIsReestablished) {
    BenchKwEcu().faults.dropLinkAtBlock = BenchKwEcu().BlocksReceived() + 1;
    Read(0, 1);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].value, 8000);
    EXPECT_EQ(BenchKwEcu().LinksUp(), 2);
    EXPECT_TRUE(LogHas("\r\nReestablishing connection\r\n"));
    EXPECT_EQ(dv::KwConnection().state, dv::KwLinkState::Connected);
}

TEST_F(BenchMeasurements, CloseReestablishesOnceWhenTheAcknowledgeIsLost) {
    Read(0, 3);
    ASSERT_EQ(dv::MeasurementCurveCount(), 4u);
    BenchKwEcu().faults.dropLinkAtBlock = BenchKwEcu().BlocksReceived() + 1;
    EXPECT_EQ(DvVagCloseGroupMeasurements(), 0u);
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    EXPECT_EQ(BenchKwEcu().LinksUp(), 2);
    EXPECT_TRUE(LogHas("\r\nReestablishing connection\r\n"));
    EXPECT_TRUE(LogHas("\r\nReconnected successfully\r\n"));
}

TEST_F(BenchMeasurements, CloseReestablishesOnceWhenTheAnswerIsLost) {
    BenchKwEcu().faults.silentBlock = BenchKwEcu().BlocksReceived() + 1;
    EXPECT_EQ(DvVagCloseGroupMeasurements(), 0u);
    EXPECT_EQ(BenchKwEcu().LinksUp(), 2);
    EXPECT_TRUE(LogHas("No ECU data"));
    EXPECT_TRUE(LogHas("\r\nReestablishing connection\r\n"));
}

TEST_F(BenchMeasurements, DisconnectFreesAndConnectClearsTheCurveTable) {
    Read(0, 3);
    ASSERT_EQ(dv::MeasurementCurveCount(), 4u);
    DvVagDisconnect();
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    auto *entry = static_cast<dv::MeasurementCurve *>(std::malloc(sizeof(dv::MeasurementCurve)));
    *entry = {128, 1, 0, nullptr};
    dv::SetMeasurementCurveTable(entry, 1);
    DvChar **descriptions = nullptr;
    uint32_t interval = 0;
    ASSERT_EQ(DvVagConnect(reinterpret_cast<const DvChar *>(u"COM1"), 10400, 0x01, &descriptions,
                           &interval),
              0u);
    for (DvChar **d = descriptions; *d != nullptr; ++d) {
        DvFree(*d);
    }
    DvFree(descriptions);
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
}

TEST_F(Measurements, CloseReturnsAFailedExchangeSectionAsIs) {
    Ecu().answers = {{0x02, 128, 2, 0}, {0xF4, 1}};
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 4, &count, &values), 0u);
    const size_t requests = Ecu().requests.size();
    Fake().Fail(FakeCall::GetPriority, Fake().CallCount(FakeCall::GetPriority) + 1, 5);
    EXPECT_EQ(DvVagCloseGroupMeasurements(), 1u);
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u); // freed before the section
    EXPECT_EQ(Ecu().requests.size(), requests);
}

} // namespace
