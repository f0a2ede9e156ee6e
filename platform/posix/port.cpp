// The serial port of the posix backend in the Win32 model of the seam: a tty opened
// exclusively, its configuration mapped to and from CommState, COMMTIMEOUTS emulated with
// ppoll, the break and modem lines driven by ioctl, line errors from TIOCGICOUNT deltas.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/posix/backend.h"
#include "platform/posix/termios2.h"

namespace dv::posix {
namespace {

constexpr int64_t kNsPerMs = 1'000'000;
constexpr uint32_t kMaxDword = 0xFFFFFFFF;

struct Port {
    int fd = -1;
    TermiosCopy original{};    // the device's termios as found at open, restored exactly
    CommState originalState{}; // the same as a CommState, to recognise it when it comes back
    CommState state{};         // the state in force, as GetCommState reports it
    CommTimeouts timeouts{};
    bool hasCounts = false; // the device keeps line error counters (TIOCGICOUNT)
    serial_icounter_struct counts{};
};

Port *PortOf(PortHandle handle) {
    if (handle == nullptr || handle == kInvalidPort) {
        errno = EBADF;
        return nullptr;
    }
    return static_cast<Port *>(handle);
}

// "/..." as it is, "COMn" (n >= 1) as /dev/ttyS(n-1), anything else relative to /dev/.
std::string DevicePath(const std::string &name) {
    if (!name.empty() && name[0] == '/') {
        return name;
    }
    if (name.size() > 3 && name.compare(0, 3, "COM") == 0 &&
        name.find_first_not_of("0123456789", 3) == std::string::npos && name.size() <= 12) {
        const unsigned long n = std::stoul(name.substr(3));
        if (n >= 1) {
            return "/dev/ttyS" + std::to_string(n - 1);
        }
    }
    return "/dev/" + name;
}

// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string Utf8(const char16_t *text) {
    std::string out;
    for (const char16_t *p = text; *p != 0; ++p) {
        uint32_t c = *p;
        if (c >= 0xD800 && c <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (p[1] - 0xDC00);
            ++p;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// Modem-line ioctls on a device without modem lines (a pseudo-terminal) fail with ENOTTY or
// EINVAL; such a device has no line to drive, so that is not a failure of the call.
bool NoSuchLine(int error) {
    return error == ENOTTY || error == EINVAL;
}

bool SetModemLine(int fd, int line, bool on) {
    if (ioctl(fd, on ? TIOCMBIS : TIOCMBIC, &line) == 0 || NoSuchLine(errno)) {
        return true;
    }
    return FailErrno();
}

// The modem-line half of the DCB: DTR enabled or handshake raises DTR; RTS enabled or
// handshake raises RTS (with handshake the driver takes it over through CRTSCTS).
bool ApplyModemLines(int fd, uint32_t flags) {
    const uint32_t dtr = (flags & dcb::kDtrControlMask) >> dcb::kDtrControlShift;
    const uint32_t rts = (flags & dcb::kRtsControlMask) >> dcb::kRtsControlShift;
    return SetModemLine(fd, TIOCM_DTR, dtr == 1 || dtr == 2) &&
           SetModemLine(fd, TIOCM_RTS, rts == 1 || rts == 2);
}

CommState StateOf(const LineSettings &s, int modemLines) {
    CommState state;
    state.baudRate = s.baud;
    state.byteSize = s.byteSize;
    state.parity = s.parity;
    state.stopBits = s.stopBits;
    state.flags = dcb::kBinary;
    if (s.parityCheck) {
        state.flags |= dcb::kParity;
    }
    if (s.ctsFlow) {
        state.flags |= dcb::kOutxCtsFlow | (2u << dcb::kRtsControlShift);
    } else if ((modemLines & TIOCM_RTS) != 0) {
        state.flags |= 1u << dcb::kRtsControlShift;
    }
    if ((modemLines & TIOCM_DTR) != 0) {
        state.flags |= 1u << dcb::kDtrControlShift;
    }
    if (s.xonOut) {
        state.flags |= dcb::kOutX;
    }
    if (s.xonIn) {
        state.flags |= dcb::kInX;
    }
    return state;
}

LineSettings SettingsOf(const CommState &state) {
    LineSettings s;
    s.baud = state.baudRate;
    s.byteSize = state.byteSize;
    s.parity = state.parity;
    s.stopBits = state.stopBits;
    s.parityCheck = (state.flags & dcb::kParity) != 0;
    s.ctsFlow = (state.flags & dcb::kOutxCtsFlow) != 0;
    s.xonOut = (state.flags & dcb::kOutX) != 0;
    s.xonIn = (state.flags & dcb::kInX) != 0;
    return s;
}

// Two states configure the line alike when everything but the modem-line control agrees.
bool SameLine(const CommState &a, const CommState &b) {
    constexpr uint32_t kLines = dcb::kDtrControlMask | dcb::kRtsControlMask;
    return a.baudRate == b.baudRate && (a.flags & ~kLines) == (b.flags & ~kLines) &&
           a.byteSize == b.byteSize && a.parity == b.parity && a.stopBits == b.stopBits &&
           a.xonLim == b.xonLim && a.xoffLim == b.xoffLim && a.xonChar == b.xonChar &&
           a.xoffChar == b.xoffChar && a.errorChar == b.errorChar && a.eofChar == b.eofChar &&
           a.evtChar == b.evtChar;
}

int ModemLines(int fd) {
    int lines = 0;
    if (ioctl(fd, TIOCMGET, &lines) != 0) {
        return 0;
    }
    return lines;
}

// Waits until the port is readable or the deadline (a CLOCK_MONOTONIC value in ns, or -1 for
// none) passes. Returns 1 when readable, 0 on timeout, -1 on failure.
int WaitReadable(int fd, int64_t deadline) {
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        timespec wait{};
        timespec *limit = nullptr;
        if (deadline >= 0) {
            const int64_t left = deadline - CounterNow();
            if (left <= 0) {
                return 0;
            }
            wait = timespec{static_cast<time_t>(left / 1'000'000'000),
                            static_cast<long>(left % 1'000'000'000)};
            limit = &wait;
        }
        const int ready = ppoll(&p, 1, limit, nullptr);
        if (ready > 0) {
            return 1;
        }
        if (ready == 0) {
            return 0;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

// Reads what is there now, up to count bytes. Returns the count, or -1 on failure.
int64_t ReadAvailable(int fd, uint8_t *buffer, uint32_t count) {
    for (;;) {
        const ssize_t n = read(fd, buffer, count);
        if (n > 0) {
            return n;
        }
        if (n == 0) { // end of file: the device hung up
            errno = EIO;
            return -1;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            return 0;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

int64_t Deadline(int64_t from, uint64_t ms) {
    return from + static_cast<int64_t>(ms) * kNsPerMs;
}

} // namespace

std::string PortDevicePath(const char16_t *name) {
    return DevicePath(Utf8(name));
}

PortHandle PortOpen(const char16_t *name) {
    if (name == nullptr) {
        Fail(EINVAL);
        return kInvalidPort;
    }
    const std::string path = PortDevicePath(name);
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        FailErrno();
        return kInvalidPort;
    }
    Port *port = new Port;
    port->fd = fd;
    if (ioctl(fd, TIOCEXCL) != 0 || !TermiosGet(fd, &port->original)) {
        FailErrno();
        close(fd);
        delete port;
        return kInvalidPort;
    }
    port->originalState = StateOf(TermiosDescribe(port->original), ModemLines(fd));
    port->state = port->originalState;
    port->hasCounts = ioctl(fd, TIOCGICOUNT, &port->counts) == 0;
    return port;
}

bool PortGetState(PortHandle handle, CommState *state) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    *state = port->state;
    return true;
}

// The state found at open (whatever the modem-line fields say) brings back the device's own
// termios byte for byte; any other state configures the raw line it describes.
bool PortSetState(PortHandle handle, const CommState *state) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    const bool restored = SameLine(*state, port->originalState);
    if (!(restored ? TermiosSet(port->fd, port->original)
                   : TermiosConfigure(port->fd, SettingsOf(*state)))) {
        return FailErrno();
    }
    if (!ApplyModemLines(port->fd, state->flags)) {
        return false;
    }
    port->state = *state;
    return true;
}

bool PortGetTimeouts(PortHandle handle, CommTimeouts *timeouts) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    *timeouts = port->timeouts;
    return true;
}

bool PortSetTimeouts(PortHandle handle, const CommTimeouts *timeouts) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    port->timeouts = *timeouts;
    return true;
}

// No events are waited for by the library; the mask is accepted and has no effect.
bool PortSetMask(PortHandle handle, uint32_t) {
    return PortOf(handle) != nullptr || FailErrno();
}

// The tty's queues have the kernel's fixed sizes; the recommendation is accepted.
bool PortSetupQueues(PortHandle handle, uint32_t, uint32_t) {
    return PortOf(handle) != nullptr || FailErrno();
}

bool PortPurge(PortHandle handle, uint32_t flags) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    if (!TermiosFlush(port->fd, (flags & kPurgeRxClear) != 0, (flags & kPurgeTxClear) != 0)) {
        return FailErrno();
    }
    return true;
}

bool PortEscape(PortHandle handle, Escape function) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    switch (function) {
    case Escape::SetBreak:
        return ioctl(port->fd, TIOCSBRK) == 0 || NoSuchLine(errno) || FailErrno();
    case Escape::ClrBreak:
        return ioctl(port->fd, TIOCCBRK) == 0 || NoSuchLine(errno) || FailErrno();
    case Escape::SetRts: return SetModemLine(port->fd, TIOCM_RTS, true);
    case Escape::ClrRts: return SetModemLine(port->fd, TIOCM_RTS, false);
    case Escape::SetDtr: return SetModemLine(port->fd, TIOCM_DTR, true);
    case Escape::ClrDtr: return SetModemLine(port->fd, TIOCM_DTR, false);
    }
    return Fail(EINVAL);
}

// Line errors are the counters that grew since the previous call.
bool PortClearError(PortHandle handle, uint32_t *errors, uint32_t *inQueue) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    int queued = 0;
    if (ioctl(port->fd, TIOCINQ, &queued) != 0) {
        return FailErrno();
    }
    *errors = 0;
    serial_icounter_struct now{};
    if (port->hasCounts && ioctl(port->fd, TIOCGICOUNT, &now) == 0) {
        const serial_icounter_struct &was = port->counts;
        *errors =
            (now.frame != was.frame ? kCeFrame : 0) | (now.brk != was.brk ? kCeBreak : 0) |
            (now.parity != was.parity ? kCeRxParity : 0) |
            (now.overrun != was.overrun || now.buf_overrun != was.buf_overrun ? kCeOverrun : 0);
        port->counts = now;
    }
    *inQueue = static_cast<uint32_t>(queued);
    return true;
}

// ReadFile under COMMTIMEOUTS: interval MAXDWORD with zero multiplier and constant returns at
// once with what is queued; otherwise the total limit is multiplier * count + constant (none
// when both are 0), the interval limit runs from each byte to the next (none when 0), and
// with no limit at all the read blocks until count bytes have come.
bool PortRead(PortHandle handle, uint8_t *buffer, uint32_t count, uint32_t *got) {
    *got = 0;
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    const CommTimeouts &t = port->timeouts;
    const int64_t start = CounterNow();
    const bool immediate =
        t.readInterval == kMaxDword && t.readMultiplier == 0 && t.readConstant == 0;
    const bool hasTotal = t.readMultiplier != 0 || t.readConstant != 0;
    const bool hasInterval = t.readInterval != 0 && t.readInterval != kMaxDword;
    const int64_t total =
        hasTotal ? Deadline(start, static_cast<uint64_t>(t.readMultiplier) * count + t.readConstant)
                 : -1;
    int64_t interval = -1; // the interval limit runs from the latest byte
    while (*got < count) {
        const int64_t n = ReadAvailable(port->fd, buffer + *got, count - *got);
        if (n < 0) {
            return FailErrno();
        }
        *got += static_cast<uint32_t>(n);
        if (*got == count || immediate) {
            break;
        }
        if (hasInterval && n > 0) {
            interval = Deadline(CounterNow(), t.readInterval);
        }
        const int64_t deadline =
            interval < 0 ? total : (total < 0 ? interval : std::min(total, interval));
        const int ready = WaitReadable(port->fd, deadline);
        if (ready < 0) {
            return FailErrno();
        }
        if (ready == 0) {
            break;
        }
    }
    return true;
}

// WriteFile with zero write timeouts: returns when every byte is in the driver's queue.
bool PortWrite(PortHandle handle, const uint8_t *bytes, uint32_t count, uint32_t *written) {
    *written = 0;
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    while (*written < count) {
        const ssize_t n = write(port->fd, bytes + *written, count - *written);
        if (n > 0) {
            *written += static_cast<uint32_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            return FailErrno();
        }
        pollfd p{port->fd, POLLOUT, 0};
        if (poll(&p, 1, -1) < 0 && errno != EINTR) {
            return FailErrno();
        }
    }
    return true;
}

bool PortClose(PortHandle handle) {
    Port *port = PortOf(handle);
    if (port == nullptr) {
        return FailErrno();
    }
    const int result = close(port->fd);
    const int error = errno;
    delete port;
    return result == 0 || Fail(error);
}

} // namespace dv::posix
