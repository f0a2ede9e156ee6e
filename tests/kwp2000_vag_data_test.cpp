// Part 6.3: the manufacturer's data services (local-id values, actuator test, actuator data), on
// the fake platform with a scripted ECU.
#include "kwp2000_service_fixture.h"

#include <string>

namespace kwptest {
namespace {

using dv::IsoLinkState;

class VagIsoData : public KwpFakeTest {};

// ---- values by local identifier
// -------------------------------------------------------------------

TEST_F(VagIsoData, FirstCallAllocatesSecondCallDecodesIntoTheSameArray) {
    Start();
    // (1, 2, 3): 12; (5, 4, 5): -380; then (1, 3, 3): 18; (5, 4, 6): -376.
    ecu.AnswerInTurn({{0x61, 0x01, 0x01, 0x02, 0x03, 0x05, 0x04, 0x05},
                      {0x61, 0x01, 0x01, 0x03, 0x03, 0x05, 0x04, 0x06}});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x21, 0x01, 0xA5}));
    ASSERT_EQ(count, 2u);
    ASSERT_NE(values, nullptr);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 12);
    EXPECT_EQ(values[1].kind, 5);
    EXPECT_EQ(values[1].value, -380);
    MeasuringValue *const first = values;

    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0u);
    EXPECT_EQ(values, first);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(values[0].value, 18);
    EXPECT_EQ(values[1].value, -376);
    DvFree(values);
}

TEST_F(VagIsoData, ChangedCountOnTheSecondCallGives1AndLeavesTheArray) {
    Start();
    ecu.AnswerInTurn({{0x61, 0x07, 0x01, 0x02, 0x03, 0x05, 0x04, 0x05},
                      {0x61, 0x07, 0x01, 0x09, 0x09, 0x05, 0x09, 0x09, 0x01, 0x01, 0x01}});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    ASSERT_EQ(DvVagIsoReadDataByLocalId(7, &count, &values), 0u);
    MeasuringValue *const first = values;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(7, &count, &values), 1u);
    EXPECT_TRUE(Logged("Bad measurement zone count: 3 vs 2\r\n"));
    EXPECT_EQ(values, first);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(values[0].value, 12);
    EXPECT_EQ(values[1].value, -380);
    DvFree(values);
}

TEST_F(VagIsoData, CountedTextsAndEmptyData) {
    Start();
    ecu.AnswerInTurn({{0x61, 0x02, 0x5F, 0x03, 'R', 'P', 'M', 0x10, 0x01, 0x02}, {0x61, 0x02}});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(2, &count, &values), 0u);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 0x5F);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(values[0].text)), u"RPM");
    EXPECT_EQ(values[1].kind, 16);
    EXPECT_EQ(values[1].value, 258);
    DvFree(values[0].text);
    DvFree(values);

    values = nullptr;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(2, &count, &values), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(values, nullptr);
}

TEST_F(VagIsoData, WrongLocalIdGives7) {
    Start();
    ecu.AnswerAlways({0x61, 0x02, 0x01, 0x02, 0x03});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 7u);
    EXPECT_TRUE(Logged("Bad local id : '02' vs '01'\r\n"));
    EXPECT_EQ(values, nullptr);
    EXPECT_EQ(count, 0u);
}

TEST_F(VagIsoData, ConversionFailureOnTheFirstCallFreesTheArray) {
    Start();
    ecu.AnswerAlways({0x61, 0x03, 0x01, 0x02, 0x03, 0x5F, 0x02, 'A', 'B'});
    Fake().Fail(FakeCall::AnsiToWide, Fake().CallCount(FakeCall::AnsiToWide) + 1, 0x459);
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadDataByLocalId(3, &count, &values), 1u);
    EXPECT_TRUE(Logged("Could not convert to Unicode (0x00000459)\r\n"));
    EXPECT_EQ(values, nullptr);
}

TEST_F(VagIsoData, ConversionFailureIntoTheHostsArrayKeepsIt) {
    Start();
    ecu.AnswerAlways({0x61, 0x03, 0x01, 0x02, 0x03, 0x5F, 0x02, 'A', 'B'});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    ASSERT_EQ(DvVagIsoReadDataByLocalId(3, &count, &values), 0u);
    MeasuringValue *const first = values;
    DvFree(values[1].text);
    Fake().Fail(FakeCall::AnsiToWide, Fake().CallCount(FakeCall::AnsiToWide) + 1, 0x459);
    EXPECT_EQ(DvVagIsoReadDataByLocalId(3, &count, &values), 1u);
    EXPECT_EQ(values, first);
    DvFree(values);
}

TEST_F(VagIsoData, LocalIdFailurePaths) {
    Start();
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    ecu.AnswerAlways({0x7F, 0x21, 0x31});
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 0x131u);
    ecu.AnswerAlways({0x62, 0x01});
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 13u);
    EXPECT_TRUE(Logged("Bad service id : '62' vs '61'\r\n"));
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, nullptr, &values), 1u);
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, nullptr), 1u);
    EXPECT_EQ(values, nullptr);
    ecu.respond = [](const Bytes &) { return std::vector<Bytes>{}; };
    EXPECT_EQ(DvVagIsoReadDataByLocalId(1, &count, &values), 8u);
    EXPECT_EQ(IsoLinkState().connected, 2u);
}

// ---- actuator test
// ----------------------------------------------------------------------------------

TEST_F(VagIsoData, ActuatorStartAndStepRequests) {
    Start();
    ecu.respond = [](const Bytes &request) {
        return std::vector<Bytes>{Answer({0x71, request.at(1), 0x01, 0x02})};
    };
    EXPECT_EQ(DvVagIsoTestActuator(0), 0u);
    EXPECT_EQ(Written(), (Bytes{0x84, 0x10, 0xF1, 0x31, 0xB8, 0x01, 0x02, 0x71}));
    Forget();
    EXPECT_EQ(DvVagIsoTestActuator(1), 0u);
    EXPECT_EQ(Written(), (Bytes{0x84, 0x10, 0xF1, 0x31, 0xB9, 0x01, 0x02, 0x72}));
    EXPECT_EQ(DvVagIsoTestActuator(0x100), 0u);
    EXPECT_EQ(ecu.requests.back(), (Bytes{0x31, 0xB9, 0x01, 0x02}));
}

TEST_F(VagIsoData, StepAnswer71B90103GivesBadFunctionCode) {
    Start();
    ecu.AnswerAlways({0x71, 0xB9, 0x01, 0x03});
    EXPECT_EQ(DvVagIsoTestActuator(1), 7u);
    EXPECT_TRUE(Logged("Bad function code : '0103' vs '0102'\r\n"));
}

TEST_F(VagIsoData, ActuatorEchoChecks) {
    Start();
    ecu.AnswerAlways({0x71, 0xB8, 0x01, 0x02});
    EXPECT_EQ(DvVagIsoTestActuator(1), 7u);
    EXPECT_TRUE(Logged("Bad routine local id : 'B8' vs 'B9'\r\n"));
    ecu.AnswerAlways({0x71, 0xB8, 0x01});
    EXPECT_EQ(DvVagIsoTestActuator(0), 7u);
    EXPECT_TRUE(Logged("Bad function code : '0100' vs '0102'\r\n"));
    ecu.AnswerAlways({0x7F, 0x31, 0x22});
    EXPECT_EQ(DvVagIsoTestActuator(1), 0x122u);
    ecu.AnswerAlways({0x70, 0xB9, 0x01, 0x02});
    EXPECT_EQ(DvVagIsoTestActuator(1), 13u);
    EXPECT_TRUE(Logged("Bad service id : '70' vs '71'\r\n"));
}

TEST_F(VagIsoData, ActuatorDataFromByte5) {
    Start();
    ecu.AnswerAlways({0x71, 0xBA, 0x01, 0x02, 0x99, 0x01, 0x02, 0x03, 0x12, 0x0A, 0x0B});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    EXPECT_EQ(Written(), (Bytes{0x84, 0x10, 0xF1, 0x31, 0xBA, 0x01, 0x02, 0x73}));
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 12);
    // (18, 10, 11): 10 * 11 * 4 / 10 = 44.
    EXPECT_EQ(values[1].kind, 18);
    EXPECT_EQ(values[1].value, 44);
    MeasuringValue *const first = values;
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    EXPECT_EQ(values, first);
    DvFree(values);
}

TEST_F(VagIsoData, ActuatorDataEchoChecks) {
    Start();
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    ecu.AnswerAlways({0x71, 0xB9, 0x01, 0x02, 0x00});
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 7u);
    EXPECT_TRUE(Logged("Bad routine local id : 'B9' vs 'BA'\r\n"));
    ecu.AnswerAlways({0x71, 0xBA, 0x02, 0x02, 0x00});
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 7u);
    EXPECT_TRUE(Logged("Bad function code : '0202' vs '0102'\r\n"));
    EXPECT_EQ(values, nullptr);
    ecu.AnswerAlways({0x71, 0xBA, 0x01, 0x02});
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, &values), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(values, nullptr);
    EXPECT_EQ(DvVagIsoReadActuatorData(nullptr, &values), 1u);
    EXPECT_EQ(DvVagIsoReadActuatorData(&count, nullptr), 1u);
}

} // namespace
} // namespace kwptest
