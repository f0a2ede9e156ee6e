// Part 4.4: the actuator test, one actuator a call, and the RAM, EPROM and EEPROM reads.
#include <algorithm>
#include <array>
#include <cstring>

#include "kw1281/kw1281.h"

namespace dv {
namespace {

constexpr uint32_t kSimulatorActuatorMs = 100;
constexpr uint32_t kSimulatorMemoryMs = 200;

// The simulated actuator test runs 0 -> 282 -> 1247 -> 0.
constexpr std::array<uint16_t, 3> kSimulatorActuators = {0, 282, 1247};

uint16_t NextSimulatedActuator(uint16_t step) {
    for (size_t i = 0; i < kSimulatorActuators.size(); ++i) {
        if (kSimulatorActuators[i] == step) {
            return kSimulatorActuators[(i + 1) % kSimulatorActuators.size()];
        }
    }
    return kSimulatorActuators[0];
}

uint32_t SimulateActuator(uint16_t *actuatorCode) {
    uint16_t &step = KwConnection().simulator.actuatorStep;
    step = NextSimulatedActuator(step);
    *actuatorCode = step;
    return 0;
}

uint32_t ReadActuatorAnswer(uint16_t *actuatorCode) {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    if (title == kKwTitleAcknowledge) {
        *actuatorCode = 0; // the test has ended
        return 0;
    }
    if (title != kKwTitleActuatorAnswer) {
        return KwBadBlockType(title, kKwTitleActuatorAnswer);
    }
    // A byte the block lacks counts as 0.
    const uint32_t length = KwBlockDataCount();
    const uint8_t *data = KwBlockData();
    const uint32_t high = length > 0 ? data[0] : 0;
    const uint32_t low = length > 1 ? data[1] : 0;
    *actuatorCode = static_cast<uint16_t>(high << 8 | low);
    return 0;
}

// One of the three memory reads: its request title, the answer titles taken as data (the first
// is the one named in the message) and the simulated memory (terminator included).
struct MemoryKind {
    uint8_t requestTitle;
    std::array<uint8_t, 4> dataTitles;
    uint32_t dataTitleCount;
    const char *simulatorText;
    uint32_t simulatorSize;
};

constexpr char kRamText[] = "Simulator RAM data";
constexpr char kEpromText[] = "Simulator EPROM data";
constexpr char kEepromText[] = "Simulator EEPROM data";

constexpr MemoryKind kRam = {kKwTitleReadRam, {0xFE}, 1, kRamText, sizeof kRamText};
constexpr MemoryKind kEprom = {
    kKwTitleReadRom, {0xFD, 0xEF, 0xFE}, 3, kEpromText, sizeof kEpromText};
constexpr MemoryKind kEeprom = {
    kKwTitleReadEeprom, {0xEF, 0xFD, 0xFE, 0xE6}, 4, kEepromText, sizeof kEepromText};

uint32_t SimulateMemory(const MemoryKind &kind, uint32_t address, uint32_t count,
                        uint8_t *countRead, uint8_t *buffer) {
    if (address >= kind.simulatorSize) {
        return 256;
    }
    const uint32_t n = std::min(count, kind.simulatorSize - address);
    std::memcpy(buffer, kind.simulatorText + address, n);
    *countRead = static_cast<uint8_t>(n);
    return 0;
}

uint32_t ReadMemoryAnswer(const MemoryKind &kind, uint32_t count, uint8_t *countRead,
                          uint8_t *buffer) {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    const auto titles = std::span(kind.dataTitles).first(kind.dataTitleCount);
    if (std::find(titles.begin(), titles.end(), title) == titles.end()) {
        return KwBadBlockType(title, kind.dataTitles[0]);
    }
    const uint32_t length = (KwBlockLength() - 3u) % 256u;
    const uint32_t n = std::min(length, count);
    if (n != 0) {
        std::memcpy(buffer, KwBlockData(), n);
    }
    *countRead = static_cast<uint8_t>(n);
    return 0;
}

uint32_t ReadMemory(const MemoryKind &kind, uint32_t address, uint32_t count, uint8_t *countRead,
                    uint8_t *buffer) {
    const uint8_t request[] = {kind.requestTitle, static_cast<uint8_t>(count),
                               static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)};
    return KwRunService(
        kSimulatorMemoryMs,
        [&]() { return SimulateMemory(kind, address, count, countRead, buffer); }, request,
        [&]() { return ReadMemoryAnswer(kind, count, countRead, buffer); });
}

} // namespace
} // namespace dv

extern "C" {

DV_API uint32_t DV_CALL DvVagTestActuator(uint16_t *actuatorCode) {
    using namespace dv;
    static constexpr uint8_t kRequest[] = {kKwTitleActuatorTest, 0x00};
    return KwRunService(
        kSimulatorActuatorMs, [&]() { return SimulateActuator(actuatorCode); }, kRequest,
        [&]() { return ReadActuatorAnswer(actuatorCode); });
}

DV_API uint32_t DV_CALL DvVagGetRamData(uint32_t address, uint32_t count, uint8_t *countRead,
                                        uint8_t *buffer) {
    return dv::ReadMemory(dv::kRam, address, count, countRead, buffer);
}

DV_API uint32_t DV_CALL DvVagGetEpromData(uint32_t address, uint32_t count, uint8_t *countRead,
                                          uint8_t *buffer) {
    return dv::ReadMemory(dv::kEprom, address, count, countRead, buffer);
}

DV_API uint32_t DV_CALL DvVagGetEepromData(uint32_t address, uint32_t count, uint8_t *countRead,
                                           uint8_t *buffer) {
    return dv::ReadMemory(dv::kEeprom, address, count, countRead, buffer);
}

} // extern "C"
