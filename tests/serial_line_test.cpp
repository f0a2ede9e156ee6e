// Part 2.2 (line transfer primitives) on the fake platform's virtual clock.
#include <cstdio>
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

// The timestamp text of a virtual time given in counter ticks since the start mark.
std::string Stamp(int64_t ticks) {
    char text[64];
    std::snprintf(text, sizeof text, "@ %.1f",
                  static_cast<double>(ticks) / static_cast<double>(kFakeTicksPerMs));
    return text;
}

std::vector<uint32_t> EscapeValues() {
    std::vector<uint32_t> values;
    for (const FakeEvent *event : Fake().EventsOf(FakeEvent::Kind::Escape)) {
        values.push_back(event->value);
    }
    return values;
}

constexpr uint32_t kSetBreak = static_cast<uint32_t>(Escape::SetBreak);
constexpr uint32_t kClrBreak = static_cast<uint32_t>(Escape::ClrBreak);
constexpr uint32_t kSetRts = static_cast<uint32_t>(Escape::SetRts);
constexpr uint32_t kClrRts = static_cast<uint32_t>(Escape::ClrRts);

// The escapes of a bit sequence: '0' is SETBREAK, SETRTS; '1' is CLRBREAK, CLRRTS.
std::vector<uint32_t> EscapesOf(const std::vector<int> &bits) {
    std::vector<uint32_t> values;
    for (int bit : bits) {
        if (bit == 0) {
            values.insert(values.end(), {kSetBreak, kSetRts});
        } else {
            values.insert(values.end(), {kClrBreak, kClrRts});
        }
    }
    return values;
}

// A platform that is the fake but for the calls a test replaces.
Platform gWrapped;

class SerialLineTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        start_ = Fake().now;
        ASSERT_EQ(PortOpen(u"COM1", 10400, 1024, 1024), 0u);
        Fake().events.clear();
        dvtest::LogCaptureReset();
    }
    void TearDown() override {
        DvDestruct();
        bench::FakeUninstall();
    }
    // Virtual ticks since the log's start mark.
    int64_t Since() const { return Fake().now - start_; }
    void Level(uint32_t level) { DvSetMessagesLevel(level); }
    void Wrap() {
        gWrapped = bench::FakePlatform();
        PlatformInstall(&gWrapped);
    }

    int64_t start_ = 0;
};

// ---- LineWrite ------------------------------------------------------------------------------

TEST_F(SerialLineTest, WriteInOneCallWithTraceAtLevelThree) {
    Level(3);
    const std::string at = Stamp(Since());
    const uint8_t bytes[] = {0x01, 0xAB, 0xFF};
    EXPECT_EQ(LineWrite(3, 3, bytes), 0u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x01, 0xAB, 0xFF}));
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Write).size(), 1u);
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{"<<< [3] '01 AB FF' " + at, " - Ok [3] " + at + "\r\n"}));
}

TEST_F(SerialLineTest, WriteTraceNeedsItsLevel) {
    const uint8_t bytes[] = {0x55};
    Level(3);
    EXPECT_EQ(LineWrite(4, 1, bytes), 0u);
    Level(2);
    EXPECT_EQ(LineWrite(3, 1, bytes), 0u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
    Level(4);
    EXPECT_EQ(LineWrite(4, 1, bytes), 0u);
    EXPECT_EQ(dvtest::LogCalls().size(), 2u);
    EXPECT_EQ(Fake().Written(), (std::vector<uint8_t>{0x55, 0x55, 0x55}));
}

TEST_F(SerialLineTest, ByteDelayTenWithThreeBytesTakesThirtyMs) {
    PortSetByteDelay(10);
    const uint8_t bytes[] = {1, 2, 3};
    const int64_t t0 = Fake().now;
    EXPECT_EQ(LineWrite(3, 3, bytes), 0u);
    EXPECT_EQ(Fake().now - t0, 30 * kFakeTicksPerMs);
    const auto writes = Fake().EventsOf(FakeEvent::Kind::Write);
    ASSERT_EQ(writes.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(writes[i]->bytes, std::vector<uint8_t>{static_cast<uint8_t>(i + 1)});
        EXPECT_EQ(writes[i]->at - t0, static_cast<int64_t>(i) * 10 * kFakeTicksPerMs);
    }
    // Busy-waits, never sleeps.
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Sleep).empty());
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Spin).size(), 3u);
}

TEST_F(SerialLineTest, ByteDelayTraceCountsWhatWentOut) {
    Level(3);
    PortSetByteDelay(10);
    const uint8_t bytes[] = {0x10, 0x20};
    const std::string before = Stamp(Since());
    EXPECT_EQ(LineWrite(3, 2, bytes), 0u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"<<< [2] '10 20' " + before,
                                                 " - Ok [2] " + Stamp(Since()) + "\r\n"}));
}

TEST_F(SerialLineTest, WriteFailureInOneCall) {
    Level(3);
    Fake().Fail(FakeCall::Write, 1, 0x1F);
    const uint8_t bytes[] = {0x01};
    EXPECT_EQ(LineWrite(3, 1, bytes), 5u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"<<< [1] '01' " + Stamp(Since()),
                                                 " - Failed (0x0000001F)\r\n"}));
}

TEST_F(SerialLineTest, WriteFailureLineHasTheTraceLevel) {
    Level(3);
    Fake().Fail(FakeCall::Write, 1, 0x1F);
    const uint8_t bytes[] = {0x01};
    EXPECT_EQ(LineWrite(4, 1, bytes), 5u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(SerialLineTest, WriteFailureOnTheSecondDelayedByte) {
    Level(4);
    PortSetByteDelay(10);
    Fake().Fail(FakeCall::Write, 2, 0x79);
    const uint8_t bytes[] = {0x01, 0x02, 0x03};
    EXPECT_EQ(LineWrite(4, 3, bytes), 5u);
    EXPECT_EQ(Fake().Written(), std::vector<uint8_t>{0x01});
    EXPECT_EQ(Lines().back(), " - Failed (0x00000079)\r\n");
    EXPECT_EQ(Lines().size(), 2u);
}

// A write that reports fewer bytes than asked.
bool ShortWrite(PortHandle port, const uint8_t *bytes, uint32_t count, uint32_t *written) {
    const bool ok = bench::FakePlatform().portWrite(port, bytes, count, written);
    *written = count / 2;
    return ok;
}

TEST_F(SerialLineTest, ShortWriteGivesFive) {
    Wrap();
    gWrapped.portWrite = ShortWrite;
    Level(3);
    const uint8_t bytes[] = {1, 2, 3, 4};
    EXPECT_EQ(LineWrite(3, 4, bytes), 5u);
    EXPECT_EQ(Lines().back(), " - Ok [2] " + Stamp(Since()) + "\r\n");
}

TEST_F(SerialLineTest, DelayedWriteStopsWhenNothingWentOut) {
    Wrap();
    gWrapped.portWrite = ShortWrite; // one byte at a time: count / 2 = 0
    PortSetByteDelay(10);
    Level(3);
    const uint8_t bytes[] = {1, 2, 3};
    const int64_t t0 = Fake().now;
    EXPECT_EQ(LineWrite(3, 3, bytes), 5u);
    EXPECT_EQ(Fake().EventsOf(FakeEvent::Kind::Write).size(), 1u);
    EXPECT_EQ(Fake().now, t0);
    EXPECT_EQ(Lines().back(), " - Ok [0] " + Stamp(Since()) + "\r\n");
}

// ---- LineRead -------------------------------------------------------------------------------

TEST_F(SerialLineTest, ReadWithTraceAtLevelFour) {
    Level(4);
    Fake().QueueInput({0x55, 0x01, 0x8A});
    PortSetTimeouts(100, 0, kNoLimit);
    const std::string at = Stamp(Since());
    uint8_t buffer[3] = {};
    uint32_t got = 0;
    EXPECT_EQ(LineRead(4, 3, buffer, &got), 0u);
    EXPECT_EQ(got, 3u);
    EXPECT_EQ(buffer[2], 0x8A);
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{">>> [3] " + at, " - Ok [3] '55 01 8A' " + at + "\r\n"}));
}

TEST_F(SerialLineTest, ShortReadIsNotAFailure) {
    Level(3);
    Fake().QueueInput({0x0F});
    PortSetTimeouts(0, 60, kNoLimit);
    const int64_t t0 = Fake().now;
    uint8_t buffer[2] = {};
    uint32_t got = 0;
    EXPECT_EQ(LineRead(3, 2, buffer, &got), 0u);
    EXPECT_EQ(got, 1u);
    // The read waited its whole limit: 1 + 60 * 2 ms.
    EXPECT_EQ(Fake().now - t0, 121 * kFakeTicksPerMs);
    EXPECT_EQ(Lines().back(), " - Ok [1] '0F' " + Stamp(Since()) + "\r\n");
}

TEST_F(SerialLineTest, EmptyReadShowsNoBytes) {
    Level(3);
    PortSetTimeouts(0, 0, 0);
    uint8_t buffer[1] = {};
    uint32_t got = 7;
    EXPECT_EQ(LineRead(3, 1, buffer, &got), 0u);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(Lines().back(), " - Ok [0] '' " + Stamp(Since()) + "\r\n");
}

TEST_F(SerialLineTest, ReadFailure) {
    Level(3);
    Fake().Fail(FakeCall::Read, 1, 0x3E3);
    uint8_t buffer[1] = {};
    uint32_t got = 0;
    EXPECT_EQ(LineRead(3, 1, buffer, &got), 5u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{">>> [1] " + Stamp(Since()),
                                                 " - Failed (0x000003E3)\r\n"}));
}

TEST_F(SerialLineTest, ReadTraceNeedsItsLevel) {
    Level(3);
    Fake().QueueInput({1});
    uint8_t buffer[1] = {};
    uint32_t got = 0;
    EXPECT_EQ(LineRead(4, 1, buffer, &got), 0u);
    EXPECT_EQ(got, 1u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

// ---- LineWaitForInput -----------------------------------------------------------------------

TEST_F(SerialLineTest, WaitEndsAtTheDeadlineOfTheTimeouts) {
    Level(4);
    PortSetTimeouts(100, 0, kNoLimit); // constant 101
    const int64_t t0 = Fake().now;
    const std::string at = Stamp(Since());
    uint32_t queued = 9;
    EXPECT_EQ(LineWaitForInput(1, &queued), 0u);
    EXPECT_EQ(queued, 0u);
    EXPECT_EQ(Fake().now - t0, 101 * kFakeTicksPerMs);
    const auto sleeps = Fake().EventsOf(FakeEvent::Kind::Sleep);
    EXPECT_EQ(sleeps.size(), 101u);
    for (const FakeEvent *sleep : sleeps) {
        EXPECT_EQ(sleep->value, 1u);
    }
    EXPECT_EQ(Lines(),
              (std::vector<std::string>{"=== [1] " + at, " - Ok [0] " + Stamp(Since()) + "\r\n"}));
}

TEST_F(SerialLineTest, WaitDeadlineCountsThePerByteTime) {
    PortSetTimeouts(0, 10, kNoLimit); // constant 1, multiplier 10
    const int64_t t0 = Fake().now;
    uint32_t queued = 9;
    EXPECT_EQ(LineWaitForInput(3, &queued), 0u);
    EXPECT_EQ(Fake().now - t0, 31 * kFakeTicksPerMs);
}

TEST_F(SerialLineTest, WaitEndsWhenEnoughIsQueued) {
    PortSetTimeouts(1000, 0, kNoLimit);
    const int64_t t0 = Fake().now;
    Fake().QueueInputAt(t0 + 30 * kFakeTicksPerMs, {1, 2});
    Fake().QueueInputAt(t0 + 40 * kFakeTicksPerMs, {3});
    uint32_t queued = 0;
    EXPECT_EQ(LineWaitForInput(3, &queued), 0u);
    EXPECT_EQ(queued, 3u);
    EXPECT_EQ(Fake().now - t0, 40 * kFakeTicksPerMs);
    EXPECT_EQ(Fake().input.size(), 3u); // waiting reads nothing
}

TEST_F(SerialLineTest, WaitReturnsAtOnceWhenQueued) {
    Fake().QueueInput({1});
    PortSetTimeouts(1000, 0, kNoLimit);
    const int64_t t0 = Fake().now;
    uint32_t queued = 0;
    EXPECT_EQ(LineWaitForInput(1, &queued), 0u);
    EXPECT_EQ(queued, 1u);
    EXPECT_EQ(Fake().now, t0);
    EXPECT_TRUE(Fake().EventsOf(FakeEvent::Kind::Sleep).empty());
}

TEST_F(SerialLineTest, WaitTraceNeedsLevelFour) {
    Level(3);
    PortSetTimeouts(5, 0, kNoLimit);
    uint32_t queued = 0;
    EXPECT_EQ(LineWaitForInput(1, &queued), 0u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(SerialLineTest, WaitFailsWhenTheTimeoutsCannotBeRead) {
    Level(4);
    Fake().Fail(FakeCall::GetTimeouts, 2, 0x1F); // the first was PortOpen's
    uint32_t queued = 0;
    EXPECT_EQ(LineWaitForInput(1, &queued), 5u);
    EXPECT_EQ(Lines(), (std::vector<std::string>{"=== [1] " + Stamp(Since()),
                                                 " - Failed (0x0000001F)\r\n"}));
}

TEST_F(SerialLineTest, WaitFailsWhenAPollFails) {
    Level(4);
    PortSetTimeouts(100, 0, kNoLimit);
    Fake().Fail(FakeCall::ClearError, 3, 0x1E);
    const int64_t t0 = Fake().now;
    uint32_t queued = 0;
    EXPECT_EQ(LineWaitForInput(1, &queued), 5u);
    EXPECT_EQ(Fake().now - t0, 2 * kFakeTicksPerMs);
    EXPECT_EQ(Lines().back(), " - Failed (0x0000001E)\r\n");
}

// ---- LineSendAddress ------------------------------------------------------------------------

TEST_F(SerialLineTest, AddressOneSendsItsBitsTwoHundredMsApart) {
    Fake().breakEchoes = true;
    const int64_t t0 = Fake().now;
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    // Start 0, data 1 0 0 0 0 0 0 (least significant first), parity 0, stop 1.
    EXPECT_EQ(EscapeValues(), EscapesOf({0, 1, 0, 0, 0, 0, 0, 0, 0, 1}));
    const auto escapes = Fake().EventsOf(FakeEvent::Kind::Escape);
    for (size_t bit = 0; bit < 10; ++bit) {
        EXPECT_EQ(escapes[2 * bit]->at - t0, static_cast<int64_t>(bit) * 200 * kFakeTicksPerMs)
            << "bit " << bit;
        EXPECT_EQ(escapes[2 * bit + 1]->at, escapes[2 * bit]->at);
    }
    // The stop bit is held half a bit time.
    EXPECT_EQ(Fake().now - t0, 1900 * kFakeTicksPerMs);
    // Each bit sleeps all but 20 ms.
    const auto sleeps = Fake().EventsOf(FakeEvent::Kind::Sleep);
    ASSERT_EQ(sleeps.size(), 10u);
    for (size_t bit = 0; bit < 9; ++bit) {
        EXPECT_EQ(sleeps[bit]->value, 180u);
    }
    EXPECT_EQ(sleeps[9]->value, 80u);
    EXPECT_EQ(echo, 2);
}

std::vector<int64_t> gStatusTimes;

bool RecordedClearError(PortHandle port, uint32_t *errors, uint32_t *inQueue) {
    gStatusTimes.push_back(Fake().now);
    return bench::FakePlatform().portClearError(port, errors, inQueue);
}

TEST_F(SerialLineTest, AddressReadsTheStatusBeforeAndAfterTheStartBitSleep) {
    Wrap();
    gWrapped.portClearError = RecordedClearError;
    gStatusTimes.clear();
    Fake().breakEchoes = true;
    const int64_t t0 = Fake().now;
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(gStatusTimes, (std::vector<int64_t>{t0, t0 + 180 * kFakeTicksPerMs}));
}

TEST_F(SerialLineTest, AddressTraceAndStatusLines) {
    Level(4);
    Fake().breakEchoes = true;
    const int64_t t0 = Since();
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    const std::vector<int> bits = {0, 1, 0, 0, 0, 0, 0, 0, 0, 1};
    std::vector<std::string> expected;
    for (size_t i = 0; i < bits.size(); ++i) {
        const std::string at = Stamp(t0 + static_cast<int64_t>(i) * 200 * kFakeTicksPerMs);
        expected.push_back(std::string("<<< [.1] '") + (bits[i] != 0 ? "1" : "0") + "' " + at);
        expected.push_back(" - Ok [.1] " + at + "\r\n");
    }
    expected.push_back("Status 0x00000018, size 1\r\n");
    EXPECT_EQ(Lines(), expected);
}

TEST_F(SerialLineTest, AddressTraceAtLevelThreeHasNoStatusLine) {
    Level(3);
    Fake().breakEchoes = true;
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(Lines().size(), 20u);
    EXPECT_EQ(Lines().back().rfind(" - Ok [.1] ", 0), 0u);
}

TEST_F(SerialLineTest, AddressParityMakesTheOnesOdd) {
    Fake().breakEchoes = true;
    int32_t echo = 0;
    // 0x03: two ones, parity 1; falling edges: start, and none after (1 1 0 ...: one more).
    EXPECT_EQ(LineSendAddress(200, 0x03, &echo), 0u);
    EXPECT_EQ(EscapeValues(), EscapesOf({0, 1, 1, 0, 0, 0, 0, 0, 1, 1}));
    EXPECT_EQ(echo, 2);
}

TEST_F(SerialLineTest, AddressEchoCountsEveryFallingEdge) {
    Fake().breakEchoes = true;
    int32_t echo = 0;
    // 0x55 = 1010101: bits 0 1 0 1 0 1 0 1 | parity 1 (four ones) | stop: edges at the start
    // and after each of the three '1's followed by '0'.
    EXPECT_EQ(LineSendAddress(200, 0x55, &echo), 0u);
    EXPECT_EQ(EscapeValues(), EscapesOf({0, 1, 0, 1, 0, 1, 0, 1, 1, 1}));
    EXPECT_EQ(echo, 4);
}

TEST_F(SerialLineTest, AddressEchoUnknownWhenMoreThanOneByteCame) {
    const int64_t t0 = Fake().now;
    Fake().QueueInputAt(t0 + 5 * kFakeTicksPerMs, {0x00, 0x00});
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(echo, -1);
}

TEST_F(SerialLineTest, AddressEchoCountsWithoutEchoWhenNoErrorShows) {
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(echo, 2);
}

bool EscapeWithFramingError(PortHandle port, Escape function) {
    if (function == Escape::SetBreak) {
        Fake().lineErrors |= kCeFrame;
    }
    return bench::FakePlatform().portEscape(port, function);
}

bool EscapeWithBreakError(PortHandle port, Escape function) {
    if (function == Escape::SetBreak) {
        Fake().lineErrors |= kCeBreak;
    }
    return bench::FakePlatform().portEscape(port, function);
}

TEST_F(SerialLineTest, AddressEchoUnknownOnFramingErrorWithoutAByte) {
    Wrap();
    gWrapped.portEscape = EscapeWithFramingError;
    Level(4);
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(echo, -1);
    EXPECT_EQ(Lines().back(), "Status 0x00000008, size 0\r\n");
}

TEST_F(SerialLineTest, AddressEchoUnknownOnBreakErrorWithoutAByte) {
    Wrap();
    gWrapped.portEscape = EscapeWithBreakError;
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(echo, -1);
}

TEST_F(SerialLineTest, AddressFirstStatusFailure) {
    Level(1);
    Fake().Fail(FakeCall::ClearError, 1, 0x1F);
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "Could not clear communication port error (0x0000001F)\r\n"});
    EXPECT_EQ(Fake().CallCount(FakeCall::Escape), 0);
}

TEST_F(SerialLineTest, AddressSecondStatusFailure) {
    Level(1);
    Fake().Fail(FakeCall::ClearError, 2, 0x1F);
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "Could not clear communication port error (0x0000001F)\r\n"});
    EXPECT_EQ(EscapeValues(), EscapesOf({0}));
}

TEST_F(SerialLineTest, AddressEscapeFailure) {
    Level(3);
    Fake().Fail(FakeCall::Escape, 4, 0x1F); // CLRRTS of the first data bit
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 5u);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2].rfind("<<< [.1] '1' ", 0), 0u);
    EXPECT_EQ(lines[3], " - Failed (0x0000001F)\r\n");
}

TEST_F(SerialLineTest, BitTimeUnderTwentyWrapsTheSleep) {
    int32_t echo = 0;
    EXPECT_EQ(LineSendWakeUp(10, &echo), 0u);
    const auto sleeps = Fake().EventsOf(FakeEvent::Kind::Sleep);
    ASSERT_EQ(sleeps.size(), 2u);
    EXPECT_EQ(sleeps[0]->value, 0xFFFFFFF6u);
}

// ---- LineSendWakeUp -------------------------------------------------------------------------

TEST_F(SerialLineTest, WakeUpIsLowThenHighForTwentyFiveMs) {
    Fake().breakEchoes = true;
    Level(4);
    const int64_t t0 = Fake().now;
    int32_t echo = 0;
    EXPECT_EQ(LineSendWakeUp(25, &echo), 0u);
    EXPECT_EQ(EscapeValues(), EscapesOf({0, 1}));
    const auto escapes = Fake().EventsOf(FakeEvent::Kind::Escape);
    EXPECT_EQ(escapes[0]->at, t0);
    EXPECT_EQ(escapes[2]->at - t0, 25 * kFakeTicksPerMs);
    EXPECT_EQ(Fake().now - t0, 50 * kFakeTicksPerMs);
    const auto sleeps = Fake().EventsOf(FakeEvent::Kind::Sleep);
    ASSERT_EQ(sleeps.size(), 2u);
    EXPECT_EQ(sleeps[0]->value, 5u);
    EXPECT_EQ(sleeps[1]->value, 5u);
    EXPECT_EQ(Fake().CallCount(FakeCall::ClearError), 2);
    EXPECT_EQ(echo, 1);
    EXPECT_EQ(Lines().back(), "Status 0x00000018, size 1\r\n");
    EXPECT_EQ(Lines().size(), 5u);
}

TEST_F(SerialLineTest, WakeUpEchoUnknownOnFramingErrorWithoutAByte) {
    Wrap();
    gWrapped.portEscape = EscapeWithFramingError;
    int32_t echo = 0;
    EXPECT_EQ(LineSendWakeUp(25, &echo), 0u);
    EXPECT_EQ(echo, -1);
}

TEST_F(SerialLineTest, WakeUpEchoUnknownWhenMoreThanOneByteCame) {
    Fake().breakEchoes = true;
    Fake().QueueInputAt(Fake().now + kFakeTicksPerMs, {0x00});
    int32_t echo = 0;
    EXPECT_EQ(LineSendWakeUp(25, &echo), 0u);
    EXPECT_EQ(echo, -1);
}

TEST_F(SerialLineTest, WakeUpStatusFailures) {
    Level(1);
    Fake().Fail(FakeCall::ClearError, 2, 0x15);
    int32_t echo = 0;
    EXPECT_EQ(LineSendWakeUp(25, &echo), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "Could not clear communication port error (0x00000015)\r\n"});
}

TEST_F(SerialLineTest, WakeUpEscapeFailure) {
    Level(3);
    Fake().Fail(FakeCall::Escape, 1, 0x1F);
    int32_t echo = 0;
    EXPECT_EQ(LineSendWakeUp(25, &echo), 5u);
    EXPECT_EQ(Lines().back(), " - Failed (0x0000001F)\r\n");
    EXPECT_EQ(Fake().CallCount(FakeCall::Escape), 1);
}

} // namespace
} // namespace dv
