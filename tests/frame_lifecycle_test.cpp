// Library lifecycle and the exported frame (Part 1.1).
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
using dv::bench::kFakeTicksPerMs;

class FrameLifecycleTest : public ::testing::Test {
protected:
    void SetUp() override { dv::bench::FakeInstall(); }
    void TearDown() override {
        DvDestruct();
        dv::bench::FakeUninstall();
    }
};

TEST_F(FrameLifecycleTest, ConstructSetsLevelClockSeedAndStartMark) {
    Fake().now = 4321 * kFakeTicksPerMs;
    EXPECT_EQ(dvtest::ConstructLibrary(), 0u);
    EXPECT_EQ(DvGetMessagesLevel(), 2u);
    EXPECT_EQ(Fake().seed, 4321u); // srand(GetTickCount())
    EXPECT_EQ(dv::TicksPerMs(), kFakeTicksPerMs);
    EXPECT_EQ(std::u16string(dv::LogTimestampText()), u"@ 0.0");
    EXPECT_EQ(Fake().CallCount(FakeCall::CounterFrequency), 1);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(FrameLifecycleTest, ConstructResetsLevelToTwo) {
    ASSERT_EQ(dvtest::ConstructLibrary(4), 0u);
    EXPECT_EQ(DvGetMessagesLevel(), 4u);
    ASSERT_EQ(DvConstruct(0, dvtest::LogCaptureCallback), 0u);
    EXPECT_EQ(DvGetMessagesLevel(), 2u);
}

TEST_F(FrameLifecycleTest, ContextIsHandedBackToTheCallback) {
    static uint32_t seen = 0;
    ASSERT_EQ(DvConstruct(0xCAFEF00D, [](uint32_t context, const DvChar *) { seen = context; }),
              0u);
    dv::LogMessage(1, u"x");
    EXPECT_EQ(seen, 0xCAFEF00Du);
}

// No performance counter: 4 at once, no log line; the level and callback are already set.
TEST_F(FrameLifecycleTest, NoCounterReturnsFourWithoutLogLine) {
    Fake().hasCounter = false;
    EXPECT_EQ(dvtest::ConstructLibrary(), 4u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
    EXPECT_EQ(DvGetMessagesLevel(), 2u);
    EXPECT_EQ(Fake().seed, 1000u); // seeded before the counter was asked
    dv::LogMessage(1, u"still logs\r\n");
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\nstill logs\r\n"});
}

TEST_F(FrameLifecycleTest, CounterFrequencyFailureReturnsFour) {
    Fake().Fail(FakeCall::CounterFrequency, 1, 1);
    EXPECT_EQ(dvtest::ConstructLibrary(), 4u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(FrameLifecycleTest, NullCallbackSucceedsAndNothingIsDelivered) {
    EXPECT_EQ(DvConstruct(0, nullptr), 0u);
    dv::LogMessage(1, u"dropped\r\n");
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"dropped too\r\n");
    dv::ExchangeEnd();
    Fake().Fail(FakeCall::SetPriority, 3, 5); // the next Begin's raise
    EXPECT_EQ(dv::ExchangeBegin(), 1u);       // its "Could not" line has nowhere to go
    EXPECT_EQ(Fake().priority, 251);
}

TEST_F(FrameLifecycleTest, LevelZeroSilencesEveryLine) {
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    EXPECT_EQ(DvSetMessagesLevel(0), 0u);
    EXPECT_EQ(DvGetMessagesLevel(), 0u);
    for (uint32_t level = 1; level <= 4; ++level) {
        dv::LogMessage(level, u"line\r\n");
    }
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"line\r\n");
    dv::ExchangeEnd();
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(FrameLifecycleTest, Level1000IsAccepted) {
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    EXPECT_EQ(DvSetMessagesLevel(1000), 0u);
    EXPECT_EQ(DvGetMessagesLevel(), 1000u);
    EXPECT_EQ(dv::LogLevel(), 1000u);
    dv::LogMessage(4, u"detail\r\n");
    dv::LogMessage(1000, u"level 1000\r\n");
    dv::LogMessage(1001, u"above\r\n");
    EXPECT_EQ(dvtest::LogCalls(),
              (std::vector<std::string>{"\r\ndetail\r\n", "\r\nlevel 1000\r\n"}));
}

TEST_F(FrameLifecycleTest, LevelIsComparedUnsigned) {
    ASSERT_EQ(dvtest::ConstructLibrary(0xFFFFFFFF), 0u);
    dv::LogMessage(0xFFFFFFFF, u"top\r\n");
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\ntop\r\n"});
}

TEST_F(FrameLifecycleTest, AllocateZeroIsNullAndFreeNullIsIgnored) {
    EXPECT_EQ(DvAllocate(0), nullptr);
    DvFree(nullptr);
    void *block = DvAllocate(64);
    ASSERT_NE(block, nullptr);
    std::memset(block, 0xA5, 64); // the whole block is usable (ASan checks the bounds)
    DvFree(block);
}

// The layers' set-up puts the settings back to their defaults (Part 1.2).
TEST_F(FrameLifecycleTest, ConstructSetsUpTheLayers) {
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    DvSettings changed{};
    DvGetSettings(&changed);
    changed.dtrOn = 0;
    changed.P2max = 200;
    changed.testerAddress = 0x10;
    changed.byteTimeout = 99;
    ASSERT_EQ(DvSetSettings(&changed), 0u);
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    DvSettings settings{};
    DvGetSettings(&settings);
    EXPECT_EQ(settings.dtrOn, 1u);
    EXPECT_EQ(settings.P2max, 50u);
    EXPECT_EQ(settings.testerAddress, 0xF1u);
    EXPECT_EQ(settings.byteTimeout, 60u);
}

// Buffers of the log are freed by DvDestruct, and a second DvConstruct does not leak the first
// one's (the sanitizer build checks both).
TEST_F(FrameLifecycleTest, DestructFreesTheLogBuffer) {
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"buffered\r\n");
    dv::ExchangeEnd();
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"again\r\n");
    dv::ExchangeEnd();
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\nagain\r\n"});
    DvDestruct();
}

// After DvDestruct the callback is still set; a section then grows a fresh buffer rather than
// writing into the freed one (a deviation, see docs/deviations.md).
TEST_F(FrameLifecycleTest, SectionAfterDestructUsesAFreshBuffer) {
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"before\r\n");
    dv::ExchangeEnd();
    DvDestruct();
    dvtest::LogCaptureReset();
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::LogMessage(1, u"after destruct\r\n");
    dv::ExchangeEnd();
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\nafter destruct\r\n"});
}

TEST_F(FrameLifecycleTest, DestructLeavesAnOpenPortOpen) {
    ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 256, 256), 0u);
    DvDestruct();
    EXPECT_TRUE(Fake().portOpen);
    EXPECT_TRUE(Fake().EventsOf(dv::bench::FakeEvent::Kind::Close).empty());
    dv::PortClose();
}

} // namespace
