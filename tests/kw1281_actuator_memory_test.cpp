// Part 4.4: the actuator test and the memory reads, on a scripted ECU on the fake port and on
// the simulated ECU at 0x80.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kw1281_service_ecu.h"

namespace {

using namespace kwtest;

class ActuatorMemory : public ::testing::Test {
protected:
    void SetUp() override { ConnectFakeEcu(); }
    void TearDown() override { DisconnectFakeEcu(); }
};

TEST_F(ActuatorMemory, ActuatorStepsUntilTheEcuAcknowledges) {
    Ecu().answers = {{0xF5, 0x01, 0x1A}, {0xF5, 0x04, 0xDF}, {0x09}};
    uint16_t code = 0xFFFF;
    ASSERT_EQ(DvVagTestActuator(&code), 0u);
    EXPECT_EQ(Ecu().requests[0], (std::vector<uint8_t>{0x04, 0x01, 0x04, 0x00, 0x03}));
    EXPECT_EQ(code, 282);
    ASSERT_EQ(DvVagTestActuator(&code), 0u);
    EXPECT_EQ(code, 1247);
    ASSERT_EQ(DvVagTestActuator(&code), 0u);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(dv::KwConnection().state, dv::KwLinkState::Connected);
}

TEST_F(ActuatorMemory, ActuatorRefusalAndUnexpectedTitle) {
    Ecu().answers = {{0x0A}, {0xFE, 1, 2}};
    uint16_t code = 77;
    EXPECT_EQ(DvVagTestActuator(&code), 256u);
    EXPECT_EQ(DvVagTestActuator(&code), 13u);
    EXPECT_EQ(code, 77);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'FE' vs 'F5'\r\n");
}

TEST_F(ActuatorMemory, RamReadRequestAndCopy) {
    Ecu().answers = {{0xFE, 1, 2, 3, 4, 5, 6, 7, 8}};
    uint8_t buffer[16] = {};
    uint8_t countRead = 0xEE;
    ASSERT_EQ(DvVagGetRamData(0x1234, 16, &countRead, buffer), 0u);
    EXPECT_EQ(Ecu().requests[0], (std::vector<uint8_t>{0x06, 0x01, 0x01, 16, 0x12, 0x34, 0x03}));
    EXPECT_EQ(countRead, 8);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 9),
              (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8, 0}));
}

TEST_F(ActuatorMemory, RequestingFewerBytesThanSentDropsTheRest) {
    Ecu().answers = {{0xFE, 1, 2, 3, 4, 5, 6, 7, 8}};
    uint8_t buffer[8] = {};
    uint8_t countRead = 0;
    ASSERT_EQ(DvVagGetRamData(0x0010, 4, &countRead, buffer), 0u);
    EXPECT_EQ(countRead, 4);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 8),
              (std::vector<uint8_t>{1, 2, 3, 4, 0, 0, 0, 0}));
}

TEST_F(ActuatorMemory, EmptyDataBlockGivesCountReadZero) {
    Ecu().answers = {{0xFE}};
    uint8_t buffer[4] = {9, 9, 9, 9};
    uint8_t countRead = 0xEE;
    ASSERT_EQ(DvVagGetRamData(0, 4, &countRead, buffer), 0u);
    EXPECT_EQ(countRead, 0);
    EXPECT_EQ(buffer[0], 9);
}

TEST_F(ActuatorMemory, EpromAndEepromTitles) {
    Ecu().answers = {{0xFD, 1}, {0xEF, 2}, {0xFE, 3}, {0xE6, 4},
                     {0xEF, 5}, {0xFD, 6}, {0xFE, 7}, {0xE6, 8}};
    uint8_t buffer[4] = {};
    uint8_t countRead = 0;
    for (uint8_t expected = 1; expected <= 3; ++expected) {
        ASSERT_EQ(DvVagGetEpromData(0x0102, 1, &countRead, buffer), 0u);
        EXPECT_EQ(buffer[0], expected);
    }
    EXPECT_EQ(DvVagGetEpromData(0x0102, 1, &countRead, buffer), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'E6' vs 'FD'\r\n");
    for (uint8_t expected = 5; expected <= 8; ++expected) {
        ASSERT_EQ(DvVagGetEepromData(0x0304, 1, &countRead, buffer), 0u);
        EXPECT_EQ(buffer[0], expected);
    }
    EXPECT_EQ(Ecu().Request(0), (std::vector<uint8_t>{0x03, 1, 0x01, 0x02}));
    EXPECT_EQ(Ecu().Request(4), (std::vector<uint8_t>{0x19, 1, 0x03, 0x04}));
}

TEST_F(ActuatorMemory, MemoryReadRefusalAndUnexpectedTitle) {
    Ecu().answers = {{0x0A}, {0xFD, 1}, {0xFD, 1}};
    uint8_t buffer[4] = {};
    uint8_t countRead = 0xEE;
    EXPECT_EQ(DvVagGetRamData(0, 1, &countRead, buffer), 256u);
    EXPECT_EQ(DvVagGetRamData(0, 1, &countRead, buffer), 13u);
    EXPECT_EQ(Log(), "\r\nBad block type id: 'FD' vs 'FE'\r\n");
    dvtest::LogCaptureReset();
    EXPECT_EQ(DvVagGetEepromData(0, 1, &countRead, buffer), 0u);
    EXPECT_EQ(countRead, 1);
}

TEST_F(ActuatorMemory, CountIsSentAsItsLowByte) {
    Ecu().answers = {{0xFE, 1}};
    uint8_t buffer[0x110] = {};
    uint8_t countRead = 0;
    ASSERT_EQ(DvVagGetRamData(0x0001, 0x105, &countRead, buffer), 0u);
    EXPECT_EQ(Ecu().Request(0), (std::vector<uint8_t>{0x01, 0x05, 0x00, 0x01}));
    EXPECT_EQ(countRead, 1);
}

// ---- the simulated ECU
// ------------------------------------------------------------------------------

class SimulatedActuatorMemory : public ::testing::Test {
protected:
    void SetUp() override { ConnectSimulator(); }
    void TearDown() override { DisconnectSimulator(); }
};

TEST_F(SimulatedActuatorMemory, ActuatorSequenceWraps) {
    const uint16_t expected[] = {282, 1247, 0, 282};
    for (uint16_t step : expected) {
        uint16_t code = 0xFFFF;
        const int64_t start = Fake().NowMs();
        ASSERT_EQ(DvVagTestActuator(&code), 0u);
        EXPECT_EQ(Fake().NowMs() - start, 100);
        EXPECT_EQ(code, step);
    }
}

TEST_F(SimulatedActuatorMemory, RamReadAtAddress10) {
    uint8_t buffer[32] = {};
    uint8_t countRead = 0;
    const int64_t start = Fake().NowMs();
    ASSERT_EQ(DvVagGetRamData(10, 20, &countRead, buffer), 0u);
    EXPECT_EQ(Fake().NowMs() - start, 200);
    ASSERT_EQ(countRead, 9);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 9), std::string("RAM data\0", 9));
}

TEST_F(SimulatedActuatorMemory, AddressAtTheEndIsRefused) {
    uint8_t buffer[32] = {};
    uint8_t countRead = 0xEE;
    EXPECT_EQ(DvVagGetRamData(19, 1, &countRead, buffer), 256u);
    EXPECT_EQ(countRead, 0xEE);
    ASSERT_EQ(DvVagGetRamData(18, 5, &countRead, buffer), 0u);
    EXPECT_EQ(countRead, 1);
    EXPECT_EQ(buffer[0], 0);
}

TEST_F(SimulatedActuatorMemory, EpromAndEepromTexts) {
    uint8_t buffer[32] = {};
    uint8_t countRead = 0;
    ASSERT_EQ(DvVagGetEpromData(0, 32, &countRead, buffer), 0u);
    EXPECT_EQ(countRead, 21);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 21),
              std::string("Simulator EPROM data\0", 21));
    EXPECT_EQ(DvVagGetEpromData(21, 1, &countRead, buffer), 256u);
    ASSERT_EQ(DvVagGetEepromData(10, 6, &countRead, buffer), 0u);
    EXPECT_EQ(countRead, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 6), "EEPROM");
    ASSERT_EQ(DvVagGetEepromData(21, 6, &countRead, buffer), 0u);
    EXPECT_EQ(countRead, 1);
    EXPECT_EQ(DvVagGetEepromData(22, 1, &countRead, buffer), 256u);
}

// ---- full sessions on the bench
// ---------------------------------------------------------------------

class BenchActuatorMemory : public ::testing::Test {
protected:
    void SetUp() override { ConnectBench("kw1281-engine", 10400, 0x01); }
    void TearDown() override { DisconnectBench(); }
};

TEST_F(BenchActuatorMemory, ActuatorStepsToTheEnd) {
    const uint16_t expected[] = {0x0119, 0x04DF, 0x0202, 0, 0x0119};
    for (uint16_t step : expected) {
        uint16_t code = 0xFFFF;
        ASSERT_EQ(DvVagTestActuator(&code), 0u);
        EXPECT_EQ(code, step);
        EXPECT_EQ(BenchKwEcu().TitlesReceived().back(), 0x04);
    }
    EXPECT_EQ(Log(), "");
}

TEST_F(BenchActuatorMemory, MemoryReads) {
    uint8_t buffer[32] = {};
    uint8_t countRead = 0;
    ASSERT_EQ(DvVagGetRamData(7, 20, &countRead, buffer), 0u);
    ASSERT_EQ(countRead, 9);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 9), std::string("RAM data\0", 9));
    ASSERT_EQ(DvVagGetEpromData(0, 6, &countRead, buffer), 0u);
    ASSERT_EQ(countRead, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 6), "Engine");
    ASSERT_EQ(DvVagGetEepromData(7, 6, &countRead, buffer), 0u);
    ASSERT_EQ(countRead, 6);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 6), "EEPROM");
    EXPECT_EQ(DvVagGetRamData(16, 1, &countRead, buffer), 256u);
    EXPECT_EQ(dv::KwConnection().state, dv::KwLinkState::Connected);
}

class BenchClusterMemory : public ::testing::Test {
protected:
    void SetUp() override { ConnectBench("kw1281-cluster", 9600, 0x17); }
    void TearDown() override { DisconnectBench(); }
};

TEST_F(BenchClusterMemory, EepromNeedsTheLoginAndActuatorsRunToTheEnd) {
    uint8_t buffer[32] = {};
    uint8_t countRead = 0;
    EXPECT_EQ(DvVagGetEepromData(0, 17, &countRead, buffer), 256u);
    ASSERT_EQ(DvVagLogin(12345, 13861), 0u);
    ASSERT_EQ(DvVagGetEepromData(0, 17, &countRead, buffer), 0u);
    ASSERT_EQ(countRead, 17);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), 17), "WVWZZZ1JZXW000001");
    const uint16_t expected[] = {0x0310, 0x0311, 0x0312, 0x0313, 0};
    for (uint16_t step : expected) {
        uint16_t code = 0xFFFF;
        ASSERT_EQ(DvVagTestActuator(&code), 0u);
        EXPECT_EQ(code, step);
    }
}

} // namespace
