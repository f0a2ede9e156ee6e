// Part 2.1: the one serial port of the library, its configuration and timeouts, and the
// serial sub-block of the settings (Part 1.2, word 0).
#include "frame/frame.h"
#include "serial/serial.h"

namespace dv {
namespace {

struct SerialLayer {
    PortHandle port = kInvalidPort;
    uint32_t dtrOn = 1;
    uint32_t byteDelay = 0;
    CommState savedState{};
    CommTimeouts savedTimeouts{};
};

SerialLayer gSerial;

uint32_t LastError() {
    return PlatformGet().lastError();
}

// Logs a platform failure at level 1 and gives the line's code.
uint32_t Failed(const char16_t *format) {
    LogMessage(1, format, LastError());
    return 5;
}

// The unwinding of PortOpen: each step undoes what the steps before it did.
void CloseHandleOnly() {
    PlatformGet().portClose(gSerial.port);
    gSerial.port = kInvalidPort;
}

void RestoreStateAndClose() {
    PlatformGet().portSetState(gSerial.port, &gSerial.savedState);
    CloseHandleOnly();
}

void RestoreAllAndClose() {
    PlatformGet().portSetTimeouts(gSerial.port, &gSerial.savedTimeouts);
    RestoreStateAndClose();
}

// Step 5: the flag word of the new configuration. Every defined DCB bit is set here; the bits
// above them (fDummy2) are kept as found.
uint32_t NewFlags(uint32_t found, uint32_t dtrOn) {
    const uint32_t dtrControl = (dtrOn != 0 ? 1u : 0u) << dcb::kDtrControlShift;
    return (found & ~dcb::kDefinedMask) | dcb::kBinary | dcb::kTxContinueOnXoff | dtrControl;
}

CommState NewState(const CommState &found, uint32_t baud, uint32_t dtrOn) {
    CommState state;
    state.baudRate = baud;
    state.flags = NewFlags(found.flags, dtrOn);
    state.reserved = found.reserved;
    state.xonLim = 0;
    state.xoffLim = 0;
    state.byteSize = 8;
    state.parity = 0;
    state.stopBits = 0;
    return state;
}

} // namespace

uint32_t SerialLayerSetUp() {
    gSerial.byteDelay = 0;
    gSerial.dtrOn = 1;
    gSerial.port = kInvalidPort;
    return 0;
}

// An open port stays open (Part 1.1).
void SerialLayerTearDown() {}

uint32_t SerialApplyDtrSetting(uint32_t dtrOn) {
    if (gSerial.port != kInvalidPort && dtrOn != gSerial.dtrOn) {
        const Escape function = dtrOn != 0 ? Escape::SetDtr : Escape::ClrDtr;
        if (!PlatformGet().portEscape(gSerial.port, function)) {
            return Failed(u"Could not escape communication port (0x%08X)\r\n");
        }
    }
    gSerial.dtrOn = dtrOn;
    return 0;
}

uint32_t SerialDtrSetting() {
    return gSerial.dtrOn;
}

uint32_t PortOpen(const char16_t *name, uint32_t baud, uint32_t inQueue, uint32_t outQueue) {
    const Platform &platform = PlatformGet();
    gSerial.port = platform.portOpen(name);
    if (gSerial.port == kInvalidPort) {
        LogMessage(1, u"Could not open communication port '%s' (0x%08X)\r\n", name, LastError());
        return 5;
    }
    if (!platform.portGetState(gSerial.port, &gSerial.savedState)) {
        const uint32_t code = Failed(u"Could not get communication port state (0x%08X)\r\n");
        CloseHandleOnly();
        return code;
    }
    gSerial.savedState.flags &= ~(dcb::kDtrControlMask | dcb::kRtsControlMask);
    if (!platform.portGetTimeouts(gSerial.port, &gSerial.savedTimeouts)) {
        const uint32_t code = Failed(u"Could not get communication port timeouts (0x%08X)\r\n");
        CloseHandleOnly();
        return code;
    }
    const CommState state = NewState(gSerial.savedState, baud, gSerial.dtrOn);
    if (!platform.portSetState(gSerial.port, &state)) {
        const uint32_t code = Failed(u"Could not set communication port state (0x%08X)\r\n");
        CloseHandleOnly();
        return code;
    }
    const CommTimeouts none{};
    if (!platform.portSetTimeouts(gSerial.port, &none)) {
        const uint32_t code = Failed(u"Could not set communication port timeouts (0x%08X)\r\n");
        RestoreStateAndClose();
        return code;
    }
    if (!platform.portSetMask(gSerial.port, 0)) {
        const uint32_t code = Failed(u"Could not set communication port mask (0x%08X)\r\n");
        RestoreAllAndClose();
        return code;
    }
    if (!platform.portSetupQueues(gSerial.port, inQueue, outQueue)) {
        const uint32_t code = Failed(u"Could not setup communication port (0x%08X)\r\n");
        RestoreAllAndClose();
        return code;
    }
    SleepMs(50);
    return 0;
}

void PortClose() {
    const Platform &platform = PlatformGet();
    platform.portSetTimeouts(gSerial.port, &gSerial.savedTimeouts);
    platform.portSetState(gSerial.port, &gSerial.savedState);
    platform.portClose(gSerial.port);
    gSerial.port = kInvalidPort;
}

uint32_t PortSetTimeouts(uint32_t total, uint32_t perByte, uint32_t interval) {
    CommTimeouts timeouts{};
    if (total == 0 && perByte == 0) {
        timeouts.readInterval = kNoLimit;
    } else {
        if (total != kNoLimit && perByte != kNoLimit) {
            timeouts.readConstant = total + 1;
            timeouts.readMultiplier = perByte;
        }
        timeouts.readInterval = interval == kNoLimit ? 0 : interval + 1;
    }
    if (!PlatformGet().portSetTimeouts(gSerial.port, &timeouts)) {
        return Failed(u"Could not set communication port timeouts (0x%08X)\r\n");
    }
    return 0;
}

uint32_t PortSetByteDelay(uint32_t ms) {
    gSerial.byteDelay = ms;
    return 0;
}

uint32_t PortByteDelay() {
    return gSerial.byteDelay;
}

uint32_t PortPurge(uint32_t which) {
    uint32_t flags = 0;
    if ((which & kPurgeInput) != 0) {
        flags |= kPurgeRxClear;
    }
    if ((which & kPurgeOutput) != 0) {
        flags |= kPurgeTxClear;
    }
    if (!PlatformGet().portPurge(gSerial.port, flags)) {
        return Failed(u"Could not purge communication port (0x%08X)\r\n");
    }
    return 0;
}

bool PortIsOpen() {
    return gSerial.port != kInvalidPort;
}

PortHandle PortCurrentHandle() {
    return gSerial.port;
}

} // namespace dv
