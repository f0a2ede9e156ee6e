// Part 2.1 (serial port) and the serial sub-block of Part 1.2 on the fake platform.
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

constexpr uint32_t kDtrEnable = 1u << dcb::kDtrControlShift;

// The decoded calls without the CR LF that opens every scrambled line.
std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const std::string &call : dvtest::LogCalls()) {
        lines.push_back(call.rfind("\r\n", 0) == 0 ? call.substr(2) : call);
    }
    return lines;
}

std::vector<FakeEvent::Kind> Kinds() {
    std::vector<FakeEvent::Kind> kinds;
    for (const FakeEvent &event : Fake().events) {
        kinds.push_back(event.kind);
    }
    return kinds;
}

class SerialPortTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        dvtest::LogCaptureReset();
    }
    void TearDown() override {
        DvDestruct();
        bench::FakeUninstall();
    }

    // Opens COM1 and forgets the events of the opening.
    void OpenPort() {
        ASSERT_EQ(PortOpen(u"COM1", 10400, 1024, 1024), 0u);
        Fake().events.clear();
        dvtest::LogCaptureReset();
    }
};

TEST_F(SerialPortTest, LayerSetUpGivesTheDefaults) {
    EXPECT_EQ(SerialDtrSetting(), 1u);
    EXPECT_FALSE(PortIsOpen());
    EXPECT_EQ(PortCurrentHandle(), kInvalidPort);
    EXPECT_EQ(PortByteDelay(), 0u);

    EXPECT_EQ(SerialApplyDtrSetting(0), 0u);
    EXPECT_EQ(PortSetByteDelay(10), 0u);
    EXPECT_EQ(SerialLayerSetUp(), 0u);
    EXPECT_EQ(SerialDtrSetting(), 1u);
    EXPECT_EQ(PortByteDelay(), 0u);
}

TEST_F(SerialPortTest, TearDownLeavesAnOpenPortOpen) {
    OpenPort();
    SerialLayerTearDown();
    EXPECT_TRUE(PortIsOpen());
    EXPECT_TRUE(Fake().portOpen);
    DvDestruct();
    EXPECT_TRUE(Fake().portOpen);
    EXPECT_EQ(Fake().CallCount(FakeCall::Close), 0);
}

TEST_F(SerialPortTest, OpenConfiguresThePortAsStepFiveSays) {
    Fake().state.flags = 0xFFFFFFFF; // every bit set, so that cleared and kept bits show
    Fake().state.reserved = 0x1234;
    Fake().state.xonLim = 7;
    Fake().state.xoffLim = 9;
    Fake().state.byteSize = 7;
    Fake().state.parity = 2;
    Fake().state.stopBits = 2;
    Fake().state.xonChar = 0x11;
    Fake().state.eofChar = 0x1A;
    Fake().timeouts = {5, 6, 7, 8, 9};
    const int64_t t0 = Fake().now;

    ASSERT_EQ(PortOpen(u"COM3", 10400, 1024, 512), 0u);

    EXPECT_TRUE(PortIsOpen());
    EXPECT_EQ(Fake().openedName, u"COM3");
    const CommState &s = Fake().state;
    EXPECT_EQ(s.baudRate, 10400u);
    EXPECT_EQ(s.flags, 0xFFFF8000u | dcb::kBinary | dcb::kTxContinueOnXoff | kDtrEnable);
    EXPECT_EQ(s.reserved, 0x1234);
    EXPECT_EQ(s.xonLim, 0);
    EXPECT_EQ(s.xoffLim, 0);
    EXPECT_EQ(s.byteSize, 8);
    EXPECT_EQ(s.parity, 0);
    EXPECT_EQ(s.stopBits, 0);
    EXPECT_EQ(s.xonChar, 0);
    EXPECT_EQ(s.eofChar, 0);
    const CommTimeouts &t = Fake().timeouts;
    EXPECT_EQ(t.readInterval, 0u);
    EXPECT_EQ(t.readMultiplier, 0u);
    EXPECT_EQ(t.readConstant, 0u);
    EXPECT_EQ(t.writeMultiplier, 0u);
    EXPECT_EQ(t.writeConstant, 0u);
    EXPECT_EQ(Fake().mask, 0u);
    EXPECT_EQ(Fake().inQueueSize, 1024u);
    EXPECT_EQ(Fake().outQueueSize, 512u);
    // Step 9: 50 ms of sleep, the last thing done.
    ASSERT_EQ(Fake().events.back().kind, FakeEvent::Kind::Sleep);
    EXPECT_EQ(Fake().events.back().value, 50u);
    EXPECT_EQ(Fake().now - t0, 50 * bench::kFakeTicksPerMs);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(SerialPortTest, OpenWithDtrSettingOffDisablesDtrControl) {
    ASSERT_EQ(SerialApplyDtrSetting(0), 0u);
    ASSERT_EQ(PortOpen(u"COM1", 9600, 256, 256), 0u);
    EXPECT_EQ(Fake().state.flags, dcb::kBinary | dcb::kTxContinueOnXoff);
    EXPECT_EQ(Fake().state.baudRate, 9600u);
}

TEST_F(SerialPortTest, CloseRestoresTimeoutsThenStateWithDtrAndRtsOff) {
    Fake().state.flags = 0xFFFFFFFF;
    Fake().state.baudRate = 115200;
    Fake().timeouts = {5, 6, 7, 8, 9};
    OpenPort();

    PortClose();

    EXPECT_FALSE(PortIsOpen());
    EXPECT_EQ(PortCurrentHandle(), kInvalidPort);
    ASSERT_EQ(Kinds(),
              (std::vector<FakeEvent::Kind>{FakeEvent::Kind::SetTimeouts, FakeEvent::Kind::SetState,
                                            FakeEvent::Kind::Close}));
    const CommTimeouts &t = Fake().events[0].timeouts;
    EXPECT_EQ(t.readInterval, 5u);
    EXPECT_EQ(t.readMultiplier, 6u);
    EXPECT_EQ(t.readConstant, 7u);
    EXPECT_EQ(t.writeMultiplier, 8u);
    EXPECT_EQ(t.writeConstant, 9u);
    EXPECT_EQ(Fake().events[1].state.flags,
              0xFFFFFFFFu & ~(dcb::kDtrControlMask | dcb::kRtsControlMask));
    EXPECT_EQ(Fake().events[1].state.baudRate, 115200u);
}

TEST_F(SerialPortTest, CloseIgnoresErrors) {
    OpenPort();
    Fake().Fail(FakeCall::SetTimeouts, 2, 31);
    Fake().Fail(FakeCall::SetState, 2, 31);
    PortClose();
    EXPECT_FALSE(PortIsOpen());
    EXPECT_FALSE(Fake().portOpen);
    EXPECT_TRUE(dvtest::LogCalls().empty());
}

TEST_F(SerialPortTest, MissingPortLogsNameAndErrorAndStaysInvalid) {
    dvtest::ConstructLibrary(1);
    Fake().missingPorts = {u"COM7"};
    EXPECT_EQ(PortOpen(u"COM7", 10400, 1024, 1024), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "Could not open communication port 'COM7' (0x00000002)\r\n"});
    EXPECT_EQ(PortCurrentHandle(), kInvalidPort);
    EXPECT_FALSE(PortIsOpen());
    EXPECT_EQ(Fake().CallCount(FakeCall::GetState), 0);
}

TEST_F(SerialPortTest, OpenFailureCarriesThePlatformError) {
    Fake().Fail(FakeCall::Open, 1, 5);
    EXPECT_EQ(PortOpen(u"\\\\.\\COM12", 10400, 1024, 1024), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "Could not open communication port '\\\\.\\COM12' (0x00000005)\r\n"});
    EXPECT_EQ(PortCurrentHandle(), kInvalidPort);
}

// One failing step of PortOpen: its line, code 5, the handle invalid and the unwinding calls.
struct OpenFailure {
    FakeCall call;
    const char *line;
    std::vector<FakeEvent::Kind> unwinding; // events after the failing call
};

class SerialOpenFailureTest : public SerialPortTest,
                              public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(SerialOpenFailureTest, LogsClosesAndUnwinds) {
    const OpenFailure &failure = GetParam();
    Fake().state.flags = 0xFFFFFFFF;
    Fake().timeouts = {5, 6, 7, 8, 9};
    Fake().Fail(failure.call, 1, 0x1F);

    EXPECT_EQ(PortOpen(u"COM1", 10400, 1024, 1024), 5u);

    EXPECT_EQ(Lines(), std::vector<std::string>{failure.line});
    EXPECT_EQ(PortCurrentHandle(), kInvalidPort);
    EXPECT_FALSE(Fake().portOpen);
    std::vector<FakeEvent::Kind> kinds = Kinds();
    ASSERT_FALSE(kinds.empty());
    EXPECT_EQ(kinds.front(), FakeEvent::Kind::Open);
    // What follows the events of the steps that succeeded: SetState of step 5 only when a later
    // step failed.
    kinds.erase(kinds.begin());
    if (failure.call == FakeCall::SetTimeouts || failure.call == FakeCall::SetMask ||
        failure.call == FakeCall::SetupQueues) {
        ASSERT_FALSE(kinds.empty());
        EXPECT_EQ(kinds.front(), FakeEvent::Kind::SetState);
        kinds.erase(kinds.begin());
    }
    if (failure.call == FakeCall::SetMask || failure.call == FakeCall::SetupQueues) {
        ASSERT_FALSE(kinds.empty());
        EXPECT_EQ(kinds.front(), FakeEvent::Kind::SetTimeouts);
        EXPECT_EQ(Fake().events[2].timeouts.readInterval, 0u);
        kinds.erase(kinds.begin());
    }
    EXPECT_EQ(kinds, failure.unwinding);
    // A restored state is the saved one, DTR and RTS off.
    for (const FakeEvent &event : Fake().events) {
        if (event.kind == FakeEvent::Kind::SetState && &event != &Fake().events[1]) {
            EXPECT_EQ(event.state.flags,
                      0xFFFFFFFFu & ~(dcb::kDtrControlMask | dcb::kRtsControlMask));
        }
    }
    EXPECT_EQ(Fake().CallCount(FakeCall::Close), 1);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, SerialOpenFailureTest,
    ::testing::Values(OpenFailure{FakeCall::GetState,
                                  "Could not get communication port state (0x0000001F)\r\n",
                                  {FakeEvent::Kind::Close}},
                      OpenFailure{FakeCall::GetTimeouts,
                                  "Could not get communication port timeouts (0x0000001F)\r\n",
                                  {FakeEvent::Kind::Close}},
                      OpenFailure{FakeCall::SetState,
                                  "Could not set communication port state (0x0000001F)\r\n",
                                  {FakeEvent::Kind::Close}},
                      OpenFailure{FakeCall::SetTimeouts,
                                  "Could not set communication port timeouts (0x0000001F)\r\n",
                                  {FakeEvent::Kind::SetState, FakeEvent::Kind::Close}},
                      OpenFailure{FakeCall::SetMask,
                                  "Could not set communication port mask (0x0000001F)\r\n",
                                  {FakeEvent::Kind::SetTimeouts, FakeEvent::Kind::SetState,
                                   FakeEvent::Kind::Close}},
                      OpenFailure{FakeCall::SetupQueues,
                                  "Could not setup communication port (0x0000001F)\r\n",
                                  {FakeEvent::Kind::SetTimeouts, FakeEvent::Kind::SetState,
                                   FakeEvent::Kind::Close}}));

TEST_F(SerialPortTest, OpenFailuresAreLevelOne) {
    dvtest::ConstructLibrary(0);
    Fake().Fail(FakeCall::GetState, 1, 0x1F);
    EXPECT_EQ(PortOpen(u"COM1", 10400, 1024, 1024), 5u);
    EXPECT_TRUE(dvtest::LogCalls().empty());
    dvtest::ConstructLibrary(1);
    Fake().Fail(FakeCall::GetState, 2, 0x1F);
    EXPECT_EQ(PortOpen(u"COM1", 10400, 1024, 1024), 5u);
    EXPECT_EQ(dvtest::LogCalls().size(), 1u);
}

TEST_F(SerialPortTest, TimeoutsWithNoIntervalLimit) {
    OpenPort();
    EXPECT_EQ(PortSetTimeouts(0, 60, kNoLimit), 0u);
    const CommTimeouts &t = Fake().timeouts;
    EXPECT_EQ(t.readConstant, 1u);
    EXPECT_EQ(t.readMultiplier, 60u);
    EXPECT_EQ(t.readInterval, 0u);
    EXPECT_EQ(t.writeMultiplier, 0u);
    EXPECT_EQ(t.writeConstant, 0u);
}

TEST_F(SerialPortTest, TimeoutsWithNoTotalLimit) {
    OpenPort();
    Fake().timeouts = {1, 2, 3, 4, 5};
    EXPECT_EQ(PortSetTimeouts(kNoLimit, kNoLimit, 20), 0u);
    const CommTimeouts &t = Fake().timeouts;
    EXPECT_EQ(t.readConstant, 0u);
    EXPECT_EQ(t.readMultiplier, 0u);
    EXPECT_EQ(t.readInterval, 21u);
    EXPECT_EQ(t.writeMultiplier, 0u);
    EXPECT_EQ(t.writeConstant, 0u);
}

TEST_F(SerialPortTest, TimeoutsOfZeroReturnAtOnce) {
    OpenPort();
    EXPECT_EQ(PortSetTimeouts(0, 0, 20), 0u);
    EXPECT_EQ(Fake().timeouts.readInterval, 0xFFFFFFFFu);
    EXPECT_EQ(Fake().timeouts.readMultiplier, 0u);
    EXPECT_EQ(Fake().timeouts.readConstant, 0u);
}

TEST_F(SerialPortTest, TimeoutsWithTotalAndInterval) {
    OpenPort();
    EXPECT_EQ(PortSetTimeouts(1000, 0, 20), 0u);
    EXPECT_EQ(Fake().timeouts.readConstant, 1001u);
    EXPECT_EQ(Fake().timeouts.readMultiplier, 0u);
    EXPECT_EQ(Fake().timeouts.readInterval, 21u);
    // Only one of total and per byte being "no limit" drops both.
    EXPECT_EQ(PortSetTimeouts(1000, kNoLimit, 0), 0u);
    EXPECT_EQ(Fake().timeouts.readConstant, 0u);
    EXPECT_EQ(Fake().timeouts.readMultiplier, 0u);
    EXPECT_EQ(Fake().timeouts.readInterval, 1u);
}

TEST_F(SerialPortTest, TimeoutsFailure) {
    dvtest::ConstructLibrary(1);
    OpenPort();
    Fake().Fail(FakeCall::SetTimeouts, 2, 0x57);
    EXPECT_EQ(PortSetTimeouts(0, 60, kNoLimit), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "Could not set communication port timeouts (0x00000057)\r\n"});
}

TEST_F(SerialPortTest, ByteDelayIsStored) {
    EXPECT_EQ(PortSetByteDelay(10), 0u);
    EXPECT_EQ(PortByteDelay(), 10u);
    EXPECT_EQ(PortSetByteDelay(0), 0u);
    EXPECT_EQ(PortByteDelay(), 0u);
}

TEST_F(SerialPortTest, PurgeWithZeroCallsThePlatformWithNoFlags) {
    OpenPort();
    EXPECT_EQ(PortPurge(0), 0u);
    const auto purges = Fake().EventsOf(FakeEvent::Kind::Purge);
    ASSERT_EQ(purges.size(), 1u);
    EXPECT_EQ(purges[0]->value, 0u);
}

TEST_F(SerialPortTest, PurgeMapsInputAndOutputBits) {
    OpenPort();
    EXPECT_EQ(PortPurge(kPurgeInput), 0u);
    EXPECT_EQ(PortPurge(kPurgeOutput), 0u);
    EXPECT_EQ(PortPurge(kPurgeInput | kPurgeOutput), 0u);
    const auto purges = Fake().EventsOf(FakeEvent::Kind::Purge);
    ASSERT_EQ(purges.size(), 3u);
    EXPECT_EQ(purges[0]->value, kPurgeRxClear);
    EXPECT_EQ(purges[1]->value, kPurgeTxClear);
    EXPECT_EQ(purges[2]->value, kPurgeRxClear | kPurgeTxClear);
}

TEST_F(SerialPortTest, PurgeClearsWhatHasArrived) {
    OpenPort();
    Fake().QueueInput({1, 2, 3});
    EXPECT_EQ(PortPurge(kPurgeInput), 0u);
    EXPECT_TRUE(Fake().input.empty());
}

TEST_F(SerialPortTest, PurgeFailure) {
    dvtest::ConstructLibrary(1);
    OpenPort();
    Fake().Fail(FakeCall::Purge, 1, 0x16);
    EXPECT_EQ(PortPurge(kPurgeInput), 5u);
    EXPECT_EQ(Lines(),
              std::vector<std::string>{"Could not purge communication port (0x00000016)\r\n"});
}

TEST_F(SerialPortTest, PurgeWithoutAnOpenPortFails) {
    EXPECT_EQ(PortPurge(kPurgeInput), 5u);
    EXPECT_EQ(Lines(),
              std::vector<std::string>{"Could not purge communication port (0x00000006)\r\n"});
}

// ---- Part 1.2, serial sub-block -------------------------------------------------------------

TEST_F(SerialPortTest, DtrSettingWithoutPortIsStoredOnly) {
    EXPECT_EQ(SerialApplyDtrSetting(0), 0u);
    EXPECT_EQ(SerialDtrSetting(), 0u);
    EXPECT_EQ(SerialApplyDtrSetting(7), 0u);
    EXPECT_EQ(SerialDtrSetting(), 7u);
    EXPECT_EQ(Fake().CallCount(FakeCall::Escape), 0);
}

TEST_F(SerialPortTest, DtrSettingOnOpenPortEscapesAtOnce) {
    OpenPort();
    EXPECT_EQ(SerialApplyDtrSetting(0), 0u);
    EXPECT_EQ(SerialDtrSetting(), 0u);
    EXPECT_FALSE(Fake().dtrOn);
    EXPECT_EQ(SerialApplyDtrSetting(1), 0u);
    EXPECT_TRUE(Fake().dtrOn);
    const auto escapes = Fake().EventsOf(FakeEvent::Kind::Escape);
    ASSERT_EQ(escapes.size(), 2u);
    EXPECT_EQ(escapes[0]->value, static_cast<uint32_t>(Escape::ClrDtr));
    EXPECT_EQ(escapes[1]->value, static_cast<uint32_t>(Escape::SetDtr));
}

TEST_F(SerialPortTest, DtrSettingUnchangedOnOpenPortDoesNotEscape) {
    OpenPort();
    EXPECT_EQ(SerialApplyDtrSetting(1), 0u);
    EXPECT_EQ(Fake().CallCount(FakeCall::Escape), 0);
}

TEST_F(SerialPortTest, DtrSettingThroughDvSetSettings) {
    OpenPort();
    DvSettings settings{};
    DvGetSettings(&settings);
    settings.dtrOn = 0;
    EXPECT_EQ(DvSetSettings(&settings), 0u);
    const auto escapes = Fake().EventsOf(FakeEvent::Kind::Escape);
    ASSERT_EQ(escapes.size(), 1u);
    EXPECT_EQ(escapes[0]->value, static_cast<uint32_t>(Escape::ClrDtr));
    DvGetSettings(&settings);
    EXPECT_EQ(settings.dtrOn, 0u);
}

TEST_F(SerialPortTest, DtrSettingFailureIsNotStored) {
    dvtest::ConstructLibrary(1);
    OpenPort();
    Fake().Fail(FakeCall::Escape, 1, 0x1F);
    EXPECT_EQ(SerialApplyDtrSetting(0), 5u);
    EXPECT_EQ(SerialDtrSetting(), 1u);
    EXPECT_EQ(Lines(),
              std::vector<std::string>{"Could not escape communication port (0x0000001F)\r\n"});
}

} // namespace
} // namespace dv
