// The bench's line and adapter, driven by hand through the platform seam: echoes, breaks,
// baud mismatches, the Win32 read rules, byte-level faults, failing calls, the trace, the
// real clock and the "vecu:" ports.
#include <chrono>
#include <gtest/gtest.h>

#include "bench/bench.h"
#include "bench/kw1281_ecu.h"
#include "bench/profiles.h"
#include "frame/frame.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace dv::bench {
namespace {

constexpr int64_t kMs = kFakeTicksPerMs;

// An ECU that answers every byte it hears with that byte + 1, after 2 ms, and records the
// line levels: enough to see the line without a protocol.
class Mirror final : public EcuModel {
public:
    explicit Mirror(uint32_t baud) : baud_(baud) {}
    void OnLineLevel(EcuBus &, int64_t at, bool high) override { levels.emplace_back(at, high); }
    void OnByte(EcuBus &bus, int64_t at, uint8_t byte) override {
        heard.push_back(byte);
        bus.Send(at + 2 * bus.TicksPerMs(), static_cast<uint8_t>(byte + 1));
    }
    void OnTimer(EcuBus &, int64_t) override {}
    uint32_t Baud() const override { return baud_; }

    std::vector<uint8_t> heard;
    std::vector<std::pair<int64_t, bool>> levels;

private:
    uint32_t baud_;
};

const Platform &P() {
    return PlatformGet();
}

class BenchLineTest : public ::testing::Test {
protected:
    void Install(uint32_t ecuBaud, uint32_t testerBaud, BenchClock clock = BenchClock::Virtual) {
        auto ecu = std::make_unique<Mirror>(ecuBaud);
        mirror_ = ecu.get();
        BenchInstall(std::move(ecu), clock);
        port_ = P().portOpen(u"COM1");
        ASSERT_NE(port_, kInvalidPort);
        CommState state{};
        state.baudRate = testerBaud;
        ASSERT_TRUE(P().portSetState(port_, &state));
    }
    void TearDown() override { BenchUninstall(); }

    void Timeouts(uint32_t constant, uint32_t multiplier = 0, uint32_t interval = 0) {
        CommTimeouts t{};
        t.readConstant = constant;
        t.readMultiplier = multiplier;
        t.readInterval = interval;
        ASSERT_TRUE(P().portSetTimeouts(port_, &t));
    }
    void Immediate() {
        CommTimeouts t{};
        t.readInterval = 0xFFFFFFFF;
        ASSERT_TRUE(P().portSetTimeouts(port_, &t));
    }
    std::vector<uint8_t> Read(uint32_t count) {
        std::vector<uint8_t> buffer(count);
        uint32_t got = 0;
        EXPECT_TRUE(P().portRead(port_, buffer.data(), count, &got));
        buffer.resize(got);
        return buffer;
    }
    void Write(std::vector<uint8_t> bytes) {
        uint32_t written = 0;
        ASSERT_TRUE(
            P().portWrite(port_, bytes.data(), static_cast<uint32_t>(bytes.size()), &written));
        ASSERT_EQ(written, bytes.size());
    }
    std::pair<uint32_t, uint32_t> Status() {
        uint32_t errors = 0, queued = 0;
        EXPECT_TRUE(P().portClearError(port_, &errors, &queued));
        return {errors, queued};
    }

    Mirror *mirror_ = nullptr;
    PortHandle port_ = kInvalidPort;
};

// ---- adapter echo and byte timing -------------------------------------------------------------

TEST_F(BenchLineTest, EveryByteWrittenIsEchoedAfterItsTenBitTimes) {
    Install(10400, 10400);
    const int64_t t0 = BenchNow();
    Write({0x12, 0x34});
    EXPECT_EQ(Status().second, 0u); // nothing is back before the first stop bit ends
    Timeouts(100);
    // Echo of 0x12, then the ECU's 0x13 (2 ms after it heard 0x12), and the echo of 0x34 in
    // between: the line carries them in time order.
    EXPECT_EQ(Read(4), (std::vector<uint8_t>{0x12, 0x34, 0x13, 0x35}));
    const int64_t byte = ByteTicksAt(10400);
    EXPECT_EQ(byte, 9615);
    const auto echoes = BenchTraceOf(TraceKind::Echo);
    ASSERT_EQ(echoes.size(), 2u);
    EXPECT_EQ(echoes[0].at - t0, byte);
    EXPECT_EQ(echoes[1].at - t0, 2 * byte);
    const auto ecuBytes = BenchTraceOf(TraceKind::EcuByte);
    ASSERT_EQ(ecuBytes.size(), 2u);
    EXPECT_EQ(ecuBytes[0].at - t0, byte + 2 * kMs);
    // The ECU heard 0x34 at 2 byte times and answers 2 ms later, when its UART is free again.
    EXPECT_EQ(ecuBytes[1].at - t0, 2 * byte + 2 * kMs);
    EXPECT_EQ(mirror_->heard, (std::vector<uint8_t>{0x12, 0x34}));
    // The read ended when its fourth byte arrived.
    EXPECT_EQ(BenchNow(), BenchTraceOf(TraceKind::TesterHears).back().at);
}

TEST_F(BenchLineTest, TransmitPurgeDropsBytesNotYetStarted) {
    Install(10400, 10400);
    Write({0x01, 0x02, 0x03});
    ASSERT_TRUE(P().portPurge(port_, kPurgeTxClear));
    BenchRunUntil(BenchNow() + 20 * kMs);
    // Only the byte the UART had begun went out.
    EXPECT_EQ(BenchTraceBytes(TraceKind::TesterByte), (std::vector<uint8_t>{0x01}));
    EXPECT_EQ(mirror_->heard, (std::vector<uint8_t>{0x01}));
}

TEST_F(BenchLineTest, ReceivePurgeClearsOnlyWhatHasArrived) {
    Install(10400, 10400);
    Write({0x20});
    BenchRunUntil(BenchNow() + ByteTicksAt(10400)); // the echo is in, the ECU's 0x21 is not
    ASSERT_TRUE(P().portPurge(port_, kPurgeRxClear));
    EXPECT_EQ(Status().second, 0u);
    Timeouts(10);
    EXPECT_EQ(Read(2), (std::vector<uint8_t>{0x21}));
}

// ---- baud rates -------------------------------------------------------------------------------

TEST_F(BenchLineTest, DifferentBaudRatesGarbleBytesBothWays) {
    Install(10400, 9600);
    Timeouts(50);
    Write({0x55});
    const std::vector<uint8_t> got = Read(2);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], 0x55); // the adapter echoes at the tester's own rate
    ASSERT_EQ(mirror_->heard.size(), 1u);
    EXPECT_NE(mirror_->heard[0], 0x55); // the ECU's UART samples at 10400
    EXPECT_NE(got[1], static_cast<uint8_t>(mirror_->heard[0] + 1));
}

TEST_F(BenchLineTest, BaudRatesWithinTwoPercentReadRight) {
    Install(10400, 10500);
    Timeouts(50);
    Write({0xA5});
    EXPECT_EQ(Read(2), (std::vector<uint8_t>{0xA5, 0xA6}));
}

// ---- break ------------------------------------------------------------------------------------

TEST_F(BenchLineTest, EachFallingEdgeOfTheBreakGivesOneZeroWithFramingAndBreak) {
    Install(10400, 10400);
    const int64_t t0 = BenchNow();
    ASSERT_TRUE(P().portEscape(port_, Escape::SetBreak));
    ASSERT_TRUE(P().portEscape(port_, Escape::SetRts));
    EXPECT_EQ(Status(), (std::pair<uint32_t, uint32_t>{0u, 0u}));
    P().sleep(180);
    EXPECT_EQ(Status(), (std::pair<uint32_t, uint32_t>{kCeFrame | kCeBreak, 1u}));
    EXPECT_EQ(Status(), (std::pair<uint32_t, uint32_t>{0u, 1u})); // the flags were cleared
    P().sleep(20);
    ASSERT_TRUE(P().portEscape(port_, Escape::ClrBreak));
    ASSERT_TRUE(P().portEscape(port_, Escape::ClrRts));
    P().sleep(200);
    ASSERT_TRUE(P().portEscape(port_, Escape::SetBreak));
    ASSERT_TRUE(P().portEscape(port_, Escape::SetBreak)); // no new edge: the line is low
    P().sleep(200);
    ASSERT_TRUE(P().portEscape(port_, Escape::ClrBreak));
    Immediate();
    EXPECT_EQ(Read(4), (std::vector<uint8_t>{0x00, 0x00}));
    const auto breaks = BenchTraceOf(TraceKind::BreakByte);
    ASSERT_EQ(breaks.size(), 2u);
    EXPECT_EQ(breaks[0].at - t0, ByteTicksAt(10400));
    EXPECT_EQ(breaks[0].extra, kCeFrame | kCeBreak);
    EXPECT_EQ(breaks[1].at - t0, 400 * kMs + ByteTicksAt(10400));
    // The ECU saw the four edges at their times.
    EXPECT_EQ(
        mirror_->levels,
        (std::vector<std::pair<int64_t, bool>>{
            {t0, false}, {t0 + 200 * kMs, true}, {t0 + 400 * kMs, false}, {t0 + 600 * kMs, true}}));
}

// Part 2.2 edge case: address 0x01 reports echo 2 through the line primitive on the bench.
TEST(BenchSerialTest, SendAddressCountsTheEchoOfAKklCable) {
    BenchInstall("kw1281-engine");
    ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
    ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 256, 256), 0u);
    const int64_t t0 = BenchNow();
    int32_t echo = 0;
    EXPECT_EQ(LineSendAddress(200, 0x01, &echo), 0u);
    EXPECT_EQ(echo, 2);
    EXPECT_EQ(BenchNow() - t0, 1900 * kMs);
    EXPECT_EQ(BenchTraceOf(TraceKind::BreakByte).size(), 2u);
    EXPECT_EQ(static_cast<Kw1281Ecu *>(BenchEcu())->LastAddress(), 0x01);
    dv::PortClose();
    DvDestruct();
    BenchUninstall();
}

// ---- reads under the Win32 rules --------------------------------------------------------------

TEST_F(BenchLineTest, ReadOnASilentLineWaitsTheTotalTimeout) {
    Install(10400, 10400);
    const int64_t t0 = BenchNow();
    Timeouts(101, 60);
    EXPECT_TRUE(Read(2).empty());
    EXPECT_EQ(BenchNow() - t0, (101 + 2 * 60) * kMs);
}

TEST_F(BenchLineTest, ImmediateReadReturnsWhatIsQueuedWithoutWaiting) {
    Install(10400, 10400);
    Immediate();
    Write({0x40});
    const int64_t t0 = BenchNow();
    EXPECT_TRUE(Read(1).empty());
    EXPECT_EQ(BenchNow(), t0);
}

TEST_F(BenchLineTest, IntervalTimeoutEndsAReadBetweenBytes) {
    Install(10400, 10400);
    Timeouts(0, 0, 5); // interval only: no total limit
    Write({0x10});
    const int64_t t0 = BenchNow();
    // The echo at 1 byte time, the ECU's 0x11 2 ms + 1 byte time later (within 5 ms), then
    // nothing: the read ends 5 ms after the last byte.
    EXPECT_EQ(Read(3), (std::vector<uint8_t>{0x10, 0x11}));
    const int64_t lastByte = BenchTraceOf(TraceKind::TesterHears).back().at;
    EXPECT_EQ(BenchNow(), lastByte + 5 * kMs);
    EXPECT_GT(BenchNow(), t0);
}

// ---- faults -----------------------------------------------------------------------------------

TEST_F(BenchLineTest, DroppedEcuByteNeverReachesTheTester) {
    Install(10400, 10400);
    BenchFault().DropEcuByte(2);
    Timeouts(50);
    Write({0x01, 0x02, 0x03});
    EXPECT_EQ(Read(6), (std::vector<uint8_t>{0x01, 0x02, 0x03, 0x02, 0x04}));
    const auto sent = BenchTraceOf(TraceKind::EcuByte);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[1].value, 0x03u);
    EXPECT_EQ(sent[1].extra, kByteDropped);
}

TEST_F(BenchLineTest, CorruptedEcuByteArrivesXored) {
    Install(10400, 10400);
    BenchFault().CorruptEcuByte(1, 0x0F);
    Timeouts(50);
    Write({0x30});
    EXPECT_EQ(Read(2), (std::vector<uint8_t>{0x30, 0x3E}));
    EXPECT_EQ(BenchTraceOf(TraceKind::EcuByte)[0].extra, kByteCorrupted);
}

TEST_F(BenchLineTest, DroppedAndCorruptedTesterBytesStillEchoButTheEcuHearsOtherwise) {
    Install(10400, 10400);
    BenchFault().DropTesterByte(1);
    BenchFault().CorruptTesterByte(2, 0x80);
    Timeouts(50);
    Write({0x05, 0x06});
    EXPECT_EQ(Read(4), (std::vector<uint8_t>{0x05, 0x06, 0x87}));
    EXPECT_EQ(mirror_->heard, (std::vector<uint8_t>{0x86}));
}

TEST_F(BenchLineTest, EcuLatencyDelaysEveryEcuByte) {
    Install(10400, 10400);
    BenchFault().ecuLatencyMs = 30;
    const int64_t t0 = BenchNow();
    Timeouts(100);
    Write({0x70});
    EXPECT_EQ(Read(2), (std::vector<uint8_t>{0x70, 0x71}));
    EXPECT_EQ(BenchTraceOf(TraceKind::EcuByte)[0].at - t0, ByteTicksAt(10400) + 32 * kMs);
}

TEST_F(BenchLineTest, NthCallOfAKindFailsWithTheChosenError) {
    Install(10400, 10400);
    BenchFault().Fail(FakeCall::Read, 2, 0x1F);
    BenchFault().Fail(FakeCall::Escape, 1, 0x16);
    uint8_t byte = 0;
    uint32_t got = 0;
    EXPECT_TRUE(P().portRead(port_, &byte, 1, &got));
    EXPECT_FALSE(P().portRead(port_, &byte, 1, &got));
    EXPECT_EQ(P().lastError(), 0x1Fu);
    EXPECT_TRUE(P().portRead(port_, &byte, 1, &got));
    EXPECT_FALSE(P().portEscape(port_, Escape::SetBreak));
    EXPECT_EQ(P().lastError(), 0x16u);
    EXPECT_TRUE(mirror_->levels.empty()); // the failed break never reached the line
    EXPECT_EQ(BenchCallCount(FakeCall::Read), 3);
    const auto failures = BenchTraceOf(TraceKind::CallFails);
    ASSERT_EQ(failures.size(), 2u);
    EXPECT_EQ(failures[0].value, static_cast<uint32_t>(FakeCall::Read));
}

TEST_F(BenchLineTest, OpenFailsWhenAskedAndTheSecondOpenIsRefused) {
    Install(10400, 10400);
    EXPECT_EQ(P().portOpen(u"COM1"), kInvalidPort); // exclusive
    EXPECT_EQ(P().lastError(), 5u);
    ASSERT_TRUE(P().portClose(port_));
    EXPECT_FALSE(P().portClose(port_));
    EXPECT_EQ(P().lastError(), 6u);
    BenchFault().Fail(FakeCall::Open, 3, 0x79);
    EXPECT_EQ(P().portOpen(u"COM1"), kInvalidPort);
    EXPECT_EQ(P().lastError(), 0x79u);
}

// ---- clock and trace --------------------------------------------------------------------------

TEST_F(BenchLineTest, SleepAndSpinAdvanceTheVirtualClockAndAreTraced) {
    Install(10400, 10400);
    const int64_t t0 = BenchNow();
    P().sleep(7);
    P().spinUntil(P().counterNow() + 25 * kMs);
    P().spinUntil(0); // the past: no wait
    EXPECT_EQ(BenchNow() - t0, 32 * kMs);
    EXPECT_EQ(P().counterNow(), BenchNow());
    EXPECT_EQ(P().tickCount(), static_cast<uint32_t>(BenchNow() / kMs));
    const auto sleeps = BenchTraceOf(TraceKind::Sleep);
    ASSERT_EQ(sleeps.size(), 1u);
    EXPECT_EQ(sleeps[0].value, 7u);
    const auto spins = BenchTraceOf(TraceKind::Spin);
    ASSERT_EQ(spins.size(), 2u);
    EXPECT_EQ(spins[0].value, static_cast<uint32_t>(25 * kMs));
    EXPECT_EQ(spins[1].value, 0u);
}

TEST_F(BenchLineTest, TraceIsInTimeOrderAndPrintable) {
    Install(10400, 10400);
    Timeouts(20);
    Write({0xAB});
    Read(2);
    const auto &trace = BenchTrace();
    for (size_t i = 1; i < trace.size(); ++i) {
        EXPECT_LE(trace[i - 1].at, trace[i].at) << i;
    }
    const std::string text = BenchTraceText();
    EXPECT_NE(text.find("tester byte  AB"), std::string::npos) << text;
    EXPECT_NE(text.find("echo         AB"), std::string::npos) << text;
    EXPECT_NE(text.find("ECU byte     AC"), std::string::npos) << text;
    EXPECT_NE(text.find("tester hears AC"), std::string::npos) << text;
    EXPECT_NE(text.find("     1000.0000 ms  open"), std::string::npos) << text;
}

// ---- real clock -------------------------------------------------------------------------------

TEST_F(BenchLineTest, RealClockTakesRealTime) {
    Install(10400, 10400, BenchClock::Real);
    const auto start = std::chrono::steady_clock::now();
    Timeouts(150);
    Write({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08});
    // 8 echoes and 8 answers, then a silent read of 150 ms.
    EXPECT_EQ(Read(16).size(), 16u);
    EXPECT_TRUE(Read(1).empty());
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(150));
    EXPECT_LT(elapsed, std::chrono::milliseconds(900));
    EXPECT_EQ(mirror_->heard.size(), 8u);
}

// ---- "vecu:" ports through the native platform ------------------------------------------------

TEST(BenchVecuTest, VecuNameOpensAnEmulatedEcuOnTheRealClock) {
    BenchUninstall(); // the routed native platform
    const Platform &p = PlatformGet();
    EXPECT_EQ(p.portOpen(u"vecu:no-such-ecu"), kInvalidPort);
    EXPECT_EQ(p.lastError(), 2u);
    const PortHandle port = p.portOpen(u"vecu:kw1281-engine");
    ASSERT_NE(port, kInvalidPort);
    EXPECT_TRUE(VecuOwns(port));
    CommState state{};
    ASSERT_TRUE(p.portGetState(port, &state));
    state.baudRate = 10400;
    ASSERT_TRUE(p.portSetState(port, &state));
    CommTimeouts t{0, 0, 40, 0, 0};
    ASSERT_TRUE(p.portSetTimeouts(port, &t));
    const uint8_t byte = 0x42;
    uint32_t written = 0;
    ASSERT_TRUE(p.portWrite(port, &byte, 1, &written));
    uint8_t buffer[2] = {};
    uint32_t got = 0;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(p.portRead(port, buffer, 2, &got));
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(got, 1u); // the echo; the engine ECU does not answer a stray byte
    EXPECT_EQ(buffer[0], 0x42);
    EXPECT_GE(elapsed, std::chrono::milliseconds(30));
    EXPECT_LT(elapsed, std::chrono::milliseconds(600));
    ASSERT_TRUE(p.portClose(port));
    EXPECT_FALSE(VecuOwns(nullptr));
    // A name without the prefix goes to the native backend.
    EXPECT_EQ(p.portOpen(u"/dev/dravelin-no-such-port"), kInvalidPort);
    EXPECT_NE(p.lastError(), 0u);
    BenchUninstall();
}

// ---- profiles ---------------------------------------------------------------------------------

TEST(BenchProfileTest, TableMakesEveryProfileAndRefusesUnknownNames) {
    ASSERT_GE(EcuProfiles().size(), 2u);
    for (const EcuProfileEntry &entry : EcuProfiles()) {
        EXPECT_NE(MakeEcu(entry.name), nullptr) << entry.name;
        EXPECT_FALSE(entry.summary.empty());
    }
    EXPECT_EQ(MakeEcu("kw1281-engine")->Baud(), 10400u);
    EXPECT_EQ(MakeEcu("kw1281-cluster")->Baud(), 9600u);
    EXPECT_EQ(MakeEcu("nothing"), nullptr);
    EXPECT_FALSE(BenchInstall("nothing"));
    EXPECT_EQ(BenchEcu(), nullptr);
}

} // namespace
} // namespace dv::bench
