// Part 3.2: the KW1281 block layer: one block sent with resending, one block received with
// resetting and resynchronisation, and the statistics report.
#include "kw1281/kw1281.h"
#include "serial/serial.h"

namespace dv {
namespace {

constexpr uint32_t kReceiveAttempts = 16;
constexpr uint8_t kSyncByte = 0x55;

uint32_t SetByteTimeouts() {
    return PortSetTimeouts(0, KwSettingsInForce().byteTimeout, kNoLimit);
}

uint32_t SetBlockTimeout() {
    return PortSetTimeouts(KwSettingsInForce().blockTimeout, 0, kNoLimit);
}

// Step 4a: `counter` is the counter of a block whose length byte was lost; its length is the
// one remembered from the earlier attempt.
uint32_t ReceiveResynchronised(uint8_t length, uint8_t counter) {
    if (!KwGrowBuffer(length)) {
        return kKwNoMemory;
    }
    uint8_t *block = KwBuffer().bytes;
    block[0] = length;
    block[1] = counter;
    if (const uint32_t code = SetByteTimeouts(); code != 0) {
        return code;
    }
    return KwReceiveByteSendComplement(length - 2u, block + 2);
}

// Step 4b: a length byte that cannot start a block. The ECU's next byte is taken (and
// complemented) before the block is given up.
uint32_t ReceiveBadLength(uint8_t length) {
    if (const uint32_t code = SetByteTimeouts(); code != 0) {
        return code;
    }
    uint8_t next = 0;
    if (const uint32_t code = KwReceiveByteSendComplement(1, &next); code != 0) {
        return code;
    }
    LogMessage(1, u"Bad block size: '%02X'\r\n", length);
    return 7;
}

// Step 4c.
uint32_t ReceiveNormal(uint8_t length) {
    if (!KwGrowBuffer(length)) {
        return kKwNoMemory;
    }
    uint8_t *block = KwBuffer().bytes;
    block[0] = length;
    if (const uint32_t code = SetByteTimeouts(); code != 0) {
        return code;
    }
    return KwReceiveByteSendComplement(length - 1u, block + 1);
}

// Step 5: the end byte is not complemented.
uint32_t ReceiveEndByte(uint8_t *end) {
    uint32_t got = 0;
    if (const uint32_t code = LineRead(3, 1, end, &got); code != 0) {
        return code;
    }
    if (got == 0) {
        LogMessage(1, u"No ECU data: %u vs %u\r\n", 0u, 1u);
        return 8;
    }
    return 0;
}

// Steps 3-5 of one attempt; `remembered` is the length of an earlier attempt (0 for none).
uint32_t ReceiveAttempt(uint8_t &remembered, uint8_t *end, bool *firstByteFailed) {
    uint8_t first = 0;
    if (const uint32_t code = KwReceiveByteSendComplement(1, &first); code != 0) {
        *firstByteFailed = true;
        return code;
    }
    const uint8_t expected = static_cast<uint8_t>(KwCounter() + 1);
    uint32_t code = 0;
    if (remembered != 0 && remembered != expected && first == expected) {
        code = ReceiveResynchronised(remembered, first);
    } else if (first < 3 || first == kSyncByte) {
        return ReceiveBadLength(first);
    } else {
        remembered = first;
        code = ReceiveNormal(first);
    }
    if (code == 0) {
        code = ReceiveEndByte(end);
    }
    if (code != 0) {
        KwEmptyBuffer();
    }
    return code;
}

} // namespace

uint32_t KwSendBlock() {
    if (LogLevel() >= 3) {
        LogMessage(3, u"\r\n---- ECU <<< Dravelin ----\r\n\r\n");
    }
    const KwSettings &settings = KwSettingsInForce();
    if (const uint32_t code = SetByteTimeouts(); code != 0) {
        return code;
    }
    const uint8_t *block = KwBuffer().bytes;
    uint32_t attempts = 0;
    for (;;) {
        const uint32_t code = KwSendByteAwaitComplement(block[0], block);
        if (code == 0) {
            break;
        }
        if (code != 8 && code != 11) {
            return code;
        }
        if (++attempts >= settings.blockSendRetries) {
            return code;
        }
        LogMessage(1, u"\r\nResending block\r\n\r\n");
        if (const uint32_t silence = KwAwaitSilence(); silence != 0) {
            return silence;
        }
        if (const uint32_t timeouts = SetByteTimeouts(); timeouts != 0) {
            return timeouts;
        }
    }
    if (LogLevel() >= 4) {
        LogMessage(4, u"\r\n");
    }
    if (const uint32_t code = KwSendByte(1, &kKwEndByte); code != 0) {
        return code;
    }
    ++KwStatistics().blocksSent;
    return 0;
}

uint32_t KwReceiveBlock() {
    if (LogLevel() >= 3) {
        LogMessage(3, u"\r\n---- ECU >>> Dravelin ----\r\n\r\n");
    }
    const KwSettings &settings = KwSettingsInForce();
    if (const uint32_t code = SetBlockTimeout(); code != 0) {
        return code;
    }
    uint8_t remembered = 0;
    uint8_t end = 0;
    for (uint32_t attempts = 1;; ++attempts) {
        bool firstByteFailed = false;
        const uint32_t code = ReceiveAttempt(remembered, &end, &firstByteFailed);
        if (code == 0) {
            break;
        }
        if (firstByteFailed || code != 8 || attempts >= kReceiveAttempts) {
            return code;
        }
        LogMessage(1, u"\r\nResetting block\r\n\r\n");
        ++KwStatistics().resets;
        if (const uint32_t timeout = SetBlockTimeout(); timeout != 0) {
            return timeout;
        }
    }
    const bool slow = KwConnection().keyword == kKwSlowKeyword;
    SleepMs(slow ? 2 * settings.byteTimeout : settings.byteTimeout);
    if (end != kKwEndByte) {
        LogMessage(1, u"Bad end of block byte: '%02X' vs '%02X'\r\n", end, kKwEndByte);
        uint8_t *block = KwBuffer().bytes;
        block[0] = 3;
        block[2] = kKwTitleRefusal;
    }
    ++KwStatistics().blocksReceived;
    return 0;
}

void KwReportStatistics(uint32_t level) {
    const KwLinkStatistics &s = KwStatistics();
    const uint32_t seconds = (s.endTick - s.startTick) / 1000;
    const uint32_t breakRate = s.blocksSent != 0 ? s.breaks * 100 / s.blocksSent : 0;
    const uint32_t resetRate = s.blocksReceived != 0 ? s.resets * 100 / s.blocksReceived : 0;
    LogMessage(level,
               u"\r\nConnection duration - %u sec\r\nBlocks sent - %u, breaks - %u (%u %%)\r\n"
               u"Blocks received - %u, resets - %u (%u %%)\r\nReestablishments - %u\r\n",
               seconds, s.blocksSent, s.breaks, breakRate, s.blocksReceived, s.resets, resetRate,
               s.reestablishments);
}

} // namespace dv
