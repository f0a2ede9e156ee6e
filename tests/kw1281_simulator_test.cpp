// The simulated ECU at address 0x80 for Parts 3.3, 4.1, 4.2 and 4.3: values, texts, state changes
// and delays on the fake platform's virtual clock; it never touches the port.
#include <gtest/gtest.h>

#include "bench/fake_platform.h"
#include "frame/frame.h"
#include "kw1281/kw1281.h"
#include "kw1281_bench_support.h"
#include "support/log_capture.h"

namespace dv {
namespace {

using bench::Fake;
using bench::FakeEvent;
using bench::kFakeTicksPerMs;

const std::vector<std::string> kSimulatorDescriptions = {"8D0923512S", "SIMULATOR", "1.71 B",
                                                         "$SC:04001", "$WC:00000"};

class KwSimulatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
    }
    void TearDown() override {
        dvtest::TakeDescriptions(descriptions_);
        DvDestruct();
        bench::FakeUninstall();
    }
    uint32_t Connect(uint32_t baud = 9600) {
        return DvVagConnect(reinterpret_cast<const DvChar *>(u"COM1"), baud, 0x80, &descriptions_,
                            &interval_);
    }
    std::vector<std::string> Descriptions() {
        std::vector<std::string> result = dvtest::TakeDescriptions(descriptions_);
        descriptions_ = nullptr;
        return result;
    }
    // The sleeps since the last call of Sleeps.
    std::vector<uint32_t> Sleeps() {
        std::vector<uint32_t> values;
        const auto &events = Fake().events;
        for (size_t i = seen_; i < events.size(); ++i) {
            if (events[i].kind == FakeEvent::Kind::Sleep) {
                values.push_back(events[i].value);
            }
        }
        seen_ = events.size();
        return values;
    }
    void Wait(uint32_t ms) { Fake().now += ms * kFakeTicksPerMs; }
    void ExpectNoPortCall() {
        EXPECT_EQ(Fake().CallCount(bench::FakeCall::Open), 0);
        EXPECT_EQ(Fake().CallCount(bench::FakeCall::Write), 0);
        EXPECT_EQ(Fake().CallCount(bench::FakeCall::Read), 0);
        EXPECT_EQ(Fake().CallCount(bench::FakeCall::Close), 0);
    }

    DvChar **descriptions_ = nullptr;
    uint32_t interval_ = 0;
    size_t seen_ = 0;
};

TEST_F(KwSimulatorTest, ConnectAt9600GivesTheSimulatorDescriptions) {
    EXPECT_EQ(Connect(), 0u);
    EXPECT_EQ(Descriptions(), kSimulatorDescriptions);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{2000, 1000}));
    EXPECT_EQ(interval_, 1000u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
    EXPECT_EQ(KwConnection().address, SIMULATOR_ADDRESS);
    EXPECT_EQ(KwConnection().lastSimulatedExchange, TickCount());
    const KwSimulatorValues &sim = KwConnection().simulator;
    EXPECT_EQ(sim.faultsFilled, 1);
    EXPECT_EQ(sim.actuatorStep, 0);
    EXPECT_EQ(sim.adaptation[0], 0x80);
    EXPECT_EQ(sim.adaptation[1], 0x80);
    EXPECT_EQ(sim.loggedIn, 0);
    EXPECT_EQ(
        dvtest::LogCalls(),
        (std::vector<std::string>{"\r\n\r\nConnecting to ECU at address 80h at 9600 baud rate\r\n",
                                  "\r\n\r\nConnected successfully\r\n"}));
    ExpectNoPortCall();
}

TEST_F(KwSimulatorTest, ConnectWithoutOutputsFreesTheDescriptions) {
    EXPECT_EQ(DvVagConnect(reinterpret_cast<const DvChar *>(u"COM1"), 9600, 0x80, nullptr, nullptr),
              0u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
    EXPECT_EQ(DvVagGetDescriptions(nullptr), 0u);
}

TEST_F(KwSimulatorTest, ConnectAtAnotherBaudRateYields9) {
    EXPECT_EQ(Connect(10400), 9u);
    EXPECT_EQ(descriptions_, nullptr);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{2000, 3000}));
    EXPECT_EQ(KwConnection().state, KwLinkState::NotConnected);
    EXPECT_NE(KwConnection().address, SIMULATOR_ADDRESS);
    ExpectNoPortCall();
}

TEST_F(KwSimulatorTest, ConnectResetsTheSimulatorValues) {
    ASSERT_EQ(Connect(), 0u);
    ASSERT_EQ(DvVagClearFaults(), 0u);
    ASSERT_EQ(DvVagLogin(0, 24680), 0u);
    Descriptions();
    ASSERT_EQ(DvVagSetCoding(1, 2, &descriptions_), 0u);
    KwConnection().simulator.actuatorStep = 282;
    KwConnection().simulator.adaptation[0] = 100;
    DvVagDisconnect();
    Descriptions();
    ASSERT_EQ(Connect(), 0u);
    EXPECT_EQ(Descriptions(), kSimulatorDescriptions);
    const KwSimulatorValues &sim = KwConnection().simulator;
    EXPECT_EQ(sim.faultsFilled, 1);
    EXPECT_EQ(sim.actuatorStep, 0);
    EXPECT_EQ(sim.adaptation[0], 0x80);
    EXPECT_EQ(sim.loggedIn, 0);
}

TEST_F(KwSimulatorTest, DescriptionsWithinASecondTakeTheServiceDelay) {
    ASSERT_EQ(Connect(), 0u);
    Descriptions();
    Sleeps();
    EXPECT_EQ(DvVagGetDescriptions(&descriptions_), 0u);
    EXPECT_EQ(Descriptions(), kSimulatorDescriptions);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{1000}));
    ExpectNoPortCall();
}

TEST_F(KwSimulatorTest, AfterMoreThanASecondTheSimulatorWakesUpFirst) {
    ASSERT_EQ(Connect(), 0u);
    Sleeps();
    Wait(1001);
    EXPECT_EQ(DvVagClearFaults(), 0u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{3000, 100}));
    Wait(1000);
    EXPECT_EQ(DvVagClearFaults(), 0u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{100}));
}

TEST_F(KwSimulatorTest, FaultsAreFilledAfterConnect) {
    ASSERT_EQ(Connect(), 0u);
    Sleeps();
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    ASSERT_EQ(DvVagGetFaults(&count, &faults), 0u);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(faults[0].intermittent, 0u);
    EXPECT_EQ(faults[0].code, 522);
    EXPECT_EQ(faults[0].elaboration, 30);
    EXPECT_EQ(faults[1].intermittent, 1u);
    EXPECT_EQ(faults[1].code, 518);
    EXPECT_EQ(faults[1].elaboration, 27);
    DvFree(faults);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{100}));
}

TEST_F(KwSimulatorTest, ClearThenReadGivesTheEmptyMemoryRecord) {
    ASSERT_EQ(Connect(), 0u);
    EXPECT_EQ(DvVagClearFaults(), 0u);
    EXPECT_EQ(KwConnection().simulator.faultsFilled, 0);
    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    ASSERT_EQ(DvVagGetFaults(&count, &faults), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(faults[0].intermittent, 1u);
    EXPECT_EQ(faults[0].code, 0xFFFF);
    EXPECT_EQ(faults[0].elaboration, 8);
    DvFree(faults);
    ExpectNoPortCall();
}

TEST_F(KwSimulatorTest, LoginAcceptsOnly24680) {
    ASSERT_EQ(Connect(), 0u);
    Sleeps();
    EXPECT_EQ(DvVagLogin(12345, 1234), 256u);
    EXPECT_EQ(KwConnection().simulator.loggedIn, 0);
    EXPECT_EQ(DvVagLogin(12345, 24680), 0u);
    EXPECT_EQ(KwConnection().simulator.loggedIn, 1);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{100, 100}));
    // Only the low 16 bits of the argument are the login code.
    KwConnection().simulator.loggedIn = 0;
    EXPECT_EQ(DvVagLogin(0, 0x10000 + 24680), 0u);
    EXPECT_EQ(KwConnection().simulator.loggedIn, 1);
    EXPECT_EQ(KwConnection().loggedIn, 0); // the real ECU's login is another thing
}

TEST_F(KwSimulatorTest, CodingTextsAreCutToNineCharacters) {
    ASSERT_EQ(Connect(), 0u);
    Descriptions();
    Sleeps();
    EXPECT_EQ(DvVagSetCoding(123456, 654321, &descriptions_), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"8D0923512S", "SIMULATOR", "1.71 B",
                                                        "$SC:65432", "$WC:12345"}));
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{1000}));
    EXPECT_EQ(DvVagGetDescriptions(&descriptions_), 0u);
    EXPECT_EQ(Descriptions()[3], "$SC:65432");
}

TEST_F(KwSimulatorTest, CodingTextsHaveFiveDigits) {
    ASSERT_EQ(Connect(), 0u);
    Descriptions();
    EXPECT_EQ(DvVagSetCoding(42, 77, &descriptions_), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"8D0923512S", "SIMULATOR", "1.71 B",
                                                        "$SC:00077", "$WC:00042"}));
}

TEST_F(KwSimulatorTest, IdleTakesOneHundredMilliseconds) {
    ASSERT_EQ(Connect(), 0u);
    Sleeps();
    EXPECT_EQ(DvVagIdle(), 0u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{100}));
    Wait(1500);
    EXPECT_EQ(DvVagIdle(), 0u);
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{3000, 100}));
    EXPECT_EQ(KwConnection().lastSimulatedExchange, TickCount());
}

TEST_F(KwSimulatorTest, DisconnectSoonAfterAnExchangeTakesFiftyMilliseconds) {
    ASSERT_EQ(Connect(), 0u);
    Sleeps();
    Wait(1000);
    dvtest::LogCaptureReset();
    DvVagDisconnect();
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{50}));
    EXPECT_EQ(KwConnection().lastSimulatedExchange, TickCount());
    EXPECT_EQ(KwConnection().state, KwLinkState::NotConnected);
    EXPECT_TRUE(dvtest::LogHasInOrder({"\r\nDisconnecting from ECU\r\n", "\r\nDisconnected\r\n",
                                       "\r\nConnection duration - 4 sec\r\nBlocks sent - 0, "
                                       "breaks - 0 (0 %)\r\nBlocks received - 0, resets - 0 "
                                       "(0 %)\r\nReestablishments - 0\r\n"}));
    ExpectNoPortCall();
}

TEST_F(KwSimulatorTest, DisconnectLaterTakesTheRecoveryPause) {
    ASSERT_EQ(Connect(), 0u);
    Sleeps();
    Wait(1001);
    const uint32_t last = KwConnection().lastSimulatedExchange;
    DvVagDisconnect();
    EXPECT_EQ(Sleeps(), (std::vector<uint32_t>{3000}));
    EXPECT_EQ(KwConnection().lastSimulatedExchange, last);
}

} // namespace
} // namespace dv
