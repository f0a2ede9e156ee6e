// The termios2 part of the posix backend, behind a header free of system includes: glibc's
// <termios.h> and the kernel's <asm/termbits.h> define the same names differently, so only
// termios2.cpp sees the kernel's definitions.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dv::posix {

// An exact copy of a device's termios2, opaque to everything but termios2.cpp.
struct TermiosCopy {
    alignas(8) unsigned char bytes[64];
};

// The line settings that a CommState can express.
struct LineSettings {
    uint32_t baud = 0;
    uint8_t byteSize = 8;
    uint8_t parity = 0;   // DCB codes: 0 none, 1 odd, 2 even, 3 mark, 4 space
    uint8_t stopBits = 0; // DCB codes: 0 one, 1 one and a half, 2 two
    bool parityCheck = false;
    bool ctsFlow = false;
    bool xonOut = false;
    bool xonIn = false;
};

// Each returns false with errno set on failure.
bool TermiosGet(int fd, TermiosCopy *copy);
bool TermiosSet(int fd, const TermiosCopy &copy);
LineSettings TermiosDescribe(const TermiosCopy &copy);
// Raw mode (no echo, no line editing, no character translation) with the given settings and
// any baud rate (BOTHER).
bool TermiosConfigure(int fd, const LineSettings &settings);
bool TermiosFlush(int fd, bool input, bool output);

} // namespace dv::posix
