// The library's KW1281 exports against the emulated ECUs of the bench, on the virtual clock: a
// check that the bench is the other end of what Parts 3.1-4.3 send, and of the speed figure.
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/kw1281_ecu.h"
#include "dravelin/dravelin.h"
#include "support/log_capture.h"

namespace dv::bench {
namespace {

const DvChar *Port(const char16_t *name) {
    return reinterpret_cast<const DvChar *>(name);
}

// Takes the descriptions apart into plain strings and frees them.
std::vector<std::string> Strings(DvChar **descriptions) {
    std::vector<std::string> result;
    if (descriptions == nullptr) {
        return result;
    }
    for (DvChar **p = descriptions; *p != nullptr; ++p) {
        std::string text;
        for (const DvChar *c = *p; *c != 0; ++c) {
            text.push_back(static_cast<char>(*c));
        }
        result.push_back(text);
        DvFree(*p);
    }
    DvFree(descriptions);
    return result;
}

const std::vector<std::string> kEngineIdentification = {
    "038906019FR", "1,9l R4 EDC",       "G000SG",        "2337", "$SC:01503",
    "$WC:12345",   "WVWZZZ1JZXW000001", "VWZ7Z0X1234567"};

class Kw1281SessionTest : public ::testing::Test {
protected:
    void SetUp() override {}
    void Start(std::string_view profile) {
        ASSERT_TRUE(BenchInstall(profile));
        ecu_ = static_cast<Kw1281Ecu *>(BenchEcu());
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
    }
    void TearDown() override {
        DvDestruct();
        BenchUninstall();
    }
    uint32_t Connect(uint32_t baud, uint32_t address, std::vector<std::string> *ident = nullptr) {
        DvChar **descriptions = nullptr;
        uint32_t interval = 0;
        const uint32_t code = DvVagConnect(Port(u"COM1"), baud, address, &descriptions, &interval);
        const std::vector<std::string> strings = Strings(descriptions);
        if (ident != nullptr) {
            *ident = strings;
        }
        return code;
    }

    Kw1281Ecu *ecu_ = nullptr;
};

TEST_F(Kw1281SessionTest, ConnectReadsBothIdentificationPasses) {
    Start("kw1281-engine");
    std::vector<std::string> ident;
    ASSERT_EQ(Connect(10400, 0x01, &ident), 0u) << dvtest::LogText();
    EXPECT_EQ(ident, kEngineIdentification);
    EXPECT_TRUE(ecu_->LinkUp());
    EXPECT_EQ(ecu_->LinksUp(), 1);
    DvVagDisconnect();
    EXPECT_FALSE(ecu_->LinkUp());
    EXPECT_EQ(ecu_->TitlesReceived().back(), 0x06);
}

TEST_F(Kw1281SessionTest, FaultsClearLoginCodingAndIdle) {
    Start("kw1281-engine");
    ASSERT_EQ(Connect(10400, 0x01), 0u);
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    ASSERT_EQ(DvVagGetFaults(&count, &faults), 0u);
    ASSERT_EQ(count, 5u);
    EXPECT_EQ(faults[0].code, 0x020A);
    EXPECT_EQ(faults[1].intermittent, 1u);
    EXPECT_EQ(faults[1].elaboration, 0x1B);
    DvFree(faults);
    EXPECT_EQ(DvVagClearFaults(), 0u);
    ASSERT_EQ(DvVagGetFaults(&count, &faults), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(faults[0].code, 0x4411);
    DvFree(faults);
    EXPECT_EQ(DvVagLogin(12345, 11111), 256u);
    EXPECT_EQ(DvVagLogin(12345, 12233), 0u);
    EXPECT_TRUE(ecu_->LoggedIn());
    DvChar **descriptions = nullptr;
    ASSERT_EQ(DvVagSetCoding(0, 4001, &descriptions), 0u);
    const std::vector<std::string> ident = Strings(descriptions);
    ASSERT_GE(ident.size(), 6u);
    EXPECT_EQ(ident[4], "$SC:04001");
    EXPECT_EQ(ident[5], "$WC:00000");
    EXPECT_EQ(ecu_->Coding(), 4001);
    EXPECT_EQ(DvVagIdle(), 0u);
    DvVagDisconnect();
}

TEST_F(Kw1281SessionTest, ClusterWithKeyword8089AndShortCoding) {
    Start("kw1281-cluster");
    std::vector<std::string> ident;
    ASSERT_EQ(Connect(9600, 0x17, &ident), 0u) << dvtest::LogText();
    EXPECT_EQ(ident, (std::vector<std::string>{"1J0920826C", "KOMBI+WEGFAHRSP. VDO V50", "0001",
                                               "$SC:00033", "$WC:65659"}));
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    ASSERT_EQ(DvVagGetFaults(&count, &faults), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(faults[0].code, 0xFFFF);
    EXPECT_EQ(faults[0].elaboration, 8);
    DvFree(faults);
    EXPECT_EQ(DvVagLogin(65659, 13861), 0u);
    DvChar **descriptions = nullptr;
    ASSERT_EQ(DvVagSetCoding(65659, 32, &descriptions), 0u);
    EXPECT_EQ(Strings(descriptions)[3], "$SC:00032");
    DvVagDisconnect();
}

TEST_F(Kw1281SessionTest, WrongBaudRateFailsTheConnect) {
    Start("kw1281-engine");
    EXPECT_NE(Connect(9600, 0x01), 0u);
    EXPECT_EQ(ecu_->LinksUp(), 0);
}

TEST_F(Kw1281SessionTest, WrongSyncByteGivesNine) {
    Start("kw1281-engine");
    ecu_->faults.syncByte = 0x54;
    EXPECT_EQ(Connect(10400, 0x01), 9u);
    EXPECT_NE(dvtest::LogText().find("Bad Baud Rate Synch Byte: '54' vs '55'"), std::string::npos);
}

TEST_F(Kw1281SessionTest, WrongKeywordGivesTen) {
    Start("kw1281-engine");
    ecu_->faults.keyword2 = 0x8B;
    EXPECT_EQ(Connect(10400, 0x01), 10u);
    EXPECT_NE(dvtest::LogText().find("Bad Keyword Bytes: '8B01' vs '8A01' or '0501'"),
              std::string::npos);
}

TEST_F(Kw1281SessionTest, SilentEcuIsReestablishedByTheService) {
    Start("kw1281-engine");
    ASSERT_EQ(Connect(10400, 0x01), 0u);
    ecu_->faults.silentBlock = ecu_->BlocksReceived() + 1;
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    EXPECT_EQ(DvVagGetFaults(&count, &faults), 0u) << dvtest::LogText();
    EXPECT_EQ(count, 5u);
    DvFree(faults);
    EXPECT_EQ(ecu_->LinksDropped(), 1);
    EXPECT_EQ(ecu_->LinksUp(), 2);
    EXPECT_NE(dvtest::LogText().find("Reconnected successfully"), std::string::npos);
    DvVagDisconnect();
}

TEST_F(Kw1281SessionTest, WrongComplementIsResent) {
    Start("kw1281-engine");
    ASSERT_EQ(Connect(10400, 0x01), 0u);
    ecu_->faults.wrongComplement = ecu_->ComplementsSent() + 2;
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    EXPECT_EQ(DvVagGetFaults(&count, &faults), 0u) << dvtest::LogText();
    EXPECT_EQ(count, 5u);
    DvFree(faults);
    EXPECT_NE(dvtest::LogText().find("Resending block"), std::string::npos);
    DvVagDisconnect();
}

TEST_F(Kw1281SessionTest, DroppedEcuByteIsRecovered) {
    Start("kw1281-engine");
    ASSERT_EQ(Connect(10400, 0x01), 0u);
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    // The first answer byte after the request's complements: the fault block's length byte.
    const int ecuBytes = static_cast<int>(BenchTraceOf(TraceKind::EcuByte).size());
    BenchFault().DropEcuByte(ecuBytes + 4);
    EXPECT_EQ(DvVagGetFaults(&count, &faults), 0u) << dvtest::LogText();
    EXPECT_EQ(count, 5u);
    DvFree(faults);
    const auto sent = BenchTraceOf(TraceKind::EcuByte);
    ASSERT_GT(sent.size(), static_cast<size_t>(ecuBytes + 3));
    EXPECT_EQ(sent[ecuBytes + 3].extra, kByteDropped);
    EXPECT_EQ(sent[ecuBytes + 3].value, 0x0Fu); // four faults: 3 + 12 bytes
    DvVagDisconnect();
}

std::string Text(const DvChar *text) {
    std::string result;
    for (; text != nullptr && *text != 0; ++text) {
        result.push_back(static_cast<char>(*text));
    }
    return result;
}

void FreeValues(MeasuringValue *values, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        DvFree(values[i].text);
    }
    DvFree(values);
}

TEST_F(Kw1281SessionTest, GroupReadingsCurvesAndChannels) {
    Start("kw1281-engine");
    ASSERT_EQ(Connect(10400, 0x01), 0u);
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 1, &count, &values), 0u) << dvtest::LogText();
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 200 * 20 * 2);
    EXPECT_EQ(values[3].value, 0x0100); // formula 16: A * 256 + B
    FreeValues(values, count);
    values = nullptr;
    ASSERT_EQ(DvVagGetGroupMeasurements(1, 1, &count, &values), 0u);
    EXPECT_EQ(values[3].value, 0x0102); // basic settings
    FreeValues(values, count);
    values = nullptr;
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 2, &count, &values), 0u);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(Text(values[0].text), "WARM");
    EXPECT_EQ(Text(values[1].text), "2.Kennfeld");
    EXPECT_EQ(Text(values[2].text), "12:30");
    FreeValues(values, count);
    values = nullptr;
    // The curve group: header, then the values decoded with it.
    ASSERT_EQ(DvVagGetGroupMeasurements(0, 3, &count, &values), 0u) << dvtest::LogText();
    ASSERT_EQ(count, 4u);
    EXPECT_EQ(values[0].kind, 128);
    EXPECT_EQ(values[0].value, 40 * 40);
    EXPECT_EQ(values[1].kind, 139);
    EXPECT_EQ(values[1].value, 50);
    EXPECT_EQ(Text(values[2].text), "EIN");
    EXPECT_EQ(values[3].kind, 142);
    FreeValues(values, count);
    EXPECT_EQ(DvVagCloseGroupMeasurements(), 0u);
    EXPECT_EQ(DvVagGetGroupMeasurements(0, 9, &count, &values), 256u);
    uint8_t *bytes = nullptr;
    ASSERT_EQ(DvVagGetMeasurements(0, &count, &bytes), 0u);
    ASSERT_EQ(count, 10u);
    EXPECT_EQ(bytes[9], 2);
    DvFree(bytes);
    uint16_t channel = 0;
    EXPECT_EQ(DvVagGetMeasurement(1, &channel), 0u);
    EXPECT_EQ(channel, 0x1234);
    EXPECT_EQ(DvVagGetMeasurement(5, &channel), 256u);
    DvVagDisconnect();
}

TEST_F(Kw1281SessionTest, AdaptationActuatorsAndMemory) {
    Start("kw1281-engine");
    ASSERT_EQ(Connect(10400, 0x01), 0u);
    uint16_t value = 0;
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    ASSERT_EQ(DvVagGetGroupAdaption(1, &value, &count, &values), 0u) << dvtest::LogText();
    EXPECT_EQ(value, 128);
    EXPECT_EQ(count, 2u);
    FreeValues(values, count);
    values = nullptr;
    EXPECT_EQ(DvVagTestGroupAdaption(1, 40, &value, &count, &values), 256u); // no login
    ASSERT_EQ(DvVagLogin(12345, 12233), 0u);
    ASSERT_EQ(DvVagTestGroupAdaption(1, 40, &value, &count, &values), 0u);
    EXPECT_EQ(value, 88);
    FreeValues(values, count);
    values = nullptr;
    ASSERT_EQ(DvVagSaveGroupAdaption(12345, 1, 100, &value, &count, &values), 0u);
    EXPECT_EQ(value, 100);
    FreeValues(values, count);
    values = nullptr;
    EXPECT_EQ(ecu_->AdaptationValue(1), 100);
    ASSERT_EQ(DvVagGetGroupAdaption(2, &value, &count, &values), 0u);
    EXPECT_EQ(value, 30000);
    EXPECT_EQ(count, 0u);
    DvFree(values);
    values = nullptr;
    EXPECT_EQ(DvVagClearAdaptions(12345), 0u);
    EXPECT_EQ(ecu_->AdaptationValue(1), 128);

    uint16_t actuator = 0;
    EXPECT_EQ(DvVagTestActuator(&actuator), 0u);
    EXPECT_EQ(actuator, 0x0119);
    EXPECT_EQ(DvVagTestActuator(&actuator), 0u);
    EXPECT_EQ(actuator, 0x04DF);
    EXPECT_EQ(DvVagTestActuator(&actuator), 0u);
    EXPECT_EQ(DvVagTestActuator(&actuator), 0u);
    EXPECT_EQ(actuator, 0); // the end of the test

    uint8_t buffer[32] = {};
    uint8_t got = 0;
    ASSERT_EQ(DvVagGetRamData(7, 20, &got, buffer), 0u);
    EXPECT_EQ(got, 9);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer)), "RAM data");
    ASSERT_EQ(DvVagGetEpromData(0, 6, &got, buffer), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), got), "Engine");
    ASSERT_EQ(DvVagGetEepromData(7, 6, &got, buffer), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer), got), "EEPROM");
    EXPECT_EQ(DvVagGetRamData(0x100, 4, &got, buffer), 256u);
    DvVagDisconnect();
}

// The closing figure of the bench: a full virtual KW1281 connect with identification.
TEST(Kw1281SessionSpeedTest, VirtualConnectWithIdentification) {
    constexpr int kRuns = 10;
    int64_t virtualMs = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRuns; ++i) {
        ASSERT_TRUE(BenchInstall("kw1281-engine"));
        ASSERT_EQ(DvConstruct(0, nullptr), 0u);
        const int64_t t0 = BenchNow();
        DvChar **descriptions = nullptr;
        uint32_t interval = 0;
        ASSERT_EQ(DvVagConnect(Port(u"COM1"), 10400, 1, &descriptions, &interval), 0u);
        virtualMs = (BenchNow() - t0) / kFakeTicksPerMs;
        EXPECT_EQ(Strings(descriptions), kEngineIdentification);
        DvVagDisconnect();
        DvDestruct();
        BenchUninstall();
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count() /
                    kRuns;
    std::printf("DvVagConnect with identification: %lld ms of virtual time in %lld us\n",
                static_cast<long long>(virtualMs), static_cast<long long>(us));
    RecordProperty("virtual_ms", static_cast<int>(virtualMs));
    RecordProperty("real_us", static_cast<int>(us));
    EXPECT_GT(virtualMs, 2000);
    EXPECT_LT(us, 500000);
}

} // namespace
} // namespace dv::bench
