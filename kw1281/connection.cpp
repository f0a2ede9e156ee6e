// Part 3.3: the KW1281 connection: 5-baud address initialisation, connect with its retry rules,
// re-establishment after a lost link, keep-alive and disconnect.
#include "kw1281/kw1281.h"
#include "serial/serial.h"

namespace dv {
namespace {

constexpr uint32_t kAddressBitMs = 200; // 5 baud
constexpr uint8_t kSyncByte = 0x55;
constexpr uint32_t kKeywordAttempts = 16;
constexpr uint32_t kComplementGapMs = 25;
constexpr uint32_t kPortQueueSize = 256;
constexpr uint32_t kSimulatorConnectMs = 2000;
constexpr uint32_t kSimulatorIdentificationMs = 1000;
constexpr uint32_t kSimulatorIdleMs = 1000;
constexpr uint32_t kSimulatorKeepAliveMs = 100;
constexpr uint32_t kSimulatorGoodbyeMs = 50;

constexpr uint16_t kKeyword8A01 = 0x8A01;
constexpr uint16_t kKeyword0501 = 0x0501;

uint32_t RecoveryPauseMs() {
    return 3 * KwSettingsInForce().blockTimeout;
}

// Step 2: the adapter echoes the slow address frame as `echo` bytes at the fast baud rate.
uint32_t ReadAddressEcho(int32_t echo) {
    if (echo < 0) {
        return PortPurge(kPurgeInput);
    }
    if (const uint32_t code = PortSetTimeouts(0, 0, 0); code != 0) {
        return code;
    }
    // A 10-bit frame has at most 5 falling edges; the buffer bounds anything else.
    uint8_t bytes[16] = {};
    const uint32_t wanted = static_cast<uint32_t>(echo) < sizeof bytes ? echo : sizeof bytes;
    uint32_t got = 0;
    if (const uint32_t code = LineRead(4, wanted, bytes, &got); code != 0) {
        return code;
    }
    if (got < wanted) {
        LogMessage(1, u"No adapter echo\r\n");
        return 6;
    }
    return 0;
}

// Reads one byte of the initialisation: 0, 8 (none came, logged) or the port's code.
uint32_t ReadInitByte(uint8_t *byte) {
    uint32_t got = 0;
    if (const uint32_t code = LineRead(3, 1, byte, &got); code != 0) {
        return code;
    }
    if (got == 0) {
        LogMessage(1, u"No ECU data: %u vs %u\r\n", 0u, 1u);
        return 8;
    }
    return 0;
}

// Steps 6-8 after a good sync byte: 0 when the ECU's first block begins, 8 for a failed
// attempt, or another code that ends the initialisation.
uint32_t ReadKeyword(uint16_t *keyword) {
    const KwSettings &settings = KwSettingsInForce();
    if (const uint32_t code = PortSetTimeouts(settings.keywordTimeout, 0, kNoLimit); code != 0) {
        return code;
    }
    uint8_t first = 0;
    uint8_t second = 0;
    if (const uint32_t code = ReadInitByte(&first); code != 0) {
        return code;
    }
    if (const uint32_t code = ReadInitByte(&second); code != 0) {
        return code;
    }
    *keyword = static_cast<uint16_t>(second << 8 | first);
    // 0x8089 is accepted without being named, in the refusal and in the confirmation alike.
    if (*keyword == kKeyword8A01 || *keyword == kKeyword0501) {
        LogMessage(3, u"Keyword Bytes are Ok\r\n");
    } else if (*keyword != kKwSlowKeyword) {
        LogMessage(1, u"Bad Keyword Bytes: '%04X' vs '%04X' or '%04X'\r\n", *keyword, kKeyword8A01,
                   kKeyword0501);
        return 10;
    }
    DelayMs(kComplementGapMs);
    const uint8_t complement = static_cast<uint8_t>(second ^ 0xFF);
    if (const uint32_t code = KwSendByte(1, &complement); code != 0) {
        return code;
    }
    uint32_t queued = 0;
    if (const uint32_t code = LineWaitForInput(1, &queued); code != 0) {
        return code;
    }
    return queued >= 1 ? 0 : 8;
}

// Step 5.
uint32_t CheckSyncByte(uint8_t sync) {
    if (sync != kSyncByte) {
        LogMessage(1, u"Bad Baud Rate Synch Byte: '%02X' vs '%02X'\r\n", sync, kSyncByte);
        return 9;
    }
    LogMessage(3, u"Baud Rate Synch Byte is Ok\r\n");
    return 0;
}

// What DvVagConnect and KwReestablish do after a failed attempt (Part 3.3, DvVagConnect step 5).
struct RetryRule {
    bool retry;     // try again after the pause
    uint32_t pause; // ms, slept before retrying or giving up
};

RetryRule RetryRuleFor(uint32_t code) {
    const KwSettings &settings = KwSettingsInForce();
    switch (code) {
    case 9:
    case 10:
    case 11: return {true, RecoveryPauseMs()};
    case 8: return {true, RecoveryPauseMs() - settings.initTimeout};
    default: return {false, RecoveryPauseMs()};
    }
}

// Runs `attempt` up to connectRetries times with the retry rules; returns 0 or the code to give
// up with. The pause of the last failure has been slept when it returns.
uint32_t ConnectWithRetries(KwStep attempt) {
    const uint32_t attempts = KwSettingsInForce().connectRetries;
    uint32_t remembered = 8;
    for (uint32_t made = 1;; ++made) {
        const uint32_t code = attempt();
        if (code == 0) {
            return 0;
        }
        const RetryRule rule = RetryRuleFor(code);
        if (code != 8) {
            remembered = code;
        }
        SleepMs(rule.pause);
        if (!rule.retry || made >= attempts) {
            return remembered;
        }
        LogMessage(1, u"\r\nRetrying to connect to ECU\r\n\r\n");
    }
}

// The results of a connect for the host; what it gave no place for is freed.
void HandOver(DvChar **result, DvChar ***descriptions, uint32_t *interval) {
    if (descriptions != nullptr) {
        *descriptions = result;
    } else {
        KwFreeDescriptions(result);
    }
    if (interval != nullptr) {
        *interval = KwSettingsInForce().blockTimeout;
    }
}

uint32_t ConnectSimulator(uint32_t baud, DvChar ***descriptions, uint32_t *interval) {
    SleepMs(kSimulatorConnectMs);
    if (baud != kKwSimulatorBaud) {
        SleepMs(RecoveryPauseMs());
        return 9;
    }
    KwSimulatorConnect();
    SleepMs(kSimulatorIdentificationMs);
    DvChar **result = KwSimulatorDescriptions();
    if (result == nullptr) {
        return kKwNoMemory;
    }
    HandOver(result, descriptions, interval);
    KwConnectionData &connection = KwConnection();
    connection.lastSimulatedExchange = TickCount();
    connection.address = SIMULATOR_ADDRESS;
    LogMessage(2, u"\r\nConnected successfully\r\n");
    connection.state = KwLinkState::Connected;
    return 0;
}

uint32_t ConnectEcu(const char16_t *port, uint32_t baud, uint8_t address, DvChar ***descriptions,
                    uint32_t *interval) {
    if (const uint32_t code = PortOpen(port, baud, kPortQueueSize, kPortQueueSize); code != 0) {
        return code;
    }
    PortSetByteDelay(0);
    if (const uint32_t code = ExchangeBegin(); code != 0) {
        PortClose();
        return code;
    }
    if (LogLevel() >= 3) {
        LogMessage(3, u"\r\n");
    }
    DvChar **result = nullptr;
    const uint32_t code = ConnectWithRetries([&]() -> uint32_t {
        if (const uint32_t init = KwAddressInit(address); init != 0) {
            return init;
        }
        return KwReadIdentification(&result);
    });
    ExchangeEnd();
    if (code != 0) {
        PortClose();
        return code;
    }
    KwClearGroupList();
    KwConnectionData &connection = KwConnection();
    connection.loggedIn = 0;
    connection.address = address;
    LogMessage(2, u"\r\nConnected successfully\r\n");
    connection.state = KwLinkState::Connected;
    HandOver(result, descriptions, interval);
    return 0;
}

// DvVagIdle steps 3 and 4: one re-establishment after the keep-alive lost the ECU.
uint32_t IdleReestablish(uint32_t code) {
    if (code != 8 && code != 11) {
        ExchangeEnd();
        return code;
    }
    LogMessage(1, u"\r\nReestablishing connection\r\n");
    code = KwReestablish();
    if (code == 0) {
        KwConnection().state = KwLinkState::Connected;
    } else if (code == 8) {
        KwConnection().state = KwLinkState::Broken;
    }
    ExchangeEnd();
    return code;
}

uint32_t IdleSimulator() {
    KwSimulatorDelay(kSimulatorKeepAliveMs);
    return 0;
}

uint32_t IdleEcu() {
    if (const uint32_t code = ExchangeBegin(); code != 0) {
        return code;
    }
    if (const uint32_t code = KwAcknowledge(); code != 0) {
        return IdleReestablish(code);
    }
    if (const uint32_t code = KwReceiveBlock(); code != 0) {
        if (code == 8) {
            return IdleReestablish(code);
        }
        ExchangeEnd();
        return code;
    }
    KwConnection().state = KwLinkState::Connected;
    ExchangeEnd();
    KwNextCounter(KwBuffer().bytes[1]);
    const uint8_t title = KwBlockTitle();
    KwEmptyBuffer();
    if (title == kKwTitleRefusal) {
        return 256;
    }
    if (title == kKwTitleAcknowledge) {
        return 0;
    }
    return KwBadBlockType(title, kKwTitleAcknowledge);
}

void DisconnectEcu() {
    KwFreeGroupList();
    if (KwConnection().state != KwLinkState::Connected) {
        PortClose();
        return;
    }
    if (ExchangeBegin() != 0) {
        SleepMs(RecoveryPauseMs());
        PortClose();
        return;
    }
    static constexpr uint8_t kEnd[] = {kKwTitleEndCommunication};
    if (KwSendRequest(kEnd) != 0) {
        SleepMs(RecoveryPauseMs());
    }
    ExchangeEnd();
    PortClose();
}

void DisconnectSimulator() {
    KwConnectionData &connection = KwConnection();
    if (TickCount() - connection.lastSimulatedExchange <= kSimulatorIdleMs) {
        SleepMs(kSimulatorGoodbyeMs);
        connection.lastSimulatedExchange = TickCount();
    } else {
        SleepMs(RecoveryPauseMs());
    }
}

} // namespace

uint32_t KwAddressInit(uint8_t address) {
    const KwSettings &settings = KwSettingsInForce();
    if (const uint32_t code = PortPurge(kPurgeInput | kPurgeOutput); code != 0) {
        return code;
    }
    int32_t echo = -1;
    if (const uint32_t code = LineSendAddress(kAddressBitMs, address, &echo); code != 0) {
        return code;
    }
    if (const uint32_t code = ReadAddressEcho(echo); code != 0) {
        return code;
    }
    if (const uint32_t code = PortSetTimeouts(settings.initTimeout + 100, 0, kNoLimit); code != 0) {
        return code;
    }
    for (uint32_t attempts = 0;;) {
        uint8_t sync = 0;
        if (const uint32_t code = ReadInitByte(&sync); code != 0) {
            return code;
        }
        if (const uint32_t code = CheckSyncByte(sync); code != 0) {
            return code;
        }
        uint16_t keyword = 0;
        const uint32_t code = ReadKeyword(&keyword);
        if (code == 0) {
            KwSetCounter(0);
            KwConnection().keyword = keyword;
            return 0;
        }
        if (code != 8) {
            return code;
        }
        if (++attempts >= kKeywordAttempts) {
            SleepMs(settings.initTimeout);
            return 8;
        }
        LogMessage(1, u"\r\nResetting\r\n\r\n");
        ++KwStatistics().resets;
        if (const uint32_t timeout =
                PortSetTimeouts(settings.initTimeout - settings.keywordTimeout, 0, kNoLimit);
            timeout != 0) {
            return timeout;
        }
    }
}

uint32_t KwSkipIdentification() {
    for (;;) {
        uint32_t blocks = 0;
        bool more = false;
        for (;;) {
            if (const uint32_t code = KwReceiveNextBlock(); code != 0) {
                return code;
            }
            const uint8_t title = KwBlockTitle();
            if (title == kKwTitleAcknowledge) {
                KwEmptyBuffer();
                break;
            }
            if (title == kKwTitleRefusal) {
                KwEmptyBuffer();
                return 256;
            }
            if (title != kKwTitleIdentification) {
                KwEmptyBuffer();
                return KwBadBlockType(title, kKwTitleIdentification);
            }
            if (blocks == 0 && KwBlockDataCount() > 0) {
                more = (KwBlockData()[0] & 0x80) != 0;
            }
            ++blocks;
            if (const uint32_t code = KwAcknowledge(); code != 0) {
                return code;
            }
        }
        if (blocks == 0 || !more) {
            return 0;
        }
        static constexpr uint8_t kNextPass[] = {kKwTitleReadIdentification};
        if (const uint32_t code = KwSendRequest(kNextPass); code != 0) {
            return code;
        }
    }
}

uint32_t KwRelogin() {
    const KwConnectionData &connection = KwConnection();
    if (connection.loggedIn == 0) {
        return 0;
    }
    const uint8_t login[] = {kKwTitleLogin,
                             static_cast<uint8_t>(connection.loginCode >> 8),
                             static_cast<uint8_t>(connection.loginCode),
                             static_cast<uint8_t>(connection.workshopCode >> 16),
                             static_cast<uint8_t>(connection.workshopCode >> 8),
                             static_cast<uint8_t>(connection.workshopCode)};
    if (const uint32_t code = KwSendRequest(login); code != 0) {
        return code;
    }
    if (const uint32_t code = KwReceiveNextBlock(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    KwEmptyBuffer();
    if (title == kKwTitleRefusal) {
        LogMessage(1, u"Could not relogin\r\n");
        return 256;
    }
    if (title != kKwTitleAcknowledge) {
        return KwBadBlockType(title, kKwTitleAcknowledge);
    }
    return 0;
}

uint32_t KwReestablish() {
    SleepMs(RecoveryPauseMs());
    LogMessage(2, u"\r\nReconnecting to ECU\r\n");
    if (LogLevel() >= 3) {
        LogMessage(3, u"\r\n");
    }
    const uint8_t address = KwConnection().address;
    const uint32_t code = ConnectWithRetries([address]() -> uint32_t {
        if (const uint32_t init = KwAddressInit(address); init != 0) {
            return init;
        }
        if (const uint32_t skip = KwSkipIdentification(); skip != 0) {
            return skip;
        }
        return KwRelogin();
    });
    if (code != 0) {
        return code;
    }
    LogMessage(2, u"\r\nReconnected successfully\r\n");
    ++KwStatistics().reestablishments;
    return 0;
}

} // namespace dv

using namespace dv;

extern "C" {

DV_API uint32_t DV_CALL DvVagConnect(const DvChar *port, uint32_t baud, uint32_t address,
                                     DvChar ***descriptions, uint32_t *interval) {
    LogResetStartMark();
    KwLinkStatistics &statistics = KwStatistics();
    statistics.startTick = TickCount();
    statistics.blocksSent = 0;
    statistics.breaks = 0;
    statistics.blocksReceived = 0;
    statistics.resets = 0;
    statistics.reestablishments = 0;
    LogMessage(2, u"\r\nConnecting to ECU at address %02Xh at %u baud rate\r\n", address, baud);
    if (address == SIMULATOR_ADDRESS) {
        return ConnectSimulator(baud, descriptions, interval);
    }
    return ConnectEcu(reinterpret_cast<const char16_t *>(port), baud, static_cast<uint8_t>(address),
                      descriptions, interval);
}

DV_API uint32_t DV_CALL DvVagIdle(void) {
    return KwIsSimulator() ? IdleSimulator() : IdleEcu();
}

DV_API void DV_CALL DvVagDisconnect(void) {
    LogMessage(2, u"\r\nDisconnecting from ECU\r\n");
    if (KwIsSimulator()) {
        DisconnectSimulator();
    } else {
        DisconnectEcu();
    }
    KwStatistics().endTick = TickCount();
    LogMessage(2, u"\r\nDisconnected\r\n");
    KwReportStatistics(2);
    KwConnection().state = KwLinkState::NotConnected;
}

} // extern "C"
