// The exchange section and timing (Part 1.4).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench/fake_platform.h"
#include "frame/frame.h"
#include "support/log_capture.h"

namespace {

using dv::bench::Fake;
using dv::bench::FakeCall;
using dv::bench::FakeEvent;
using dv::bench::kFakeTicksPerMs;

constexpr int32_t kNone = 0x7FFFFFFF;

class FrameExchangeTest : public ::testing::Test {
protected:
    void SetUp() override {
        dv::bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(), 0u);
    }
    void TearDown() override {
        DvDestruct();
        dv::bench::FakeUninstall();
    }
};

TEST_F(FrameExchangeTest, SectionRaisesToSixtyFourAndRestores) {
    EXPECT_EQ(dv::ExchangeBegin(), 0u);
    EXPECT_EQ(Fake().priority, 64);
    dv::LogMessage(2, u"inside\r\n");
    EXPECT_TRUE(dvtest::LogCalls().empty());
    dv::ExchangeEnd();
    EXPECT_EQ(Fake().priority, 251);
    EXPECT_EQ(Fake().prioritySets, (std::vector<int32_t>{64, 251}));
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\ninside\r\n"});
}

// The saved value is forgotten at the end: a second end asks for 0x7FFFFFFF.
TEST_F(FrameExchangeTest, EndForgetsTheSavedPriority) {
    Fake().priority = 100;
    ASSERT_EQ(dv::ExchangeBegin(), 0u);
    dv::ExchangeEnd();
    EXPECT_EQ(Fake().priority, 100);
    dv::ExchangeEnd();
    EXPECT_EQ(Fake().prioritySets, (std::vector<int32_t>{64, 100, kNone}));
    EXPECT_EQ(Fake().priority, 100);
}

TEST_F(FrameExchangeTest, GetPriorityErrorReturnsOneAndFlushesWithoutLine) {
    Fake().Fail(FakeCall::GetPriority, 1, 6);
    EXPECT_EQ(dv::ExchangeBegin(), 1u);
    EXPECT_TRUE(Fake().prioritySets.empty());
    EXPECT_TRUE(dvtest::LogCalls().empty());
    dv::LogMessage(1, u"immediate again\r\n"); // the flush cleared the buffering flag
    EXPECT_EQ(dvtest::LogCalls(), std::vector<std::string>{"\r\nimmediate again\r\n"});
    dv::ExchangeEnd();
    EXPECT_EQ(Fake().prioritySets, std::vector<int32_t>{kNone});
}

TEST_F(FrameExchangeTest, SetPriorityFailureDeliversItsLineAndReturnsOne) {
    Fake().Fail(FakeCall::SetPriority, 1, 0x57);
    EXPECT_EQ(dv::ExchangeBegin(), 1u);
    EXPECT_EQ(dvtest::LogCalls(),
              std::vector<std::string>{"\r\nCould not set thread priority (0x00000057)\r\n"});
    EXPECT_EQ(Fake().priority, 251);
    dv::LogMessage(1, u"immediate\r\n");
    EXPECT_EQ(dvtest::LogCalls().size(), 2u);
    dv::ExchangeEnd(); // nothing was saved
    EXPECT_EQ(Fake().prioritySets, (std::vector<int32_t>{64, kNone}));
}

// The failure line is a level 1 line: silenced at level 0 like every other.
TEST_F(FrameExchangeTest, SetPriorityFailureAtLevelZeroIsSilent) {
    DvSetMessagesLevel(0);
    Fake().Fail(FakeCall::SetPriority, 1, 0x57);
    EXPECT_EQ(dv::ExchangeBegin(), 1u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(FrameExchangeTest, EndWithoutBeginAsksForTheErrorValueAndFlushesNothing) {
    dv::ExchangeEnd();
    EXPECT_EQ(Fake().prioritySets, std::vector<int32_t>{kNone});
    EXPECT_EQ(Fake().priority, 251); // refused by the platform
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(FrameExchangeTest, DelayZeroReturnsAtOnce) {
    const int64_t before = Fake().now;
    dv::DelayMs(0);
    EXPECT_EQ(Fake().now, before);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Spin).empty());
}

TEST_F(FrameExchangeTest, DelaySpinsExactlyTheMilliseconds) {
    const int64_t before = Fake().now;
    dv::DelayMs(25);
    EXPECT_EQ(Fake().now - before, 25 * kFakeTicksPerMs);
    ASSERT_EQ(Fake().EventsOf(FakeEvent::Kind::Spin).size(), 1u);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Sleep).empty());
    dv::DelayMs(1);
    EXPECT_EQ(Fake().now - before, 26 * kFakeTicksPerMs);
}

TEST_F(FrameExchangeTest, LongDelayUsesA64BitProduct) {
    const int64_t before = Fake().now;
    dv::DelayMs(0xFFFFFFFF);
    EXPECT_EQ(Fake().now - before, int64_t{0xFFFFFFFF} * kFakeTicksPerMs);
}

TEST_F(FrameExchangeTest, SleepIsThePlatformSleep) {
    const int64_t before = Fake().now;
    dv::SleepMs(300);
    const auto sleeps = Fake().EventsOf(FakeEvent::Kind::Sleep);
    ASSERT_EQ(sleeps.size(), 1u);
    EXPECT_EQ(sleeps[0]->value, 300u);
    EXPECT_EQ(Fake().now - before, 300 * kFakeTicksPerMs);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Spin).empty());
}

TEST_F(FrameExchangeTest, ClockReadings) {
    Fake().now = 98765 * kFakeTicksPerMs + 4321;
    EXPECT_EQ(dv::CounterNow(), 98765 * kFakeTicksPerMs + 4321);
    EXPECT_EQ(dv::TickCount(), 98765u);
    EXPECT_EQ(dv::TicksPerMs(), kFakeTicksPerMs);
}

TEST(FrameSwapBytes16, SwapsAndMasks) {
    EXPECT_EQ(dv::SwapBytes16(0x1234), 0x3412u);
    EXPECT_EQ(dv::SwapBytes16(0x00FF), 0xFF00u);
    // The formula as written mixes in the bits above 16: (0xABCD12 | 0xCD123400) & 0xFFFF.
    EXPECT_EQ(dv::SwapBytes16(0xABCD1234), 0xFD12u);
    EXPECT_EQ(dv::SwapBytes16(0x9876), 0x7698u);
    EXPECT_EQ(dv::SwapBytes16(0), 0u);
}

} // namespace
