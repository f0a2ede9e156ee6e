// Part 2.3: DvSpy, listening to a line without any protocol.
#include "frame/frame.h"
#include "serial/serial.h"

namespace dv {
namespace {

// Step 6: one-byte reads until the line is quiet or max count bytes have come.
uint32_t Capture(uint32_t maxCount, uint8_t *buffer, uint32_t *count) {
    while (*count < maxCount) {
        uint32_t got = 0;
        if (const uint32_t code = LineRead(3, 1, buffer + *count, &got); code != 0) {
            return code;
        }
        if (got == 0) {
            break;
        }
        ++*count;
    }
    return 0;
}

uint32_t Spy(const char16_t *name, uint32_t baud, uint32_t maxCount, uint32_t byteTimeout,
             uint32_t *count, uint8_t *buffer) {
    LogResetStartMark();
    LogMessage(2, u"\r\nOpening communication port '%s' port at %u baud rate\r\n", name, baud);
    if (const uint32_t code = PortOpen(name, baud, 256, 256); code != 0) {
        return code;
    }
    if (const uint32_t code = PortSetTimeouts(0, byteTimeout, 0); code != 0) {
        PortClose();
        return code;
    }
    LogMessage(3, u"\r\n");
    *count = 0;
    if (const uint32_t code = Capture(maxCount, buffer, count); code != 0) {
        PortClose();
        return code;
    }
    LogMessage(2, u"\r\nClosing communication port\r\n");
    PortClose();
    return 0;
}

} // namespace
} // namespace dv

extern "C" DV_API uint32_t DV_CALL DvSpy(const DvChar *port, uint32_t baud, uint32_t maxCount,
                                         uint32_t byteTimeout, uint32_t *count, uint8_t *buffer) {
    // A host that passes no name, count or buffer gets an empty name or no bytes, not a crash.
    const char16_t *name = port != nullptr ? reinterpret_cast<const char16_t *>(port) : u"";
    uint32_t ignored = 0;
    if (count == nullptr) {
        count = &ignored;
    }
    if (buffer == nullptr) {
        maxCount = 0;
    }
    return dv::Spy(name, baud, maxCount, byteTimeout, count, buffer);
}
