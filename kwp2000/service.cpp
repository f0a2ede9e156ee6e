// The service pattern of the KWP2000 services (Part 5.3).
#include "kwp2000/service.h"

#include <cstring>

#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "platform/platform.h"

namespace dv {

namespace {

constexpr uint8_t kNegativeAnswer = 0x7F;
constexpr uint32_t kNoEcuData = 8;
constexpr uint32_t kBadEcuMessage = 12;
constexpr uint32_t kBadServiceId = 13;
constexpr uint32_t kLinkLost = 2;

// One exchange of the request built in the request buffer; the request buffer is free again
// afterwards, the response buffer is held by `answer` when the exchange was answered.
uint32_t ExchangeOnce(std::initializer_list<uint8_t> request, IsoAnswer &answer) {
    const auto length = static_cast<uint32_t>(request.size());
    uint8_t *buffer = IsoAcquireRequestBuffer(length);
    std::memcpy(buffer, request.begin(), length);
    uint32_t answerLength = 0;
    uint8_t *answerData = nullptr;
    const uint32_t result = IsoExchange(length, buffer, &answerLength, &answerData);
    IsoReleaseRequestBuffer();
    if (result == 0) {
        answer.Hold(answerData, answerLength);
    }
    return result;
}

uint32_t CheckServiceId(const IsoAnswer &answer, uint8_t serviceId) {
    if (answer.At(0) == kNegativeAnswer) {
        return 0x100 + answer.At(2);
    }
    const uint8_t expected = static_cast<uint8_t>(serviceId + 0x40);
    if (answer.At(0) != expected) {
        LogMessage(1, u"Bad service id : '%02X' vs '%02X'\r\n", answer.At(0), expected);
        return kBadServiceId;
    }
    return 0;
}

} // namespace

IsoAnswer::~IsoAnswer() {
    if (held_) {
        IsoReleaseResponseBuffer();
    }
}

void IsoAnswer::Hold(const uint8_t *data, uint32_t length) {
    data_ = data;
    length_ = data != nullptr ? length : 0;
    held_ = true;
}

uint32_t IsoServiceRequest(std::initializer_list<uint8_t> request, IsoAnswer &answer,
                           IsoRetry retry) {
    IsoLink &link = IsoLinkState();
    uint32_t result = 0;
    for (int attempt = 1;; ++attempt) {
        result = ExchangeOnce(request, answer);
        if (result == 0) {
            link.connected = 1;
            return CheckServiceId(answer, *request.begin());
        }
        if ((result != kNoEcuData && result != kBadEcuMessage) || attempt == 2) {
            break;
        }
        LogMessage(1, u"\r\nRestarting communication\r\n");
        result = IsoRestartCommunication();
        if (result != 0) {
            break;
        }
        if (retry == IsoRetry::RestartOnly) {
            link.connected = 1;
            return 0;
        }
    }
    if (result == kNoEcuData) {
        link.connected = kLinkLost;
    }
    return result;
}

bool IsoCheckEchoByte(const IsoAnswer &answer, uint32_t index, uint8_t expected,
                      const char16_t *format) {
    if (answer.Has(index) && answer.At(index) == expected) {
        return true;
    }
    LogMessage(1, format, answer.At(index), expected);
    return false;
}

DvChar *IsoConvertText(const uint8_t *bytes, uint32_t count) {
    auto *text = static_cast<char16_t *>(std::malloc((count + 1) * sizeof(char16_t)));
    const Platform &platform = PlatformGet();
    const int converted =
        platform.ansiToWide(reinterpret_cast<const char *>(bytes), static_cast<int>(count), text,
                            static_cast<int>(count));
    if (converted == 0) {
        LogMessage(1, u"Could not convert to Unicode (0x%08X)\r\n", platform.lastError());
        std::free(text);
        return nullptr;
    }
    text[converted] = u'\0';
    return reinterpret_cast<DvChar *>(text);
}

} // namespace dv
