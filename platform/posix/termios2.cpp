// termios2 with BOTHER, so that any baud rate (10400 for the K-line) can be set exactly.
// Only the kernel's definitions are included here; see termios2.h.
#include "platform/posix/termios2.h"

#include <asm/termbits.h>
#include <cerrno>
#include <cstring>
#include <sys/ioctl.h>

namespace dv::posix {
namespace {

static_assert(sizeof(termios2) <= sizeof(TermiosCopy::bytes));

termios2 Unpack(const TermiosCopy &copy) {
    termios2 t{};
    std::memcpy(&t, copy.bytes, sizeof t);
    return t;
}

tcflag_t SizeFlag(uint8_t byteSize) {
    switch (byteSize) {
    case 5: return CS5;
    case 6: return CS6;
    case 7: return CS7;
    default: return CS8;
    }
}

uint8_t ByteSize(tcflag_t cflag) {
    switch (cflag & CSIZE) {
    case CS5: return 5;
    case CS6: return 6;
    case CS7: return 7;
    default: return 8;
    }
}

uint8_t Parity(tcflag_t cflag) {
    if ((cflag & PARENB) == 0) {
        return 0;
    }
    const bool odd = (cflag & PARODD) != 0;
    if ((cflag & CMSPAR) != 0) {
        return odd ? 3 : 4;
    }
    return odd ? 1 : 2;
}

tcflag_t ParityFlags(uint8_t parity) {
    switch (parity) {
    case 1: return PARENB | PARODD;
    case 2: return PARENB;
    case 3: return PARENB | PARODD | CMSPAR;
    case 4: return PARENB | CMSPAR;
    default: return 0;
    }
}

} // namespace

bool TermiosGet(int fd, TermiosCopy *copy) {
    termios2 t{};
    if (ioctl(fd, TCGETS2, &t) != 0) {
        return false;
    }
    std::memset(copy->bytes, 0, sizeof copy->bytes);
    std::memcpy(copy->bytes, &t, sizeof t);
    return true;
}

bool TermiosSet(int fd, const TermiosCopy &copy) {
    termios2 t = Unpack(copy);
    return ioctl(fd, TCSETS2, &t) == 0;
}

LineSettings TermiosDescribe(const TermiosCopy &copy) {
    const termios2 t = Unpack(copy);
    LineSettings s;
    s.baud = t.c_ospeed;
    s.byteSize = ByteSize(t.c_cflag);
    s.parity = Parity(t.c_cflag);
    s.stopBits = (t.c_cflag & CSTOPB) != 0 ? 2 : 0;
    s.parityCheck = (t.c_iflag & INPCK) != 0;
    s.ctsFlow = (t.c_cflag & CRTSCTS) != 0;
    s.xonOut = (t.c_iflag & IXON) != 0;
    s.xonIn = (t.c_iflag & IXOFF) != 0;
    return s;
}

bool TermiosConfigure(int fd, const LineSettings &settings) {
    if (settings.baud == 0 || settings.byteSize < 5 || settings.byteSize > 8) {
        errno = EINVAL;
        return false;
    }
    termios2 t{};
    if (ioctl(fd, TCGETS2, &t) != 0) {
        return false;
    }
    // Neither IGNBRK nor IGNPAR: a break or a byte with a framing error is delivered as 0x00,
    // as on Windows, since the adapter's echo of the break line is counted in such bytes.
    t.c_iflag = (settings.parityCheck ? INPCK : 0) | (settings.xonOut ? IXON : 0) |
                (settings.xonIn ? IXOFF : 0);
    t.c_oflag = 0;
    t.c_lflag = 0;
    t.c_cflag = CREAD | CLOCAL | BOTHER | (BOTHER << IBSHIFT) | SizeFlag(settings.byteSize) |
                ParityFlags(settings.parity) | (settings.stopBits != 0 ? CSTOPB : 0) |
                (settings.ctsFlow ? CRTSCTS : 0);
    t.c_ospeed = settings.baud;
    t.c_ispeed = settings.baud;
    std::memset(t.c_cc, 0, sizeof t.c_cc);
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    return ioctl(fd, TCSETS2, &t) == 0;
}

bool TermiosFlush(int fd, bool input, bool output) {
    if (!input && !output) {
        return true;
    }
    const int which = input && output ? TCIOFLUSH : (input ? TCIFLUSH : TCOFLUSH);
    return ioctl(fd, TCFLSH, which) == 0;
}

} // namespace dv::posix
