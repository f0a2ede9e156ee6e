// Part 2.3 (DvSpy) on the fake platform.
#include <gtest/gtest.h>

#include "bench/fake_platform.h"
#include "frame/frame.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace dv {
namespace {

using bench::Fake;
using bench::FakeCall;
using bench::FakeEvent;
using bench::kFakeTicksPerMs;

std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const std::string &call : dvtest::LogCalls()) {
        lines.push_back(call.rfind("\r\n", 0) == 0 ? call.substr(2) : call);
    }
    return lines;
}

const DvChar *Name(const char16_t *text) {
    return reinterpret_cast<const DvChar *>(text);
}

class SerialSpyTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        // Later than the construction, so that the reset of the start mark shows.
        Fake().now += 5000 * kFakeTicksPerMs;
    }
    void TearDown() override {
        DvDestruct();
        bench::FakeUninstall();
    }
};

TEST_F(SerialSpyTest, MaxCountZeroOpensAndClosesOnly) {
    uint32_t count = 99;
    uint8_t buffer[1] = {0xEE};
    EXPECT_EQ(DvSpy(Name(u"COM2"), 9600, 0, 100, &count, buffer), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(Fake().CallCount(FakeCall::Read), 0);
    EXPECT_EQ(Fake().openedName, u"COM2");
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_FALSE(PortIsOpen());
    EXPECT_EQ(Lines(), (std::vector<std::string>{
                           "\r\nOpening communication port 'COM2' port at 9600 baud rate\r\n",
                           "\r\nClosing communication port\r\n"}));
}

TEST_F(SerialSpyTest, SilentLineGivesNothingAfterOneByteTimeout) {
    uint32_t count = 99;
    uint8_t buffer[8] = {};
    const int64_t t0 = Fake().now;
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 8, 100, &count, buffer), 0u);
    EXPECT_EQ(count, 0u);
    const auto reads = Fake().EventsOf(FakeEvent::Kind::Read);
    ASSERT_EQ(reads.size(), 1u);
    // 50 ms of PortOpen, then one read of at most 1 + 100 ms.
    EXPECT_EQ(Fake().now - t0, (50 + 101) * kFakeTicksPerMs);
    EXPECT_FALSE(Fake().portOpen);
}

TEST_F(SerialSpyTest, TimeoutsAreOnePlusByteTimeoutWithIntervalOne) {
    uint32_t count = 0;
    uint8_t buffer[1] = {};
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 1, 60, &count, buffer), 0u);
    const auto sets = Fake().EventsOf(FakeEvent::Kind::SetTimeouts);
    ASSERT_EQ(sets.size(), 3u); // open, spy, close
    EXPECT_EQ(sets[1]->timeouts.readConstant, 1u);
    EXPECT_EQ(sets[1]->timeouts.readMultiplier, 60u);
    EXPECT_EQ(sets[1]->timeouts.readInterval, 1u);
}

TEST_F(SerialSpyTest, ByteTimeoutZeroReadsReturnAtOnce) {
    uint32_t count = 0;
    uint8_t buffer[1] = {};
    const int64_t t0 = Fake().now;
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 1, 0, &count, buffer), 0u);
    const auto sets = Fake().EventsOf(FakeEvent::Kind::SetTimeouts);
    EXPECT_EQ(sets[1]->timeouts.readInterval, 0xFFFFFFFFu);
    EXPECT_EQ(Fake().now - t0, 50 * kFakeTicksPerMs);
}

TEST_F(SerialSpyTest, CapturesUntilTheLineIsQuiet) {
    DvSetMessagesLevel(3);
    Fake().onWrite = nullptr;
    const int64_t arrive = Fake().now + 60 * kFakeTicksPerMs; // after the open's 50 ms
    Fake().QueueInputAt(arrive, {0x55, 0x01, 0x8A});
    uint32_t count = 0;
    uint8_t buffer[10] = {};
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 10, 20, &count, buffer), 0u);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(buffer[0], 0x55);
    EXPECT_EQ(buffer[1], 0x01);
    EXPECT_EQ(buffer[2], 0x8A);
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Read).size(), 4u);
    // Timestamps restart at the spy's start: the first read begins after the 50 ms of PortOpen
    // and gets its byte 10 ms later.
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_EQ(lines[0], "\r\nOpening communication port 'COM1' port at 10400 baud rate\r\n");
    EXPECT_EQ(lines[1], "\r\n");
    EXPECT_EQ(lines[2], ">>> [1] @ 50.0");
    EXPECT_EQ(lines[3], " - Ok [1] '55' @ 60.0\r\n");
    EXPECT_EQ(lines[5], " - Ok [1] '01' @ 60.0\r\n");
    EXPECT_EQ(lines[7], " - Ok [1] '8A' @ 60.0\r\n");
    EXPECT_EQ(lines[9], " - Ok [0] '' @ 81.0\r\n");
    EXPECT_EQ(lines[10], "\r\nClosing communication port\r\n");
}

TEST_F(SerialSpyTest, StopsAtMaxCount) {
    Fake().QueueInput({1, 2, 3, 4, 5});
    uint32_t count = 0;
    uint8_t buffer[3] = {};
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 3, 20, &count, buffer), 0u);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(buffer[2], 3);
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Read).size(), 3u);
    EXPECT_EQ(Fake().input.size(), 2u);
}

TEST_F(SerialSpyTest, NoExchangeSection) {
    DvSetMessagesLevel(3);
    Fake().QueueInput({1});
    uint32_t count = 0;
    uint8_t buffer[2] = {};
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 2, 20, &count, buffer), 0u);
    EXPECT_TRUE(Fake().prioritySets.empty());
    // Every line was its own callback call.
    EXPECT_EQ(dvtest::LogCalls().size(), 7u);
}

TEST_F(SerialSpyTest, OpenFailureIsReturned) {
    Fake().missingPorts = {u"COM4"};
    uint32_t count = 77;
    uint8_t buffer[1] = {};
    EXPECT_EQ(DvSpy(Name(u"COM4"), 10400, 1, 20, &count, buffer), 5u);
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{
                           "\r\nOpening communication port 'COM4' port at 10400 baud rate\r\n",
                           "Could not open communication port 'COM4' (0x00000002)\r\n"}));
}

TEST_F(SerialSpyTest, TimeoutsFailureClosesThePort) {
    Fake().Fail(FakeCall::SetTimeouts, 2, 0x1F);
    uint32_t count = 0;
    uint8_t buffer[1] = {};
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 1, 20, &count, buffer), 5u);
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_FALSE(PortIsOpen());
    EXPECT_EQ(Lines().back(), "Could not set communication port timeouts (0x0000001F)\r\n");
}

TEST_F(SerialSpyTest, ReadFailureClosesThePort) {
    DvSetMessagesLevel(3);
    Fake().QueueInput({9});
    Fake().Fail(FakeCall::Read, 2, 0x1F);
    uint32_t count = 0;
    uint8_t buffer[4] = {};
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 4, 20, &count, buffer), 5u);
    EXPECT_EQ(count, 1u);
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_EQ(Lines().back(), " - Failed (0x0000001F)\r\n");
}

TEST_F(SerialSpyTest, MissingHostPointersDoNotCrash) {
    Fake().QueueInput({1, 2});
    EXPECT_EQ(DvSpy(Name(u"COM1"), 10400, 2, 20, nullptr, nullptr), 0u);
    EXPECT_EQ(Fake().CallCount(FakeCall::Read), 0);
    EXPECT_EQ(DvSpy(nullptr, 10400, 0, 20, nullptr, nullptr), 0u);
    EXPECT_EQ(Fake().openedName, u"");
}

} // namespace
} // namespace dv
