// The settings record (Part 1.2): defaults, validation order, sub-blocks applied whole, word 5.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench/fake_platform.h"
#include "frame/frame.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace {

using dv::bench::Fake;
using dv::bench::FakeCall;
using dv::bench::FakeEvent;

DvSettings Defaults() {
    return DvSettings{1, 50, 20, 3, 3, 0xF1, 3, 2, 3, 3, 1000, 140, 1000, 60};
}

DvSettings Current() {
    DvSettings settings{};
    DvGetSettings(&settings);
    return settings;
}

bool Same(const DvSettings &a, const DvSettings &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

class FrameSettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        dv::bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    }
    void TearDown() override {
        if (dv::PortIsOpen()) {
            dv::PortClose();
        }
        DvDestruct();
        dv::bench::FakeUninstall();
    }
    // Expects `settings` to be refused with 1, no log line and nothing changed.
    static void ExpectRefused(const DvSettings &settings) {
        const DvSettings before = Current();
        EXPECT_EQ(DvSetSettings(&settings), 1u);
        EXPECT_TRUE(Same(Current(), before));
        EXPECT_TRUE(dvtest::LogCalls().empty());
    }
};

TEST_F(FrameSettingsTest, DefaultsAfterConstruct) {
    EXPECT_TRUE(Same(Current(), Defaults()));
}

TEST_F(FrameSettingsTest, AllWordsRoundTrip) {
    const DvSettings settings{0, 300, 40, 5, 6, 0x33, 7, 8, 9, 10, 1500, 200, 500, 70};
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_TRUE(Same(Current(), settings));
    EXPECT_EQ(dv::IsoSettingsInForce().P2max, 300u);
    EXPECT_EQ(dv::IsoSettingsInForce().P1max, 40u);
    EXPECT_EQ(dv::IsoSettingsInForce().connectAttempts, 5u);
    EXPECT_EQ(dv::IsoSettingsInForce().requestAttempts, 6u);
    EXPECT_EQ(dv::IsoSettingsInForce().testerAddress, 0x33u);
    EXPECT_EQ(dv::KwSettingsInForce().initTimeout, 1500u);
    EXPECT_EQ(dv::KwSettingsInForce().byteTimeout, 70u);
    EXPECT_EQ(dv::SerialDtrSetting(), 0u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(FrameSettingsTest, P2maxMustExceedTwentyFive) {
    DvSettings settings = Defaults();
    settings.P2max = 25;
    settings.P1max = 20;
    ExpectRefused(settings);
    settings.P2max = 26;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(Current().P2max, 26u);
}

TEST_F(FrameSettingsTest, BoundUsesTwentyWhenP1maxIsSmaller) {
    DvSettings settings = Defaults();
    settings.P2max = 26;
    settings.P1max = 10;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(Current().P1max, 10u);
    EXPECT_EQ(Current().P2max, 26u);
}

TEST_F(FrameSettingsTest, BoundUsesP1maxWhenLarger) {
    DvSettings settings = Defaults();
    settings.P1max = 100;
    settings.P2max = 105;
    ExpectRefused(settings);
    settings.P2max = 106;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
}

// max(word 2, 20) + 5 would wrap in 32 bits; the bound holds all the same.
TEST_F(FrameSettingsTest, HugeP1maxDoesNotWrapTheBound) {
    DvSettings settings = Defaults();
    settings.P1max = 0xFFFFFFFF;
    settings.P2max = 0xFFFFFFFF;
    ExpectRefused(settings);
}

TEST_F(FrameSettingsTest, ZeroCountsOfKwp2000AreRefused) {
    for (uint32_t DvSettings::*word :
         {&DvSettings::P1max, &DvSettings::isoConnectAttempts, &DvSettings::isoRequestAttempts}) {
        DvSettings settings = Defaults();
        settings.*word = 0;
        settings.P2max = 100;
        ExpectRefused(settings);
    }
}

TEST_F(FrameSettingsTest, ZeroCountsOfKw1281AreRefused) {
    for (uint32_t DvSettings::*word : {&DvSettings::connectRetries, &DvSettings::serviceRetries,
                                       &DvSettings::blockSendRetries, &DvSettings::silenceReads}) {
        DvSettings settings = Defaults();
        settings.*word = 0;
        ExpectRefused(settings);
    }
}

TEST_F(FrameSettingsTest, InitTimeoutAtMostThreeBlockTimeouts) {
    DvSettings settings = Defaults();
    settings.initTimeout = 3000;
    settings.blockTimeout = 1000;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(Current().initTimeout, 3000u);
    settings.initTimeout = 3001;
    settings.byteTimeout = 77;
    EXPECT_EQ(DvSetSettings(&settings), 1u);
    EXPECT_EQ(Current().initTimeout, 3000u);
    EXPECT_EQ(Current().byteTimeout, 60u); // the sub-block is applied whole or not at all
}

TEST_F(FrameSettingsTest, ThreeBlockTimeoutsDoNotWrap) {
    DvSettings settings = Defaults();
    settings.blockTimeout = 0x60000000; // 3 x this wraps to 0x20000000 in 32 bits
    settings.initTimeout = 0x30000000;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(Current().initTimeout, 0x30000000u);
}

TEST_F(FrameSettingsTest, NoLimitOnTheOtherKw1281Times) {
    DvSettings settings = Defaults();
    settings.keywordTimeout = 0;
    settings.blockTimeout = 400;
    settings.initTimeout = 0;
    settings.byteTimeout = 0;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_TRUE(Same(Current(), settings));
}

TEST_F(FrameSettingsTest, RefusedKw1281LeavesSerialAndKwp2000InForce) {
    DvSettings settings = Defaults();
    settings.dtrOn = 0;
    settings.P2max = 80;
    settings.testerAddress = 0x22;
    settings.connectRetries = 9;
    settings.silenceReads = 0;
    EXPECT_EQ(DvSetSettings(&settings), 1u);
    const DvSettings now = Current();
    EXPECT_EQ(now.dtrOn, 0u);
    EXPECT_EQ(now.P2max, 80u);
    EXPECT_EQ(now.testerAddress, 0x22u);
    EXPECT_EQ(now.connectRetries, 3u);
    EXPECT_EQ(now.silenceReads, 3u);
}

TEST_F(FrameSettingsTest, RefusedKwp2000LeavesSerialInForceAndKw1281Untouched) {
    DvSettings settings = Defaults();
    settings.dtrOn = 7;
    settings.isoRequestAttempts = 0;
    settings.P2max = 99;
    settings.byteTimeout = 99;
    EXPECT_EQ(DvSetSettings(&settings), 1u);
    const DvSettings now = Current();
    EXPECT_EQ(now.dtrOn, 7u);
    EXPECT_EQ(now.P2max, 50u);
    EXPECT_EQ(now.byteTimeout, 60u);
}

TEST_F(FrameSettingsTest, TesterAddressKeepsTheLowByte) {
    DvSettings settings = Defaults();
    settings.testerAddress = 0x1234;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_EQ(dv::IsoSettingsInForce().testerAddress, 0x34u);
    EXPECT_EQ(Current().testerAddress, 0x34u);
}

TEST_F(FrameSettingsTest, GetWritesOnlyTheLowByteOfWord5) {
    DvSettings settings;
    std::memset(&settings, 0xEE, sizeof settings);
    settings.testerAddress = 0xAABBCC00;
    DvGetSettings(&settings);
    EXPECT_EQ(settings.testerAddress, 0xAABBCCF1u);
    EXPECT_EQ(settings.P1max, 20u);
    EXPECT_EQ(settings.byteTimeout, 60u);
}

TEST_F(FrameSettingsTest, NullRecords) {
    EXPECT_EQ(DvSetSettings(nullptr), 1u);
    DvGetSettings(nullptr);
    EXPECT_TRUE(Same(Current(), Defaults()));
}

// With no port open only the stored value changes; with one open the DTR line follows at once.
TEST_F(FrameSettingsTest, DtrReachesAnOpenPort) {
    DvSettings settings = Defaults();
    settings.dtrOn = 0;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Escape).empty());
    settings.dtrOn = 1;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 256, 256), 0u);
    const size_t escapes = Fake().EventsOf(FakeEvent::Kind::Escape).size();
    settings.dtrOn = 0;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    const auto events = Fake().EventsOf(FakeEvent::Kind::Escape);
    ASSERT_EQ(events.size(), escapes + 1);
    EXPECT_EQ(events.back()->value, static_cast<uint32_t>(dv::Escape::ClrDtr));
    EXPECT_EQ(Current().dtrOn, 0u);
}

TEST_F(FrameSettingsTest, DtrFailureOnOpenPortReturnsFiveAndStopsThere) {
    ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 256, 256), 0u);
    dvtest::LogCaptureReset();
    Fake().Fail(FakeCall::Escape, Fake().CallCount(FakeCall::Escape) + 1, 0x1F);
    DvSettings settings = Defaults();
    settings.dtrOn = 0;
    settings.P2max = 90;
    EXPECT_EQ(DvSetSettings(&settings), 5u);
    EXPECT_EQ(dvtest::LogCalls(),
              std::vector<std::string>{"\r\nCould not escape communication port (0x0000001F)\r\n"});
    EXPECT_EQ(Current().dtrOn, 1u);
    EXPECT_EQ(Current().P2max, 50u);
}

} // namespace
