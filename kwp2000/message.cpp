// Part 5.1: the KWP2000 message layer. Requests framed by key byte 1, answers parsed and joined,
// one exchange with its repeats and busy passes.
#include <array>
#include <cstring>

#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "serial/serial.h"

namespace dv {
namespace {

constexpr uint32_t kMaxRequestData = 0xFF;
constexpr uint32_t kMaxShortData = 0x3F;
constexpr uint32_t kMaxMessage = 4 + 255 + 1;
constexpr uint32_t kReadChunk = 520;
constexpr uint32_t kMaxMessages = 32;

uint8_t Checksum(const uint8_t *bytes, uint32_t count) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < count; ++i) {
        sum += bytes[i];
    }
    return static_cast<uint8_t>(sum);
}

// Writes the header for n data bytes; 0 header bytes when n does not fit key byte 1.
uint32_t BuildHeader(uint32_t n, uint8_t *header) {
    const IsoLink &link = IsoLinkState();
    const uint8_t kb1 = link.keyByte1;
    const bool inFormat = n <= kMaxShortData && (kb1 & kKb1LengthInFormat) != 0;
    if (n > kMaxShortData && (kb1 & kKb1AdditionalLength) == 0) {
        return 0;
    }
    uint32_t size = 0;
    // The two upper bits stay 10 without address bytes too, as the original sends them.
    header[size++] = static_cast<uint8_t>(inFormat ? 0x80 | n : 0x80);
    if ((kb1 & kKb1AddressHeader) != 0) {
        header[size++] = link.targetAddress;
        header[size++] = link.testerAddress;
    }
    if (!inFormat) {
        header[size++] = static_cast<uint8_t>(n);
    }
    return size;
}

// What parsing one message of a chunk found.
enum class Parsed { Message, Bad };

struct Reception {
    uint32_t wait = 0;
    uint32_t count = 0;
    bool allGood = true;
    uint32_t length = 0; // joined data collected so far
    bool collected = false;
};

// Stores a good message's data: the first whole, later ones without their service id.
void StoreMessage(Reception &rx, const uint8_t *data, uint32_t length) {
    if (!rx.collected) {
        uint8_t *block = IsoAcquireResponseBuffer(length);
        if (length != 0) {
            std::memcpy(block, data, length);
        }
        rx.length = length;
        rx.collected = true;
        return;
    }
    if (length <= 1) {
        return;
    }
    uint8_t *block = IsoGrowResponseBuffer(true, rx.length + length - 1);
    std::memcpy(block + rx.length, data + 1, length - 1);
    rx.length += length - 1;
}

// Checks one message at bytes[0..left) and sets its total size; logs why it is bad.
Parsed ParseMessage(const uint8_t *bytes, uint32_t left, uint32_t *size, uint32_t *header,
                    uint32_t *length) {
    const IsoLink &link = IsoLinkState();
    const uint8_t format = bytes[0];
    const uint32_t mode = format >> 6;
    if (mode == 1 || mode == 3) {
        LogMessage(1, u"Bad ECU addressing : '%02X'", mode);
        return Parsed::Bad;
    }
    uint32_t l = format & 0x3Fu;
    uint32_t h = (mode == 2 ? 3 : 1) + (l == 0 ? 1 : 0);
    if (left < h) {
        LogMessage(1, u"Bad ECU message size : '%04X' vs >= '%02X'", left, h);
        return Parsed::Bad;
    }
    if (l == 0) {
        l = bytes[h - 1];
    }
    if (mode == 2 && bytes[1] != link.testerAddress) {
        LogMessage(1, u"Bad ECU target address : '%02X' vs '%02X'", bytes[1], link.testerAddress);
        return Parsed::Bad;
    }
    if (h + l + 1 > left) {
        LogMessage(1, u"Bad ECU block size : '%02X'", l);
        return Parsed::Bad;
    }
    const uint8_t computed = Checksum(bytes, h + l);
    if (bytes[h + l] != computed) {
        LogMessage(1, u"Bad ECU message checksum : '%02X' vs '%02X'", bytes[h + l], computed);
        return Parsed::Bad;
    }
    *size = h + l + 1;
    *header = h;
    *length = l;
    return Parsed::Message;
}

// Parses one chunk read from the line as consecutive messages.
void ParseChunk(Reception &rx, const uint8_t *bytes, uint32_t got) {
    const IsoTiming &timing = IsoLinkState().timing;
    uint32_t at = 0;
    while (at < got && rx.count < kMaxMessages) {
        uint32_t size = 0;
        uint32_t header = 0;
        uint32_t length = 0;
        if (ParseMessage(bytes + at, got - at, &size, &header, &length) == Parsed::Bad) {
            rx.allGood = false;
            ++rx.count;
            rx.wait = IsoMsLess(timing.P2max, timing.P1max);
            return;
        }
        const uint8_t *data = bytes + at + header;
        if (length >= 3 && data[0] == 0x7F && data[2] == 0x78) {
            LogMessage(3, u"Extending message timeout");
            rx.wait = IsoMsLess(timing.P3max, timing.P1max);
        } else {
            StoreMessage(rx, data, length);
            ++rx.count;
            rx.wait = IsoMsLess(timing.P2max, timing.P1max);
        }
        at += size;
    }
}

// Drops the response buffer's in-use mark where data was collected.
void ReleaseCollected(const Reception &rx) {
    if (rx.collected) {
        IsoReleaseResponseBuffer();
    }
}

} // namespace

uint32_t IsoSendRequest(uint32_t length, const uint8_t *data) {
    const IsoLink &link = IsoLinkState();
    if (length > kMaxRequestData) {
        LogMessage(1, u"Bad request block size : '%08X' vs <= '%02X'", length, kMaxRequestData);
        return 3;
    }
    std::array<uint8_t, kMaxMessage> message{};
    const uint32_t header = BuildHeader(length, message.data());
    if (header == 0) {
        LogMessage(1, u"Bad request block size : '%02X' vs <= '%02X'", length, kMaxShortData);
        return 3;
    }
    if (length != 0) {
        std::memcpy(message.data() + header, data, length);
    }
    const uint32_t total = header + length + 1;
    message[total - 1] = Checksum(message.data(), total - 1);

    uint32_t result = PortPurge(kPurgeInput | kPurgeOutput);
    if (result == 0) {
        result = LineWrite(3, total, message.data());
    }
    if (result != 0) {
        return result;
    }
    DelayMs(IsoMsLess(link.timing.P4max, link.timing.TesterByteGap));
    result = PortSetTimeouts(IsoMsLess(link.timing.P2min, link.timing.P4max), 0, kNoLimit);
    std::array<uint8_t, kMaxMessage> echo{};
    uint32_t got = 0;
    if (result == 0) {
        result = LineRead(4, total, echo.data(), &got);
    }
    if (result != 0) {
        return result;
    }
    if (got < total) {
        LogMessage(1, u"No adapter echo");
        return 6;
    }
    if (std::memcmp(echo.data(), message.data(), total) != 0) {
        LogMessage(1, u"Bad adapter echo");
    }
    return 0;
}

uint32_t IsoReceiveResponse(uint32_t *length, uint8_t **data) {
    const IsoTiming &timing = IsoLinkState().timing;
    Reception rx;
    rx.wait = IsoMsLess(timing.P2max, timing.P4max);
    std::array<uint8_t, kReadChunk> chunk{};
    while (rx.count < kMaxMessages) {
        uint32_t queued = 0;
        uint32_t result = PortSetTimeouts(rx.wait, 0, kNoLimit);
        if (result == 0) {
            result = LineWaitForInput(1, &queued);
        }
        if (result == 0 && queued == 0) {
            break;
        }
        uint32_t got = 0;
        if (result == 0) {
            result = PortSetTimeouts(kNoLimit, 0, timing.P1max);
        }
        if (result == 0) {
            result = LineRead(3, kReadChunk, chunk.data(), &got);
        }
        if (result != 0) {
            ReleaseCollected(rx);
            return result;
        }
        ParseChunk(rx, chunk.data(), got);
    }
    if (rx.count == 0) {
        LogMessage(1, u"No ECU data");
        return 8;
    }
    if (!rx.allGood) {
        ReleaseCollected(rx);
        return 12;
    }
    if (rx.count >= kMaxMessages) {
        LogMessage(1, u"Too many ECU messages");
        DelayMs(rx.wait);
        ReleaseCollected(rx);
        return 7;
    }
    *length = rx.length;
    *data = IsoLinkState().response.data;
    return 0;
}

namespace {

// Sends the request and reads its answer, repeating on 8 and 12; ends the exchange section.
uint32_t ExchangePass(uint32_t length, const uint8_t *data, uint32_t *outLength,
                      uint8_t **outData) {
    IsoLink &link = IsoLinkState();
    const uint32_t attempts = IsoSettingsInForce().requestAttempts;
    LogMessage(3, u"\r\n---- ECU <-> Dravelin ----\r\n\r\n");
    uint32_t repeat = 0;
    for (;;) {
        uint32_t result = IsoSendRequest(length, data);
        if (result != 0) {
            DelayMs(link.timing.P3min);
            ExchangeEnd();
            return result;
        }
        result = IsoReceiveResponse(outLength, outData);
        if (result == 0) {
            DelayMs(IsoMsLess(link.timing.P3min, link.timing.P2max));
            ExchangeEnd();
            ++link.servicesRequested;
            return 0;
        }
        if (result != 8 && result != 12) {
            DelayMs(link.timing.P3min);
            ExchangeEnd();
            return result;
        }
        if (++repeat >= attempts) {
            DelayMs(IsoMsLess(link.timing.P3min, link.timing.P2max));
            ExchangeEnd();
            return result;
        }
        LogMessage(1, u"\r\nRepeating request\r\n\r\n");
        DelayMs(IsoMsLess(link.timing.P3min, link.timing.P2max));
        ++link.repeats;
    }
}

// The answer is 7F, any, code.
bool IsNegative(const uint8_t *data, uint32_t length, uint8_t code) {
    return IsoByteAt(data, length, 0) == 0x7F && IsoByteAt(data, length, 2) == code;
}

} // namespace

uint32_t IsoExchange(uint32_t length, const uint8_t *data, uint32_t *outLength, uint8_t **outData) {
    IsoLink &link = IsoLinkState();
    const uint32_t attempts = IsoSettingsInForce().requestAttempts;
    uint32_t result = ExchangeBegin();
    if (result != 0) {
        return result;
    }
    uint32_t busy = 0;
    for (bool firstPass = true;; firstPass = false) {
        result = ExchangePass(length, data, outLength, outData);
        if (result != 0) {
            return result;
        }
        // A routine not complete (0x23) is repeated only as the first answer, a busy (0x21) only
        // after it: the original's asymmetry, kept.
        bool again = false;
        if (firstPass) {
            if (IsNegative(*outData, *outLength, 0x23)) {
                busy = 1;
                again = attempts > 1;
            }
        } else if (IsNegative(*outData, *outLength, 0x21)) {
            ++busy;
            again = busy < attempts;
        }
        if (!again) {
            return 0;
        }
        IsoReleaseResponseBuffer();
        SleepMs(IsoMsLess(link.timing.BusyRepeatDelay, link.timing.P3min));
        result = ExchangeBegin();
        if (result != 0) {
            return result;
        }
    }
}

} // namespace dv
