// Part 5.2: KWP2000 initialisation and connection. Five-baud and fast initialisation, the start
// and stop exports, restart of a lost link with the session restored, the module address map.
#include <algorithm>
#include <array>

#include "dravelin/dravelin.h"
#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "serial/serial.h"

namespace dv {
namespace {

constexpr uint32_t kBaud = 10400;
constexpr uint32_t kQueueSize = 1024;
constexpr uint32_t kBitTime = 200;         // five baud
constexpr uint32_t kWakeUpMs = 25;         // fast init: 25 ms low, 25 ms high
constexpr uint32_t kSyncTimeout = 400;     // W1
constexpr uint32_t kKeyByteTimeout = 20;   // W2, W3
constexpr uint32_t kInvertedKb2Pause = 37; // W4 before the inverted key byte 2
constexpr uint32_t kKb2EchoTimeout = 25;
constexpr uint32_t kAddressTimeout = 50;
constexpr uint32_t kMissLimit = 16;
constexpr uint32_t kKeyByteMissSync = 280; // sync wait after a missing key byte
constexpr uint32_t kAddressMissSync = 250; // sync wait after a missing address answer
constexpr uint32_t kByteDelay = 10;
constexpr uint8_t kSyncByte = 0x55;
constexpr uint8_t kKeyByte2 = 0x8F;

struct ModuleTarget {
    uint8_t module;
    uint8_t target;
};

constexpr std::array<ModuleTarget, 31> kModuleMap = {{
    {0x01, 0x10}, {0x02, 0x1A}, {0x03, 0x28}, {0x06, 0xA5}, {0x08, 0x98}, {0x09, 0xA4},
    {0x11, 0x11}, {0x12, 0x1B}, {0x13, 0x29}, {0x15, 0x58}, {0x16, 0x30}, {0x17, 0x61},
    {0x22, 0x1C}, {0x25, 0xC0}, {0x26, 0xA0}, {0x34, 0x38}, {0x35, 0xC1}, {0x36, 0xA1},
    {0x37, 0x62}, {0x44, 0x31}, {0x45, 0xC2}, {0x46, 0xA2}, {0x47, 0x81}, {0x55, 0x70},
    {0x56, 0x80}, {0x61, 0x42}, {0x65, 0x3A}, {0x71, 0x43}, {0x75, 0x90}, {0x76, 0x60},
    {0x80, 0xFF},
}};

// Key byte 1: length info (bit 0 or 1), header type (bit 2 or 3), exactly one timing bit.
bool KeyByte1Valid(uint8_t kb1) {
    const bool timing = ((kb1 & kKb1NormalTiming) != 0) != ((kb1 & kKb1ExtendedTiming) != 0);
    return (kb1 & 0x03) != 0 && (kb1 & 0x0C) != 0 && timing;
}

// Reads up to count bytes within a total deadline of `total` ms (0: only what is queued).
uint32_t ReadWithin(uint32_t level, uint32_t total, uint32_t count, uint8_t *bytes, uint32_t *got) {
    *got = 0;
    const uint32_t result = PortSetTimeouts(total, 0, kNoLimit);
    return result != 0 ? result : LineRead(level, count, bytes, got);
}

// The timing set of a fresh link: ISO default with normal timing, else the settings.
void LoadTimingByKeyByte1() {
    if ((IsoLinkState().keyByte1 & kKb1NormalTiming) != 0) {
        IsoLoadDefaultTiming();
    } else {
        IsoLoadSettingsTiming();
    }
}

// Outcome of one step of IsoSlowInit.
enum class Step { Done, Miss };

// Reads the key bytes and answers with the inverted key byte 2 and address (steps 3-8).
uint32_t SlowInitKeyBytes(uint8_t address, Step *step, uint32_t *missWait) {
    std::array<uint8_t, 2> kb{};
    uint32_t got = 0;
    for (uint8_t &byte : kb) {
        const uint32_t result = ReadWithin(3, kKeyByteTimeout, 1, &byte, &got);
        if (result != 0) {
            return result;
        }
        if (got == 0) {
            *step = Step::Miss;
            *missWait = kKeyByteMissSync;
            return 8;
        }
    }
    if (kb[1] != kKeyByte2) {
        if ((kb[0] == 0x94 && kb[1] == 0x94) || (kb[0] == 0x80 && kb[1] == 0x80)) {
            LogMessage(1, u"OBD2 is not supported yet");
        } else {
            LogMessage(1, u"Bad Key Bytes : '%02X%02X'", kb[1], kb[0]);
        }
        return 10;
    }
    if (!KeyByte1Valid(kb[0])) {
        LogMessage(1, u"Bad Key Byte 1 : '%02X'", kb[0]);
        return 10;
    }
    LogMessage(3, u"Key Bytes are Ok");
    DelayMs(kInvertedKb2Pause);
    uint32_t result = PortSetByteDelay(0);
    const uint8_t inverted = static_cast<uint8_t>(~kb[1]);
    if (result == 0) {
        result = LineWrite(3, 1, &inverted);
    }
    uint8_t echo = 0;
    if (result == 0) {
        result = ReadWithin(4, kKb2EchoTimeout, 1, &echo, &got);
    }
    if (result != 0) {
        return result;
    }
    if (got == 0) {
        LogMessage(1, u"No adapter echo");
        return 6;
    }
    if (echo != inverted) {
        LogMessage(1, u"Bad adapter echo : '%02X' vs '%02X'", echo, inverted);
    }
    uint8_t answer = 0;
    result = ReadWithin(3, kAddressTimeout, 1, &answer, &got);
    if (result != 0) {
        return result;
    }
    if (got == 0) {
        *step = Step::Miss;
        *missWait = kAddressMissSync;
        return 8;
    }
    const uint8_t expected = static_cast<uint8_t>(~address);
    if ((answer & 0x7F) != (expected & 0x7F)) {
        LogMessage(1, u"Bad ECU address echo : '%02X' vs '%02X'", answer, expected);
        return 12;
    }
    IsoLink &link = IsoLinkState();
    link.keyByte1 = kb[0];
    link.keyByte2 = kb[1];
    return 0;
}

// Sends the five-baud address and takes its adapter echo off the line (step 1).
uint32_t SlowInitAddress(uint8_t address) {
    uint32_t result = PortPurge(kPurgeInput | kPurgeOutput);
    int32_t echo = -1;
    if (result == 0) {
        result = LineSendAddress(kBitTime, address, &echo);
    }
    if (result != 0) {
        return result;
    }
    if (echo < 0) {
        return PortPurge(kPurgeInput);
    }
    std::array<uint8_t, 16> bytes{};
    const uint32_t count = static_cast<uint32_t>(echo);
    uint32_t got = 0;
    for (uint32_t done = 0; done < count; done += got) {
        const uint32_t part = std::min<uint32_t>(count - done, bytes.size());
        result = ReadWithin(4, 0, part, bytes.data(), &got);
        if (result != 0) {
            return result;
        }
        if (got < part) {
            LogMessage(1, u"No adapter echo");
            return 6;
        }
    }
    return 0;
}

// Checks a StartCommunication answer: service id, key byte 2, key byte 1 (fast init step 5).
uint32_t CheckStartAnswer(const uint8_t *data, uint32_t length) {
    const uint8_t sid = IsoByteAt(data, length, 0);
    const uint8_t kb1 = IsoByteAt(data, length, 1);
    const uint8_t kb2 = IsoByteAt(data, length, 2);
    if (sid != 0xC1) {
        LogMessage(1, u"Bad service id : '%02X' vs '%02X'", sid, 0xC1);
        return 13;
    }
    if (kb2 != kKeyByte2) {
        LogMessage(1, u"Bad Key Bytes : '%02X%02X'", kb2, kb1);
        return 10;
    }
    if (!KeyByte1Valid(kb1)) {
        LogMessage(1, u"Bad Key Byte 1 : '%02X'", kb1);
        return 10;
    }
    LogMessage(3, u"Key Bytes are Ok");
    IsoLink &link = IsoLinkState();
    link.keyByte1 = kb1;
    link.keyByte2 = kb2;
    return 0;
}

// Slow-init failures that count as an attempt: the pause before the next one, and the result to
// report at the limit (8 unless a 9, 10 or 12 came).
bool SlowInitCounts(uint32_t result, uint32_t *pause, uint32_t *reported) {
    if (result == 9 || result == 10 || result == 12) {
        *reported = result;
        *pause = 3000;
        return true;
    }
    if (result == 8) {
        *pause = 2700;
        return true;
    }
    return false;
}

// Attempts counted across one connect or reconnect, with the result to report at the limit.
struct Attempts {
    uint32_t count = 0;
    uint32_t reported = 8;
};

// Runs IsoSlowInit until it succeeds, inside the open exchange section. The reconnect ends and
// begins the section around each retry pause. On failure the section is ended.
uint32_t SlowInitLoop(uint8_t address, bool reconnect, Attempts &attempts) {
    const uint32_t limit = IsoSettingsInForce().connectAttempts;
    for (;;) {
        const uint32_t result = IsoSlowInit(address);
        if (result == 0) {
            return 0;
        }
        uint32_t pause = 3000;
        if (!SlowInitCounts(result, &pause, &attempts.reported)) {
            SleepMs(3000);
            ExchangeEnd();
            return result;
        }
        if (++attempts.count >= limit) {
            SleepMs(pause);
            ExchangeEnd();
            return attempts.reported;
        }
        if (reconnect) {
            LogMessage(1, u"Retrying to connect to ECU");
            SleepMs(pause);
            ExchangeEnd();
            const uint32_t begun = ExchangeBegin();
            if (begun != 0) {
                return begun;
            }
        } else {
            LogMessage(1, u"\r\nRetrying to connect to ECU\r\n\r\n");
            SleepMs(pause);
        }
    }
}

// Runs the fast init and reads the StartCommunication answer until one arrives, inside the open
// exchange section. The reconnect ends and begins the section around each retry pause. On
// failure the section is ended.
uint32_t FastInitLoop(uint8_t address, bool reconnect, Attempts &attempts, uint32_t *length,
                      uint8_t **data) {
    IsoLink &link = IsoLinkState();
    const uint32_t limit = IsoSettingsInForce().connectAttempts;
    for (;;) {
        uint32_t result = IsoFastInit(address);
        if (result == 0) {
            result = IsoReceiveResponse(length, data);
            if (result == 0) {
                return 0;
            }
            if (result == 12) {
                attempts.reported = 12;
            }
        }
        if (result != 8 && result != 12) {
            SleepMs(600);
            ExchangeEnd();
            return result;
        }
        if (++attempts.count >= limit) {
            SleepMs(550);
            ExchangeEnd();
            return attempts.reported;
        }
        LogMessage(1, u"Retrying to connect to ECU");
        SleepMs(550);
        ++link.repeats;
        if (reconnect) {
            ExchangeEnd();
            const uint32_t begun = ExchangeBegin();
            if (begun != 0) {
                return begun;
            }
        }
    }
}

// A StartCommunication answer arrived: end the section, count it, check and store the key
// bytes, load the ISO default timing for normal-timing ECUs.
uint32_t FastInitAccept(const uint8_t *data, uint32_t length) {
    DelayMs(5);
    ExchangeEnd();
    ++IsoLinkState().servicesRequested;
    const uint32_t result = CheckStartAnswer(data, length);
    IsoReleaseResponseBuffer();
    if (result != 0) {
        return result;
    }
    if ((IsoLinkState().keyByte1 & kKb1NormalTiming) != 0) {
        IsoLoadDefaultTiming();
        return PortSetByteDelay(kByteDelay);
    }
    return 0;
}

// After a reinitialisation: restore the session. 0, or the result and pause of a retry
// (`retry` set), or a result to return after `pause`.
uint32_t RestoreAfterReinit(uint32_t otherPause, uint32_t retryPause, Attempts &attempts,
                            bool *retry) {
    *retry = false;
    const uint32_t result = IsoRestoreSession();
    if (result == 0) {
        LogMessage(2, u"\r\nReconnected successfully\r\n");
        return 0;
    }
    if (result != 8 && result != 12) {
        SleepMs(otherPause);
        return result;
    }
    if (result == 12) {
        attempts.reported = 12;
    }
    if (++attempts.count >= IsoSettingsInForce().connectAttempts) {
        SleepMs(retryPause);
        return attempts.reported;
    }
    LogMessage(1, u"Retrying to connect to ECU");
    SleepMs(retryPause);
    *retry = true;
    return ExchangeBegin();
}

// Start operations, step 1: log time origin, start tick, counters cleared.
void StartSession() {
    LogResetStartMark();
    IsoLink &link = IsoLinkState();
    link.startTick = TickCount();
    link.servicesRequested = 0;
    link.repeats = 0;
    link.restarts = 0;
}

// Start operations, step 5.
uint32_t FinishStart(uint32_t *keepAlive) {
    IsoLink &link = IsoLinkState();
    if (keepAlive != nullptr) {
        *keepAlive = IsoMsLess(link.timing.P3max, link.timing.P3min);
    }
    link.connected = 1;
    return 0;
}

// Sends StopCommunication; the pause before closing after anything but a positive answer.
void SendStopCommunication() {
    IsoLink &link = IsoLinkState();
    uint8_t *request = IsoAcquireRequestBuffer(1);
    request[0] = 0x82;
    uint32_t length = 0;
    uint8_t *data = nullptr;
    const uint32_t result = IsoExchange(1, request, &length, &data);
    const uint32_t pause = IsoMsLess(2 * link.timing.P3max, link.timing.P3min);
    if (result != 0) {
        IsoReleaseRequestBuffer();
        SleepMs(pause);
        return;
    }
    const uint8_t sid = IsoByteAt(data, length, 0);
    IsoReleaseRequestBuffer();
    IsoReleaseResponseBuffer();
    if (sid == 0xC2) {
        return;
    }
    if (sid != 0x7F) {
        LogMessage(1, u"Bad service id : '%02X' vs '%02X'", sid, 0xC2);
    }
    SleepMs(pause);
}

} // namespace

uint32_t IsoSlowInit(uint8_t address) {
    uint32_t result = SlowInitAddress(address);
    if (result != 0) {
        return result;
    }
    uint32_t syncWait = kSyncTimeout;
    for (uint32_t misses = 0;;) {
        uint8_t sync = 0;
        uint32_t got = 0;
        result = ReadWithin(3, syncWait, 1, &sync, &got);
        if (result != 0) {
            return result;
        }
        if (got == 0) {
            LogMessage(1, u"No ECU data");
            return 8;
        }
        if (sync != kSyncByte) {
            LogMessage(1, u"Bad Baud Rate Synch Byte: '%02X' vs '%02X'", sync, kSyncByte);
            return 9;
        }
        LogMessage(3, u"Baud Rate Synch Byte is Ok");
        Step step = Step::Done;
        uint32_t missWait = 0;
        result = SlowInitKeyBytes(address, &step, &missWait);
        if (step == Step::Done) {
            return result;
        }
        LogMessage(1, u"No ECU data");
        if (++misses >= kMissLimit) {
            SleepMs(missWait);
            return 8;
        }
        LogMessage(1, u"\r\nResetting\r\n\r\n");
        syncWait = missWait;
    }
}

uint32_t IsoFastInit(uint8_t address) {
    const IsoLink &link = IsoLinkState();
    std::array<uint8_t, 5> message = {0x81, address, link.testerAddress, 0x81, 0};
    message[4] = static_cast<uint8_t>(message[0] + message[1] + message[2] + message[3]);
    uint32_t result = PortPurge(kPurgeInput | kPurgeOutput);
    int32_t echo = -1;
    if (result == 0) {
        result = LineSendWakeUp(kWakeUpMs, &echo);
    }
    if (result == 0) {
        result = LineWrite(3, message.size(), message.data());
    }
    if (result != 0) {
        return result;
    }
    DelayMs(IsoMsLess(link.timing.P4max, link.timing.TesterByteGap));
    if (echo < 0) {
        return PortPurge(kPurgeInput);
    }
    std::array<uint8_t, 16> wakeUp{};
    const uint32_t wakeUpCount = std::min<uint32_t>(static_cast<uint32_t>(echo), wakeUp.size());
    uint32_t got = 0;
    result = ReadWithin(4, 0, wakeUpCount, wakeUp.data(), &got);
    if (result != 0) {
        return result;
    }
    if (got < wakeUpCount) {
        LogMessage(1, u"No adapter echo");
        return 6;
    }
    std::array<uint8_t, 5> bytes{};
    result = ReadWithin(4, IsoMsLess(link.timing.P2min, link.timing.P4max), bytes.size(),
                        bytes.data(), &got);
    if (result != 0) {
        return result;
    }
    if (got < bytes.size()) {
        LogMessage(1, u"No adapter echo");
        return 6;
    }
    if (bytes != message) {
        LogMessage(1, u"Bad adapter echo");
    }
    return 0;
}

uint32_t IsoConnectSlow(const char16_t *port, uint8_t address) {
    LogMessage(2, u"\r\nConnecting to ECU at address %02Xh with slow connect\r\n", address);
    if (address == kIsoSimulatorModule) {
        SleepMs(2000);
        IsoLoadSettingsTiming();
        LogMessage(2, u"\r\nConnected successfully\r\n");
        return 0;
    }
    uint32_t result = PortOpen(port, kBaud, kQueueSize, kQueueSize);
    if (result != 0) {
        return result;
    }
    result = ExchangeBegin();
    if (result != 0) {
        PortClose();
        return result;
    }
    LogMessage(3, u"");
    Attempts attempts;
    result = SlowInitLoop(address, false, attempts);
    if (result != 0) {
        PortClose();
        return result;
    }
    DelayMs(55);
    ExchangeEnd();
    LoadTimingByKeyByte1();
    result = PortSetByteDelay(kByteDelay);
    if (result != 0) {
        SleepMs(2945);
        PortClose();
        return result;
    }
    LogMessage(2, u"\r\nConnected successfully\r\n");
    return 0;
}

uint32_t IsoConnectFast(const char16_t *port, uint8_t address) {
    LogMessage(2, u"\r\nConnecting to ECU at address %02Xh with fast connect\r\n", address);
    if (address == kIsoSimulatedTarget) {
        SleepMs(100);
        IsoLoadSettingsTiming();
        LogMessage(2, u"Connected successfully");
        return 0;
    }
    uint32_t result = PortOpen(port, kBaud, kQueueSize, kQueueSize);
    if (result != 0) {
        return result;
    }
    IsoLoadSettingsTiming();
    result = PortSetByteDelay(kByteDelay);
    if (result == 0) {
        result = ExchangeBegin();
    }
    if (result != 0) {
        PortClose();
        return result;
    }
    LogMessage(3, u"");
    Attempts attempts;
    uint32_t length = 0;
    uint8_t *data = nullptr;
    result = FastInitLoop(address, false, attempts, &length, &data);
    if (result == 0) {
        result = FastInitAccept(data, length);
        if (result != 0) {
            SleepMs(545);
        }
    }
    if (result != 0) {
        PortClose();
        return result;
    }
    LogMessage(2, u"Connected successfully");
    return 0;
}

uint32_t IsoReconnectSlow() {
    IsoLink &link = IsoLinkState();
    SleepMs(IsoMsLess(3000, link.timing.P3min));
    LogMessage(2, u"\r\nReconnecting to ECU with slow connect\r\n");
    LogMessage(3, u"");
    uint32_t result = ExchangeBegin();
    if (result != 0) {
        return result;
    }
    Attempts attempts;
    for (;;) {
        result = SlowInitLoop(link.initAddress, true, attempts);
        if (result != 0) {
            return result;
        }
        DelayMs(55);
        ExchangeEnd();
        LoadTimingByKeyByte1();
        result = PortSetByteDelay(kByteDelay);
        if (result != 0) {
            SleepMs(2945);
            return result;
        }
        bool retry = false;
        result = RestoreAfterReinit(3000, IsoMsLess(3000, link.timing.P3min), attempts, &retry);
        if (!retry || result != 0) {
            return result;
        }
    }
}

uint32_t IsoReconnectFast() {
    IsoLink &link = IsoLinkState();
    SleepMs(IsoMsLess(600, link.timing.P3min));
    LogMessage(2, u"\r\nReconnecting to ECU with fast connect\r\n");
    LogMessage(3, u"");
    uint32_t result = 0;
    if ((link.keyByte1 & kKb1NormalTiming) != 0) {
        IsoLoadSettingsTiming();
        result = PortSetByteDelay(kByteDelay);
        if (result != 0) {
            return result;
        }
    }
    result = ExchangeBegin();
    if (result != 0) {
        return result;
    }
    Attempts attempts;
    for (;;) {
        uint32_t length = 0;
        uint8_t *data = nullptr;
        result = FastInitLoop(link.targetAddress, true, attempts, &length, &data);
        if (result != 0) {
            return result;
        }
        result = FastInitAccept(data, length);
        if (result != 0) {
            SleepMs(545);
            return result;
        }
        bool retry = false;
        result = RestoreAfterReinit(600, IsoMsLess(600, link.timing.P3min), attempts, &retry);
        if (!retry || result != 0) {
            return result;
        }
    }
}

uint32_t IsoRestartCommunication() {
    IsoLink &link = IsoLinkState();
    const uint32_t result = link.connectMode != 0 ? IsoReconnectFast() : IsoReconnectSlow();
    if (result == 0) {
        ++link.restarts;
    }
    return result;
}

uint32_t IsoRestoreSession() {
    IsoLink &link = IsoLinkState();
    if (link.sessionMode == 0) {
        return 0;
    }
    uint8_t *request = IsoAcquireRequestBuffer(2);
    request[0] = 0x10;
    request[1] = link.sessionMode;
    uint32_t length = 0;
    uint8_t *data = nullptr;
    uint32_t result = IsoExchange(2, request, &length, &data);
    IsoReleaseRequestBuffer();
    if (result != 0) {
        return result;
    }
    const uint8_t sid = IsoByteAt(data, length, 0);
    const uint8_t mode = IsoByteAt(data, length, 1);
    if (sid == 0x7F) {
        result = 0x100 + IsoByteAt(data, length, 2);
    } else if (sid != 0x50) {
        LogMessage(1, u"Bad service id : '%02X' vs '%02X'", sid, 0x50);
        result = 13;
    } else if (mode != link.sessionMode) {
        LogMessage(1, u"Bad diagnostic session mode : '%02X' vs '%02X'", mode, link.sessionMode);
        result = 7;
    }
    IsoReleaseResponseBuffer();
    return result;
}

uint32_t IsoMapTargetAddress(uint32_t module, uint8_t *target) {
    for (const ModuleTarget &entry : kModuleMap) {
        if (entry.module == module) {
            *target = entry.target;
            return 0;
        }
    }
    LogMessage(1, u"Target address is unkown : 0x%02X", module);
    return 2;
}

} // namespace dv

using dv::IsoLinkState;

extern "C" {

DV_API uint32_t DV_CALL DvIsoStartCommunication(const DvChar *port, uint32_t mode, uint32_t address,
                                                uint32_t *keepAlive) {
    dv::StartSession();
    const auto *name = reinterpret_cast<const char16_t *>(port);
    const auto target = static_cast<uint8_t>(address);
    const uint32_t result =
        mode == 0 ? dv::IsoConnectSlow(name, target) : dv::IsoConnectFast(name, target);
    if (result != 0) {
        return result;
    }
    dv::IsoLink &link = IsoLinkState();
    link.connectMode = mode;
    link.initAddress = target;
    link.targetAddress = target;
    link.sessionMode = 0;
    return dv::FinishStart(keepAlive);
}

DV_API uint32_t DV_CALL DvVagIsoStartCommunication(const DvChar *port, uint32_t mode,
                                                   uint32_t module, uint32_t *keepAlive) {
    dv::StartSession();
    uint8_t target = 0;
    uint32_t result = dv::IsoMapTargetAddress(module, &target);
    if (result != 0) {
        return result;
    }
    const auto *name = reinterpret_cast<const char16_t *>(port);
    const auto init = static_cast<uint8_t>(module);
    result = mode == 0 ? dv::IsoConnectSlow(name, init) : dv::IsoConnectFast(name, target);
    if (result != 0) {
        return result;
    }
    dv::IsoLink &link = IsoLinkState();
    link.connectMode = mode;
    link.initAddress = init;
    link.targetAddress = target;
    if (module == dv::kIsoSimulatorModule) {
        dv::VagIsoResetSimulator();
    }
    return dv::FinishStart(keepAlive);
}

DV_API void DV_CALL DvIsoStopCommunication(void) {
    dv::IsoLink &link = IsoLinkState();
    dv::LogMessage(2, u"\r\nDisconnecting from ECU\r\n");
    if (link.targetAddress == dv::kIsoSimulatedTarget) {
        dv::SleepMs(100);
    } else {
        if (link.connected == 1) {
            dv::SendStopCommunication();
        }
        dv::PortClose();
    }
    link.stopTick = dv::TickCount();
    dv::LogMessage(2, u"\r\nDisconnected\r\n");
    const uint32_t percent =
        link.servicesRequested != 0 ? link.repeats * 100 / link.servicesRequested : 0;
    dv::LogMessage(2,
                   u"\r\nConnection duration - %u sec\r\nServices requested - %u, repeats - %u "
                   u"(%u %%)\r\nRestarts - %u\r\n",
                   (link.stopTick - link.startTick) / 1000, link.servicesRequested, link.repeats,
                   percent, link.restarts);
    link.connected = 0;
}

} // extern "C"
