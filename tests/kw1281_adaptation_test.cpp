// Part 4.7: adaptation read, test, save and clear, on a scripted ECU on the fake port and on the
// simulated ECU at 0x80 (with its login).
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kw1281_service_ecu.h"

namespace {

using namespace kwtest;

class Adaptation : public ::testing::Test {
protected:
    void SetUp() override { ConnectFakeEcu(); }
    void TearDown() override {
        FreeValues(count, values);
        DisconnectFakeEcu();
    }

    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint16_t value = 0xBEEF;
};

TEST_F(Adaptation, ReadWithMeasuringValues) {
    Ecu().answers = {{0xE6, 0x04, 0x01, 0x2C, 0xE7, 0x01, 2, 3, 0x05, 10, 120}};
    ASSERT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 0u);
    EXPECT_EQ(Ecu().requests[0], (std::vector<uint8_t>{0x04, 0x01, 0x21, 0x04, 0x03}));
    EXPECT_EQ(value, 300);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 12);
    EXPECT_EQ(values[1].kind, 5);
    EXPECT_EQ(values[1].value, 200);
    EXPECT_EQ(dv::KwConnection().state, dv::KwLinkState::Connected);
}

TEST_F(Adaptation, AnswerOfExactlySixBytesGivesAnEmptyArray) {
    Ecu().answers = {{0xE6, 0x04, 0x00, 0x80}, {0xE6, 0x04, 0x00, 0x81}};
    ASSERT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 0u);
    EXPECT_EQ(value, 0x80);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(values, nullptr);
    // A supplied array of count 0 takes the next empty answer.
    MeasuringValue *first = values;
    ASSERT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 0u);
    EXPECT_EQ(value, 0x81);
    EXPECT_EQ(values, first);
}

TEST_F(Adaptation, EmptyAnswerForASuppliedArrayWithValues) {
    Ecu().answers = {{0xE6, 0x04, 0x01, 0x00, 0xE7, 0x01, 1, 1}, {0xE6, 0x04, 0x00, 0x81}};
    ASSERT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 1u);
    EXPECT_EQ(value, 0x81);
    EXPECT_EQ(Log(), "\r\nBad group measurement count: 0 vs 1\r\n");
}

TEST_F(Adaptation, AnswerForAnotherChannelReturns7AndWritesNoValue) {
    Ecu().answers = {{0xE6, 0x05, 0x01, 0x2C}};
    EXPECT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 7u);
    EXPECT_EQ(value, 0xBEEF);
    EXPECT_EQ(values, nullptr);
    EXPECT_EQ(Log(), "\r\nBad adaption channel code: '05' vs '04'\r\n");
}

TEST_F(Adaptation, RawInnerValuesFillTheFirstWord) {
    Ecu().answers = {{0xE6, 0x02, 0x00, 0x10, 0xF4, 7, 200}};
    ASSERT_EQ(DvVagGetGroupAdaption(2, &value, &count, &values), 0u);
    ASSERT_EQ(count, 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        uint8_t word[4];
        std::memcpy(word, &values[i], sizeof word);
        EXPECT_EQ(word[0], 0xFF);
        EXPECT_EQ(word[3], 0xFF);
        EXPECT_EQ(values[i].kind, 0xFF);
        EXPECT_EQ(values[i].text, nullptr);
    }
    EXPECT_EQ(values[0].value, 7);
    EXPECT_EQ(values[1].value, 200);
}

TEST_F(Adaptation, UnexpectedTitlesAndRefusal) {
    Ecu().answers = {{0xE7, 0x01, 1, 1}, {0xE6, 0x04, 0, 1, 0xFC, 1, 1, 1}, {0x0A}};
    EXPECT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'E7' vs 'E6'\r\n");
    dvtest::LogCaptureReset();
    EXPECT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'FC' vs 'E7' or 'F4'\r\n");
    EXPECT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 256u);
}

TEST_F(Adaptation, SuppliedArrayWithAnotherCount) {
    Ecu().answers = {{0xE6, 0x04, 0, 1, 0xE7, 0x01, 1, 1},
                     {0xE6, 0x04, 0, 1, 0xE7, 0x01, 1, 1, 0x01, 2, 2},
                     {0xE6, 0x04, 0, 1, 0xF4, 1, 2, 3}};
    ASSERT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 0u);
    EXPECT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 1u);
    EXPECT_EQ(DvVagGetGroupAdaption(4, &value, &count, &values), 1u);
    EXPECT_EQ(Log(), "\r\nBad group measurement count: 2 vs 1\r\n"
                     "\r\nBad group measurement count: 3 vs 1\r\n");
    EXPECT_EQ(values[0].value, 2);
}

TEST_F(Adaptation, TestAndSaveRequests) {
    Ecu().answers = {{0xE6, 0x07, 0x01, 0x02}, {0xE6, 0x07, 0x01, 0x02}};
    uint16_t out = 0;
    ASSERT_EQ(DvVagTestGroupAdaption(7, 0x0102, &out, &count, &values), 0u);
    EXPECT_EQ(Ecu().Request(0), (std::vector<uint8_t>{0x22, 0x07, 0x01, 0x02}));
    EXPECT_EQ(out, 0x0102);
    ASSERT_EQ(DvVagSaveGroupAdaption(0x7F01E240, 7, 0x0102, &out, &count, &values), 0u);
    EXPECT_EQ(Ecu().requests[1],
              (std::vector<uint8_t>{0x09, 0x03, 0x2A, 0x07, 0x01, 0x02, 0x01, 0xE2, 0x40, 0x03}));
}

TEST_F(Adaptation, ClearAcceptsAcknowledgeAndAdaptationAnswers) {
    Ecu().answers = {{0x09}, {0xE6, 0, 0, 0}, {0x0A}, {0xE7}};
    EXPECT_EQ(DvVagClearAdaptions(12345), 0u);
    EXPECT_EQ(Ecu().requests[0],
              (std::vector<uint8_t>{0x09, 0x01, 0x2A, 0x00, 0x00, 0x00, 0x00, 0x30, 0x39, 0x03}));
    EXPECT_EQ(DvVagClearAdaptions(12345), 0u);
    EXPECT_EQ(DvVagClearAdaptions(12345), 256u);
    EXPECT_EQ(DvVagClearAdaptions(12345), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'E7' vs '09'\r\n");
}

// ---- the simulated ECU
// ------------------------------------------------------------------------------

class SimulatedAdaptation : public ::testing::Test {
protected:
    void SetUp() override { ConnectSimulator(); }
    void TearDown() override {
        FreeValues(count, values);
        DisconnectSimulator();
    }

    void Login() { ASSERT_EQ(DvVagLogin(0, 24680), 0u); }

    template <typename F> int64_t Took(F call) {
        const int64_t start = Fake().NowMs();
        call();
        return Fake().NowMs() - start;
    }

    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint16_t value = 0;
};

TEST_F(SimulatedAdaptation, ReadChannelOne) {
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagGetGroupAdaption(1, &value, &count, &values); }), 200);
    ASSERT_EQ(code, 0u);
    EXPECT_EQ(value, 128);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 8000);
    EXPECT_EQ(values[1].value, 920);
    EXPECT_EQ(values[2].kind, 11);
    EXPECT_EQ(values[3].kind, 16);
    EXPECT_EQ(values[3].value, 23360);
}

TEST_F(SimulatedAdaptation, ReadChannelTwoAndOthers) {
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagGetGroupAdaption(2, &value, &count, &values); }), 100);
    ASSERT_EQ(code, 0u);
    EXPECT_EQ(value, 128);
    EXPECT_EQ(count, 0u);
    EXPECT_NE(values, nullptr);
    EXPECT_EQ(DvVagGetGroupAdaption(1, &value, &count, &values), 1u); // count 0 supplied
    EXPECT_EQ(Took([&] { code = DvVagGetGroupAdaption(3, &value, &count, &values); }), 100);
    EXPECT_EQ(code, 256u);
}

TEST_F(SimulatedAdaptation, TestNeedsTheLogin) {
    uint32_t code = 0;
    EXPECT_EQ(Took([&] { code = DvVagTestGroupAdaption(1, 100, &value, &count, &values); }), 100);
    EXPECT_EQ(code, 256u);
    EXPECT_EQ(DvVagClearAdaptions(0), 256u);
    EXPECT_EQ(DvVagSaveGroupAdaption(0, 1, 100, &value, &count, &values), 256u);
}

TEST_F(SimulatedAdaptation, TestValueIsClampedAndNotStored) {
    Login();
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagTestGroupAdaption(1, 40, &value, &count, &values); }), 200);
    ASSERT_EQ(code, 0u);
    EXPECT_EQ(value, 88);
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].value, 88 * 8000 / 128);
    ASSERT_EQ(DvVagTestGroupAdaption(1, 200, &value, &count, &values), 0u);
    EXPECT_EQ(value, 168);
    EXPECT_EQ(values[0].value, 10500);
    ASSERT_EQ(DvVagGetGroupAdaption(1, &value, &count, &values), 0u);
    EXPECT_EQ(value, 128);
}

TEST_F(SimulatedAdaptation, ChannelTwoTestKeepsTheValue) {
    Login();
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagTestGroupAdaption(2, 1000, &value, &count, &values); }), 100);
    ASSERT_EQ(code, 0u);
    EXPECT_EQ(value, 1000);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(DvVagTestGroupAdaption(3, 1, &value, &count, &values), 256u);
}

TEST_F(SimulatedAdaptation, SaveStoresAndClearResets) {
    Login();
    uint32_t code = 9;
    EXPECT_EQ(Took([&] { code = DvVagSaveGroupAdaption(0, 1, 150, &value, &count, &values); }),
              200);
    ASSERT_EQ(code, 0u);
    EXPECT_EQ(value, 150);
    EXPECT_EQ(values[0].value, 150 * 8000 / 128);
    ASSERT_EQ(DvVagGetGroupAdaption(1, &value, &count, &values), 0u);
    EXPECT_EQ(value, 150);
    // The group readings follow the stored value.
    uint16_t channel = 0;
    ASSERT_EQ(DvVagGetMeasurement(0, &channel), 0u);
    EXPECT_EQ(channel, 150 * 800 / 128);
    FreeValues(count, values);
    values = nullptr;
    ASSERT_EQ(DvVagSaveGroupAdaption(0, 2, 7, &value, &count, &values), 0u);
    ASSERT_EQ(DvVagGetGroupAdaption(2, &value, &count, &values), 0u);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(Took([&] { code = DvVagClearAdaptions(0); }), 100);
    EXPECT_EQ(code, 0u);
    ASSERT_EQ(DvVagGetGroupAdaption(2, &value, &count, &values), 0u);
    EXPECT_EQ(value, 128);
    FreeValues(count, values);
    values = nullptr;
    ASSERT_EQ(DvVagGetGroupAdaption(1, &value, &count, &values), 0u);
    EXPECT_EQ(value, 128);
}

TEST_F(SimulatedAdaptation, SaveClampsChannelOne) {
    Login();
    ASSERT_EQ(DvVagSaveGroupAdaption(0, 1, 1, &value, &count, &values), 0u);
    EXPECT_EQ(value, 88);
    EXPECT_EQ(DvVagSaveGroupAdaption(0, 9, 1, &value, &count, &values), 256u);
}

// ---- full sessions on the bench
// ---------------------------------------------------------------------

class BenchAdaptation : public ::testing::Test {
protected:
    void TearDown() override {
        FreeValues(count, values);
        DisconnectBench();
    }

    void Release() {
        FreeValues(count, values);
        values = nullptr;
        count = 0;
    }

    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    uint16_t value = 0;
};

TEST_F(BenchAdaptation, EngineReadTestSaveClearWithLogin) {
    ConnectBench("kw1281-engine", 10400, 0x01);
    ASSERT_EQ(DvVagGetGroupAdaption(1, &value, &count, &values), 0u);
    EXPECT_EQ(value, 128);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 14000);
    EXPECT_EQ(values[1].value, 400);
    // Without login the ECU refuses to try or store a value.
    uint16_t out = 0;
    EXPECT_EQ(DvVagTestGroupAdaption(1, 100, &out, &count, &values), 256u);
    ASSERT_EQ(DvVagLogin(4711, 12233), 0u);
    ASSERT_EQ(DvVagTestGroupAdaption(1, 40, &out, &count, &values), 0u);
    EXPECT_EQ(out, 88);
    EXPECT_EQ(BenchKwEcu().AdaptationValue(1), 128);
    ASSERT_EQ(DvVagSaveGroupAdaption(4711, 1, 150, &out, &count, &values), 0u);
    EXPECT_EQ(out, 150);
    EXPECT_EQ(BenchKwEcu().AdaptationValue(1), 150);
    EXPECT_EQ(BenchKwEcu().WorkshopCode(), 4711u);
    ASSERT_EQ(DvVagGetGroupAdaption(1, &value, &count, &values), 0u);
    EXPECT_EQ(value, 150);

    Release();
    ASSERT_EQ(DvVagGetGroupAdaption(2, &value, &count, &values), 0u);
    EXPECT_EQ(value, 30000);
    EXPECT_EQ(count, 0u);
    Release();
    ASSERT_EQ(DvVagGetGroupAdaption(3, &value, &count, &values), 0u);
    EXPECT_EQ(value, 5);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 0xFF);
    EXPECT_EQ(values[0].value, 0x11);
    EXPECT_EQ(values[1].value, 0x22);

    // Clearing is answered with 0xE6 by this ECU.
    ASSERT_EQ(DvVagClearAdaptions(4711), 0u);
    EXPECT_EQ(BenchKwEcu().AdaptationValue(1), 128);
    EXPECT_EQ(DvVagGetGroupAdaption(9, &value, &count, &values), 256u);
    EXPECT_EQ(Log(), "");
}

TEST_F(BenchAdaptation, ClusterChannelWithValues) {
    ConnectBench("kw1281-cluster", 9600, 0x17);
    ASSERT_EQ(DvVagGetGroupAdaption(9, &value, &count, &values), 0u);
    EXPECT_EQ(value, 1000);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(values[0].kind, 36);
    EXPECT_EQ(values[0].value, 1000);
    ASSERT_EQ(DvVagLogin(4711, 13861), 0u);
    uint16_t out = 0;
    ASSERT_EQ(DvVagSaveGroupAdaption(4711, 9, 12000, &out, &count, &values), 0u);
    EXPECT_EQ(out, 9999);
    Release();
    ASSERT_EQ(DvVagTestGroupAdaption(30, 10, &out, &count, &values), 0u);
    EXPECT_EQ(out, 50);
    EXPECT_EQ(count, 0u);
}

} // namespace
