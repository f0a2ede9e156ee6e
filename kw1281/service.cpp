// Part 4.1: the shape every KW1281 service export shares: simulator branch, exchange section,
// request block, answer blocks, and reestablishing the link when the ECU was lost.
#include <cstring>

#include "kw1281/kw1281.h"

namespace dv {
namespace {

bool LinkLost(uint32_t code) {
    return code == 8 || code == 11;
}

} // namespace

uint32_t KwSendRequest(std::span<const uint8_t> titleAndData) {
    const uint32_t length = static_cast<uint32_t>(titleAndData.size()) + 2;
    if (!KwGrowBuffer(length)) {
        return kKwNoMemory;
    }
    uint8_t *block = KwBuffer().bytes;
    block[0] = static_cast<uint8_t>(length);
    block[1] = KwRaiseCounter();
    std::memcpy(block + 2, titleAndData.data(), titleAndData.size());
    const uint32_t code = KwSendBlock();
    if (code != 0) {
        KwLowerCounter();
    }
    KwEmptyBuffer();
    return code;
}

uint32_t KwAcknowledge() {
    static constexpr uint8_t kAcknowledge[] = {kKwTitleAcknowledge};
    return KwSendRequest(kAcknowledge);
}

uint32_t KwReceiveNextBlock() {
    if (const uint32_t code = KwReceiveBlock(); code != 0) {
        return code;
    }
    KwNextCounter(KwBuffer().bytes[1]);
    return 0;
}

uint32_t KwReceiveAnswer() {
    if (const uint32_t code = KwReceiveNextBlock(); code != 0) {
        return code;
    }
    KwConnection().state = KwLinkState::Connected;
    return KwBlockTitle() == kKwTitleRefusal ? 256 : 0;
}

uint32_t KwBadBlockType(uint8_t received, uint8_t expected) {
    LogMessage(1, u"Bad block type id: '%02X' vs '%02X'\r\n", received, expected);
    return 13;
}

uint32_t KwRunExchange(std::span<const uint8_t> request, KwStep answer) {
    if (const uint32_t code = ExchangeBegin(); code != 0) {
        return code;
    }
    uint32_t code = 0;
    for (uint32_t attempts = 0;;) {
        code = KwSendRequest(request);
        if (code == 0) {
            code = answer();
        }
        if (!LinkLost(code) || ++attempts >= KwSettingsInForce().serviceRetries) {
            break;
        }
        LogMessage(1, u"\r\nReestablishing connection\r\n");
        code = KwReestablish();
        if (code != 0) {
            break;
        }
    }
    KwEmptyBuffer();
    if (code == 8) {
        KwConnection().state = KwLinkState::Broken;
    }
    ExchangeEnd();
    return code;
}

uint32_t KwRunService(uint32_t simulatorDelayMs, KwStep simulate, std::span<const uint8_t> request,
                      KwStep answer) {
    if (KwIsSimulator()) {
        KwSimulatorDelay(simulatorDelayMs);
        return simulate();
    }
    return KwRunExchange(request, answer);
}

} // namespace dv
