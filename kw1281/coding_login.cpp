// Part 4.3: login and coding.
#include <cstdio>

#include "kw1281/kw1281.h"

namespace dv {
namespace {

constexpr uint32_t kSimulatorLoginMs = 100;
constexpr uint32_t kSimulatorCodingMs = 1000;
constexpr uint16_t kSimulatorLoginCode = 24680;
constexpr uint32_t kSimulatorTextSize = 10; // wide characters, the terminator included

// "$SC:%05i" into 10 wide characters: longer texts are cut to 9 and the terminator.
void FormatSimulatorText(char16_t (&text)[kSimulatorTextSize], const char *format, uint32_t value) {
    char narrow[kSimulatorTextSize];
    std::snprintf(narrow, sizeof narrow, format, static_cast<int>(value));
    uint32_t i = 0;
    for (; narrow[i] != 0; ++i) {
        text[i] = static_cast<unsigned char>(narrow[i]);
    }
    text[i] = 0;
}

uint32_t ReceiveLoginAnswer(uint16_t loginCode, uint32_t workshopCode) {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    KwEmptyBuffer();
    if (title != kKwTitleAcknowledge) {
        return KwBadBlockType(title, kKwTitleAcknowledge);
    }
    KwConnectionData &connection = KwConnection();
    connection.workshopCode = workshopCode;
    connection.loginCode = loginCode;
    connection.loggedIn = 1;
    return 0;
}

} // namespace
} // namespace dv

using namespace dv;

extern "C" {

DV_API uint32_t DV_CALL DvVagLogin(uint32_t workshopCode, uint32_t loginCode) {
    const auto login = static_cast<uint16_t>(loginCode);
    const uint8_t request[] = {kKwTitleLogin,
                               static_cast<uint8_t>(login >> 8),
                               static_cast<uint8_t>(login),
                               static_cast<uint8_t>(workshopCode >> 16),
                               static_cast<uint8_t>(workshopCode >> 8),
                               static_cast<uint8_t>(workshopCode)};
    return KwRunService(
        kSimulatorLoginMs,
        [&]() -> uint32_t {
            if (login != kSimulatorLoginCode) {
                return 256;
            }
            KwConnection().simulator.loggedIn = 1;
            return 0;
        },
        request, [&]() { return ReceiveLoginAnswer(login, workshopCode); });
}

DV_API uint32_t DV_CALL DvVagSetCoding(uint32_t workshopCode, uint32_t coding,
                                       DvChar ***descriptions) {
    if (KwIsSimulator()) {
        KwSimulatorValues &sim = KwConnection().simulator;
        FormatSimulatorText(sim.codingText, "$SC:%05i", coding);
        FormatSimulatorText(sim.workshopText, "$WC:%05i", workshopCode);
    }
    if (KwConnection().shortCoding != 0) {
        const uint8_t request[] = {
            kKwTitleSetCoding,
            static_cast<uint8_t>(coding << 1 | (workshopCode >> 16 & 1)),
            static_cast<uint8_t>(workshopCode >> 8),
            static_cast<uint8_t>(workshopCode),
        };
        return KwIdentificationService(kSimulatorCodingMs, request, descriptions);
    }
    const uint32_t value = coding << 17 | (workshopCode & 0x1FFFF);
    const uint8_t request[] = {
        kKwTitleSetCoding,
        static_cast<uint8_t>(value >> 24),
        static_cast<uint8_t>(value >> 16),
        static_cast<uint8_t>(value >> 8),
        static_cast<uint8_t>(value),
    };
    return KwIdentificationService(kSimulatorCodingMs, request, descriptions);
}

} // extern "C"
