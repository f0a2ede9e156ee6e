// The posix backend's serial port on real pseudo-terminals: the slave is the port, the test
// plays the line on the master side. Real waits are tens of milliseconds with wide margins.
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "frame/frame.h"
#include "platform/posix/backend.h"
#include "platform/posix/termios2.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace dv {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const std::string &call : dvtest::LogCalls()) {
        lines.push_back(call.rfind("\r\n", 0) == 0 ? call.substr(2) : call);
    }
    return lines;
}

std::u16string Utf16(const std::string &ascii) {
    return std::u16string(ascii.begin(), ascii.end());
}

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class PosixPortTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformInstall(nullptr);
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
        ASSERT_GE(master_, 0);
        ASSERT_EQ(grantpt(master_), 0);
        ASSERT_EQ(unlockpt(master_), 0);
        slave_ = ptsname(master_);
        name_ = Utf16(slave_);
    }
    void TearDown() override {
        if (PortIsOpen()) {
            PortClose();
        }
        DvDestruct();
        close(master_);
    }

    void Open(uint32_t baud = 10400) {
        ASSERT_EQ(PortOpen(name_.c_str(), baud, 1024, 1024), 0u);
        dvtest::LogCaptureReset();
    }
    void MasterWrite(std::vector<uint8_t> bytes) {
        ASSERT_EQ(write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // The bytes the port wrote, as the master sees them within `ms`.
    std::vector<uint8_t> MasterRead(size_t count, int ms = 200) {
        std::vector<uint8_t> bytes;
        const auto start = Clock::now();
        while (bytes.size() < count && MsSince(start) < ms) {
            pollfd p{master_, POLLIN, 0};
            if (poll(&p, 1, 10) > 0) {
                uint8_t buffer[256];
                const ssize_t n = read(master_, buffer, sizeof buffer);
                if (n > 0) {
                    bytes.insert(bytes.end(), buffer, buffer + n);
                }
            }
        }
        return bytes;
    }
    uint32_t Queued() {
        uint32_t errors = 0;
        uint32_t queued = 0;
        EXPECT_TRUE(NativePlatform().portClearError(PortCurrentHandle(), &errors, &queued));
        return queued;
    }
    // Waits until the port's receive queue holds `count` bytes.
    void AwaitQueued(uint32_t count) {
        const auto start = Clock::now();
        while (Queued() < count && MsSince(start) < 1000) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_EQ(Queued(), count);
    }
    uint32_t Read(uint32_t count, uint8_t *buffer) {
        uint32_t got = 0;
        EXPECT_TRUE(NativePlatform().portRead(PortCurrentHandle(), buffer, count, &got));
        return got;
    }

    int master_ = -1;
    std::string slave_;
    std::u16string name_;
};

TEST(PosixPortName, DevicePaths) {
    EXPECT_EQ(posix::PortDevicePath(u"/dev/pts/4"), "/dev/pts/4");
    EXPECT_EQ(posix::PortDevicePath(u"COM1"), "/dev/ttyS0");
    EXPECT_EQ(posix::PortDevicePath(u"COM12"), "/dev/ttyS11");
    EXPECT_EQ(posix::PortDevicePath(u"ttyUSB0"), "/dev/ttyUSB0");
    EXPECT_EQ(posix::PortDevicePath(u"COM0"), "/dev/COM0");
    EXPECT_EQ(posix::PortDevicePath(u"COMX"), "/dev/COMX");
    EXPECT_EQ(posix::PortDevicePath(u"COM"), "/dev/COM");
    EXPECT_EQ(posix::PortDevicePath(u"COM99999999999999"), "/dev/COM99999999999999");
}

TEST(PosixPortName, Utf16BecomesUtf8) {
    EXPECT_EQ(posix::PortDevicePath(u"tty\u00E9"), "/dev/tty\xC3\xA9");
    EXPECT_EQ(posix::PortDevicePath(u"/x\u20AC"), "/x\xE2\x82\xAC");
    EXPECT_EQ(posix::PortDevicePath(u"/\U0001F600"), "/\xF0\x9F\x98\x80");
    const char16_t lone[] = {u'/', 0xD800, u'a', 0};
    EXPECT_EQ(posix::PortDevicePath(lone), "/\xEF\xBF\xBD"
                                           "a");
}

TEST_F(PosixPortTest, MissingPortGivesFiveWithNameAndErrno) {
    dvtest::ConstructLibrary(1);
    EXPECT_EQ(PortOpen(u"/dev/dv-no-such-port", 10400, 1024, 1024), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{"Could not open communication port "
                                                "'/dev/dv-no-such-port' (0x00000002)\r\n"});
    EXPECT_EQ(PortCurrentHandle(), kInvalidPort);
}

TEST_F(PosixPortTest, NonTtyIsRefused) {
    dvtest::ConstructLibrary(1);
    EXPECT_EQ(PortOpen(u"/dev/null", 10400, 1024, 1024), 5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{
                           "Could not open communication port '/dev/null' (0x00000019)\r\n"});
}

TEST_F(PosixPortTest, OpenConfiguresRawAt10400Exclusively) {
    Open();
    // A second descriptor (allowed for root only, despite TIOCEXCL) to look at the device.
    const int fd = open(slave_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        EXPECT_EQ(errno, EBUSY); // the exclusive open refused it
        return;
    }
    posix::TermiosCopy copy{};
    ASSERT_TRUE(posix::TermiosGet(fd, &copy));
    const posix::LineSettings line = posix::TermiosDescribe(copy);
    EXPECT_EQ(line.baud, 10400u);
    EXPECT_EQ(line.byteSize, 8);
    EXPECT_EQ(line.parity, 0);
    EXPECT_EQ(line.stopBits, 0);
    EXPECT_FALSE(line.ctsFlow);
    EXPECT_FALSE(line.xonOut);
    termios t{};
    ASSERT_EQ(tcgetattr(fd, &t), 0);
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u);
    EXPECT_EQ(t.c_oflag & OPOST, 0u);
    EXPECT_EQ(t.c_iflag & (ICRNL | IXON | ISTRIP), 0u);
    // Breaks and framing errors arrive as 0x00 bytes (the adapter's break echo).
    EXPECT_EQ(t.c_iflag & (IGNBRK | BRKINT | IGNPAR | PARMRK), 0u);
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(t.c_cflag & PARENB, 0u);
    int exclusive = 0;
    ASSERT_EQ(ioctl(fd, TIOCGEXCL, &exclusive), 0);
    EXPECT_EQ(exclusive, 1);
    close(fd);

    CommState state{};
    ASSERT_TRUE(NativePlatform().portGetState(PortCurrentHandle(), &state));
    EXPECT_EQ(state.baudRate, 10400u);
    EXPECT_EQ(state.byteSize, 8);
    EXPECT_EQ(state.flags & dcb::kDefinedMask,
              dcb::kBinary | dcb::kTxContinueOnXoff | (1u << dcb::kDtrControlShift));
}

TEST_F(PosixPortTest, CloseRestoresTheOriginalTermiosExactly) {
    const int fd = open(slave_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    termios before{};
    ASSERT_EQ(tcgetattr(fd, &before), 0);
    posix::TermiosCopy originalCopy{};
    ASSERT_TRUE(posix::TermiosGet(fd, &originalCopy));
    close(fd);

    Open(10400);
    PortClose();

    const int again = open(slave_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(again, 0);
    termios after{};
    ASSERT_EQ(tcgetattr(again, &after), 0);
    posix::TermiosCopy restoredCopy{};
    ASSERT_TRUE(posix::TermiosGet(again, &restoredCopy));
    close(again);
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_oflag, before.c_oflag);
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag);
    EXPECT_EQ(0, memcmp(after.c_cc, before.c_cc, sizeof before.c_cc));
    EXPECT_EQ(posix::TermiosDescribe(restoredCopy).baud, posix::TermiosDescribe(originalCopy).baud);
}

TEST_F(PosixPortTest, BytesPassUnchangedBothWays) {
    Open();
    ASSERT_EQ(PortSetTimeouts(500, 0, kNoLimit), 0u);
    std::vector<uint8_t> all(256);
    for (int i = 0; i < 256; ++i) {
        all[i] = static_cast<uint8_t>(i);
    }
    MasterWrite(all);
    std::vector<uint8_t> got(256);
    uint32_t count = 0;
    ASSERT_EQ(LineRead(3, 256, got.data(), &count), 0u);
    EXPECT_EQ(count, 256u);
    EXPECT_EQ(got, all);
    // Nothing came back to the master: no echo.
    EXPECT_TRUE(MasterRead(1, 30).empty());

    const uint8_t out[] = {0x0A, 0x0D, 0x03, 0x11, 0x7F, 0xFF, 0x00};
    ASSERT_EQ(LineWrite(3, sizeof out, out), 0u);
    EXPECT_EQ(MasterRead(sizeof out), std::vector<uint8_t>(out, out + sizeof out));
}

TEST_F(PosixPortTest, ByteDelaySpacesTheWrittenBytes) {
    Open();
    PortSetByteDelay(10);
    const uint8_t out[] = {1, 2, 3};
    const auto start = Clock::now();
    ASSERT_EQ(LineWrite(3, 3, out), 0u);
    EXPECT_GE(MsSince(start), 30.0);
    EXPECT_EQ(MasterRead(3), std::vector<uint8_t>(out, out + 3));
}

TEST_F(PosixPortTest, ImmediateReadReturnsWhatIsQueued) {
    Open();
    ASSERT_EQ(PortSetTimeouts(0, 0, 0), 0u);
    uint8_t buffer[8] = {};
    auto start = Clock::now();
    EXPECT_EQ(Read(5, buffer), 0u);
    EXPECT_LT(MsSince(start), 20.0);
    MasterWrite({7, 8, 9});
    AwaitQueued(3);
    start = Clock::now();
    EXPECT_EQ(Read(5, buffer), 3u);
    EXPECT_LT(MsSince(start), 20.0);
    EXPECT_EQ(buffer[2], 9);
}

TEST_F(PosixPortTest, TotalLimitEndsARead) {
    Open();
    ASSERT_EQ(PortSetTimeouts(30, 0, kNoLimit), 0u); // 31 ms
    uint8_t buffer[1] = {};
    const auto start = Clock::now();
    EXPECT_EQ(Read(1, buffer), 0u);
    const double ms = MsSince(start);
    EXPECT_GE(ms, 30.0);
    EXPECT_LT(ms, 130.0);
}

TEST_F(PosixPortTest, PerByteLimitGrowsWithTheCount) {
    Open();
    ASSERT_EQ(PortSetTimeouts(0, 10, kNoLimit), 0u); // 1 + 10 * 3 ms
    uint8_t buffer[3] = {};
    const auto start = Clock::now();
    EXPECT_EQ(Read(3, buffer), 0u);
    const double ms = MsSince(start);
    EXPECT_GE(ms, 30.0);
    EXPECT_LT(ms, 130.0);
}

TEST_F(PosixPortTest, ReadEndsWhenTheCountHasCome) {
    Open();
    ASSERT_EQ(PortSetTimeouts(1000, 0, kNoLimit), 0u);
    std::thread line([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        MasterWrite({0x55, 0xAA});
    });
    uint8_t buffer[2] = {};
    const auto start = Clock::now();
    EXPECT_EQ(Read(2, buffer), 2u);
    line.join();
    const double ms = MsSince(start);
    EXPECT_GE(ms, 15.0);
    EXPECT_LT(ms, 500.0);
    EXPECT_EQ(buffer[1], 0xAA);
}

TEST_F(PosixPortTest, IntervalLimitEndsAReadAfterTheLastByte) {
    Open();
    ASSERT_EQ(PortSetTimeouts(kNoLimit, kNoLimit, 20), 0u); // interval 21, no total
    MasterWrite({1, 2});
    AwaitQueued(2);
    uint8_t buffer[10] = {};
    const auto start = Clock::now();
    EXPECT_EQ(Read(10, buffer), 2u);
    const double ms = MsSince(start);
    EXPECT_GE(ms, 20.0);
    EXPECT_LT(ms, 120.0);
}

TEST_F(PosixPortTest, IntervalLimitStartsWithTheFirstByte) {
    Open();
    ASSERT_EQ(PortSetTimeouts(kNoLimit, kNoLimit, 10), 0u); // interval 11, no total
    std::thread line([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        MasterWrite({3});
    });
    uint8_t buffer[2] = {};
    const auto start = Clock::now();
    EXPECT_EQ(Read(2, buffer), 1u);
    line.join();
    EXPECT_GE(MsSince(start), 35.0);
    EXPECT_EQ(buffer[0], 3);
}

TEST_F(PosixPortTest, NoLimitWaitsForEveryByte) {
    Open();
    const CommTimeouts none{};
    ASSERT_TRUE(NativePlatform().portSetTimeouts(PortCurrentHandle(), &none));
    std::thread line([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        MasterWrite({4});
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        MasterWrite({5});
    });
    uint8_t buffer[2] = {};
    const auto start = Clock::now();
    EXPECT_EQ(Read(2, buffer), 2u);
    line.join();
    EXPECT_GE(MsSince(start), 35.0);
    EXPECT_EQ(buffer[1], 5);
}

TEST_F(PosixPortTest, WaitForInputSeesTheQueue) {
    Open();
    ASSERT_EQ(PortSetTimeouts(30, 0, kNoLimit), 0u);
    uint32_t queued = 9;
    auto start = Clock::now();
    EXPECT_EQ(LineWaitForInput(1, &queued), 0u);
    EXPECT_EQ(queued, 0u);
    EXPECT_GE(MsSince(start), 30.0);
    MasterWrite({1, 2});
    AwaitQueued(2);
    start = Clock::now();
    EXPECT_EQ(LineWaitForInput(2, &queued), 0u);
    EXPECT_EQ(queued, 2u);
    EXPECT_LT(MsSince(start), 20.0);
}

TEST_F(PosixPortTest, ReceiveQueueCountAndNoLineErrors) {
    Open();
    MasterWrite({1, 2, 3});
    AwaitQueued(3);
    uint32_t errors = 0xFF;
    uint32_t queued = 0;
    ASSERT_TRUE(NativePlatform().portClearError(PortCurrentHandle(), &errors, &queued));
    EXPECT_EQ(queued, 3u);
    EXPECT_EQ(errors, 0u); // a pseudo-terminal keeps no error counters
}

TEST_F(PosixPortTest, PurgeClearsTheReceiveQueue) {
    Open();
    MasterWrite({1, 2, 3, 4});
    AwaitQueued(4);
    EXPECT_EQ(PortPurge(kPurgeInput), 0u);
    EXPECT_EQ(Queued(), 0u);
    EXPECT_EQ(PortPurge(0), 0u);
    EXPECT_EQ(PortPurge(kPurgeInput | kPurgeOutput), 0u);
}

TEST_F(PosixPortTest, LinesWithoutModemControlAreNotFailures) {
    Open();
    const Platform &p = NativePlatform();
    for (Escape e : {Escape::SetBreak, Escape::SetRts, Escape::ClrBreak, Escape::ClrRts,
                     Escape::SetDtr, Escape::ClrDtr}) {
        EXPECT_TRUE(p.portEscape(PortCurrentHandle(), e)) << static_cast<int>(e);
    }
    int32_t echo = 0;
    EXPECT_EQ(LineSendWakeUp(25, &echo), 0u);
}

TEST_F(PosixPortTest, CallsOnAClosedHandleFail) {
    const Platform &p = NativePlatform();
    uint8_t buffer[1] = {};
    uint32_t got = 0;
    EXPECT_FALSE(p.portRead(kInvalidPort, buffer, 1, &got));
    EXPECT_EQ(p.lastError(), static_cast<uint32_t>(EBADF));
    EXPECT_FALSE(p.portPurge(kInvalidPort, kPurgeRxClear));
    EXPECT_FALSE(p.portEscape(kInvalidPort, Escape::SetBreak));
}

TEST_F(PosixPortTest, ReadFailsWhenTheLineHangsUp) {
    Open();
    ASSERT_EQ(PortSetTimeouts(50, 0, kNoLimit), 0u);
    close(master_);
    master_ = -1;
    uint8_t buffer[1] = {};
    uint32_t got = 0;
    EXPECT_FALSE(NativePlatform().portRead(PortCurrentHandle(), buffer, 1, &got));
    EXPECT_EQ(NativePlatform().lastError(), static_cast<uint32_t>(EIO));
}

// ---- DvSpy on a pseudo-terminal -------------------------------------------------------------

TEST_F(PosixPortTest, SpyCapturesBytesFromTheLine) {
    dvtest::ConstructLibrary(3);
    std::thread line([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(70)); // the port is open by then
        MasterWrite({0x55, 0x01, 0x8A});
    });
    uint32_t count = 0;
    uint8_t buffer[8] = {};
    const uint32_t result =
        DvSpy(reinterpret_cast<const DvChar *>(name_.c_str()), 10400, 8, 100, &count, buffer);
    line.join();
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(buffer[0], 0x55);
    EXPECT_EQ(buffer[1], 0x01);
    EXPECT_EQ(buffer[2], 0x8A);
    EXPECT_FALSE(PortIsOpen());
    const std::vector<std::string> lines = Lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines.front(),
              "\r\nOpening communication port '" + slave_ + "' port at 10400 baud rate\r\n");
    EXPECT_EQ(lines.back(), "\r\nClosing communication port\r\n");
    EXPECT_EQ(lines[lines.size() - 2].rfind(" - Ok [0] '' @ ", 0), 0u);
}

TEST_F(PosixPortTest, SpyMaxCountZero) {
    uint32_t count = 5;
    uint8_t buffer[1] = {};
    const auto start = Clock::now();
    EXPECT_EQ(DvSpy(reinterpret_cast<const DvChar *>(name_.c_str()), 9600, 0, 100, &count, buffer),
              0u);
    EXPECT_EQ(count, 0u);
    EXPECT_LT(MsSince(start), 150.0); // 50 ms of opening, no read
    EXPECT_FALSE(PortIsOpen());
}

TEST_F(PosixPortTest, SpySilentLine) {
    uint32_t count = 5;
    uint8_t buffer[4] = {};
    const auto start = Clock::now();
    EXPECT_EQ(DvSpy(reinterpret_cast<const DvChar *>(name_.c_str()), 10400, 4, 20, &count, buffer),
              0u);
    EXPECT_EQ(count, 0u);
    const double ms = MsSince(start);
    EXPECT_GE(ms, 50.0 + 20.0);
    EXPECT_LT(ms, 300.0);
}

TEST_F(PosixPortTest, SpyMissingPort) {
    dvtest::ConstructLibrary(1);
    uint32_t count = 0;
    uint8_t buffer[1] = {};
    EXPECT_EQ(DvSpy(reinterpret_cast<const DvChar *>(u"/dev/dv-no-such-port"), 10400, 1, 20, &count,
                    buffer),
              5u);
    EXPECT_EQ(Lines(), std::vector<std::string>{"Could not open communication port "
                                                "'/dev/dv-no-such-port' (0x00000002)\r\n"});
}

} // namespace
} // namespace dv
