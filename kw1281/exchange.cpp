// Part 3.1: the KW1281 byte exchange. Every byte written comes back first as the adapter's echo
// and, where the protocol asks for it, then as the ECU's complement.
#include "kw1281/kw1281.h"
#include "serial/serial.h"

namespace dv {
namespace {

constexpr uint32_t kSilenceReadSize = 16;

// Puts each byte of a block on its own trace line.
void LogByteSeparator(uint32_t index) {
    if (index > 0 && LogLevel() >= 4) {
        LogMessage(4, u"\r\n");
    }
}

void LogBadAdapterEcho(uint8_t echo, uint8_t sent) {
    LogMessage(1, u"Bad adapter echo: '%02X' vs '%02X'\r\n", echo, sent);
}

} // namespace

uint32_t KwSendByte(uint32_t count, const uint8_t *bytes) {
    if (const uint32_t code = PortPurge(kPurgeInput | kPurgeOutput); code != 0) {
        return code;
    }
    for (uint32_t i = 0; i < count; ++i) {
        LogByteSeparator(i);
        if (const uint32_t code = LineWrite(3, 1, &bytes[i]); code != 0) {
            return code;
        }
        uint8_t echo = 0;
        uint32_t got = 0;
        if (const uint32_t code = LineRead(4, 1, &echo, &got); code != 0) {
            return code;
        }
        if (got == 0) {
            LogMessage(1, u"No adapter echo\r\n");
            return 6;
        }
        if (echo != bytes[i]) {
            LogBadAdapterEcho(echo, bytes[i]);
        }
    }
    return 0;
}

uint32_t KwSendByteAwaitComplement(uint32_t count, const uint8_t *bytes) {
    if (const uint32_t code = PortPurge(kPurgeInput | kPurgeOutput); code != 0) {
        return code;
    }
    for (uint32_t i = 0; i < count; ++i) {
        LogByteSeparator(i);
        if (const uint32_t code = LineWrite(3, 1, &bytes[i]); code != 0) {
            return code;
        }
        uint8_t answer[2] = {};
        uint32_t got = 0;
        if (const uint32_t code = LineRead(4, 2, answer, &got); code != 0) {
            return code;
        }
        if (got == 0) {
            LogMessage(1, u"No adapter echo\r\n");
            return 6;
        }
        if (answer[0] != bytes[i]) {
            LogBadAdapterEcho(answer[0], bytes[i]);
        }
        if (got < 2) {
            LogMessage(1, u"No ECU echo\r\n");
            return 8;
        }
        const uint8_t complement = static_cast<uint8_t>(bytes[i] ^ 0xFF);
        if (answer[1] != complement) {
            LogMessage(1, u"Bad ECU echo: '%02X' vs '%02X'\r\n", answer[1], complement);
            return 11;
        }
    }
    return 0;
}

uint32_t KwReceiveByteSendComplement(uint32_t count, uint8_t *buffer) {
    if (const uint32_t code = PortPurge(kPurgeOutput); code != 0) {
        return code;
    }
    for (uint32_t i = 0; i < count; ++i) {
        LogByteSeparator(i);
        uint32_t got = 0;
        if (const uint32_t code = LineRead(3, 1, &buffer[i], &got); code != 0) {
            return code;
        }
        if (got == 0) {
            LogMessage(1, u"No ECU data: %u vs 1\r\n", got);
            return 8;
        }
        const uint8_t complement = static_cast<uint8_t>(buffer[i] ^ 0xFF);
        if (const uint32_t code = LineWrite(4, 1, &complement); code != 0) {
            return code;
        }
        uint8_t echo = 0;
        if (const uint32_t code = LineRead(4, 1, &echo, &got); code != 0) {
            return code;
        }
        if (got == 0) {
            LogMessage(1, u"No adapter echo\r\n");
            return 6;
        }
        if (echo != complement) {
            LogBadAdapterEcho(echo, complement);
        }
    }
    return 0;
}

uint32_t KwAwaitSilence() {
    const KwSettings &settings = KwSettingsInForce();
    if (const uint32_t code = PortSetTimeouts(2 * settings.byteTimeout, 0, kNoLimit); code != 0) {
        return code;
    }
    if (const uint32_t code = PortPurge(kPurgeInput); code != 0) {
        return code;
    }
    for (uint32_t read = 0; read < settings.silenceReads; ++read) {
        uint8_t bytes[kSilenceReadSize];
        uint32_t got = 0;
        if (const uint32_t code = LineRead(3, kSilenceReadSize, bytes, &got); code != 0) {
            return code;
        }
        if (got == 0) {
            ++KwStatistics().breaks;
            return 0;
        }
    }
    return 11;
}

} // namespace dv
