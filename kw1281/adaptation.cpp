// Part 4.7: reading, testing and storing adaptation channels, and clearing all adaptations.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "kw1281/kw1281.h"
#include "kw1281/measurements.h"

namespace dv {
namespace {

constexpr uint8_t kTitleRead = 0x21;
constexpr uint8_t kTitleTest = 0x22;
constexpr uint8_t kTitleSave = 0x2A;
constexpr uint8_t kTitleAdaptation = 0xE6;
constexpr uint8_t kTitleValues = 0xE7;
constexpr uint8_t kTitleCurveValues = 0xF4;

constexpr uint32_t kSimulatorValuesMs = 200;
constexpr uint32_t kSimulatorShortMs = 100;
constexpr uint16_t kSimulatorMin = 88;
constexpr uint16_t kSimulatorMax = 168;
constexpr uint16_t kSimulatorStart = 128;

// ---- the adaptation answer --------------------------------------------------------------------

// Raw values (inner title 0xF4): kind 0xFF with all four bytes of the record's first word set.
uint32_t RawValuesToHost(uint32_t length, const uint8_t *data, uint32_t *count,
                         MeasuringValue **values) {
    bool allocated = false;
    if (const uint32_t code = KwPrepareValues(length, count, values, true, &allocated); code != 0) {
        return code;
    }
    for (uint32_t i = 0; i < length; ++i) {
        MeasuringValue &record = (*values)[i];
        std::memset(&record, 0xFF, offsetof(MeasuringValue, value));
        record.value = data[i];
        record.text = nullptr;
    }
    return 0;
}

// The reader shared by the three channel operations. Bytes the block lacks count as 0.
uint32_t ReadAdaptationAnswer(uint8_t channel, uint16_t *value, uint32_t *count,
                              MeasuringValue **values) {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    if (title != kTitleAdaptation) {
        return KwBadBlockType(title, kTitleAdaptation);
    }
    const uint8_t *data = KwBlockData();
    const uint32_t length = KwBlockDataCount();
    auto at = [&](uint32_t i) -> uint32_t { return i < length ? data[i] : 0; };
    if (at(0) != channel) {
        LogMessage(1, u"Bad adaption channel code: '%02X' vs '%02X'\r\n", at(0), channel);
        return 7;
    }
    *value = static_cast<uint16_t>(at(1) << 8 | at(2));
    if (KwBlockLength() <= 6) {
        bool allocated = false;
        if (*values != nullptr && *count != 0) {
            LogMessage(1, u"Bad group measurement count: 0 vs %u\r\n", *count);
            return 1;
        }
        return KwPrepareValues(0, count, values, false, &allocated);
    }
    const uint8_t inner = static_cast<uint8_t>(at(3));
    const uint32_t valueLength = KwBlockLength() - 7u;
    const uint8_t *valueData = data + 4;
    if (inner == kTitleValues) {
        return KwDecodeElementsToHost(valueLength, valueData, count, values);
    }
    if (inner == kTitleCurveValues) {
        return RawValuesToHost(valueLength, valueData, count, values);
    }
    LogMessage(1, u"Bad block type id: '%02X' vs '%02X' or '%02X'\r\n", inner, kTitleValues,
               kTitleCurveValues);
    return 13;
}

// ---- the simulated ECU --------------------------------------------------------------------------

bool SimulatedLogin() {
    return KwConnection().simulator.loggedIn != 0;
}

uint16_t Clamped(uint16_t value) {
    return std::clamp(value, kSimulatorMin, kSimulatorMax);
}

// Channel 1 answers with the value and four measuring values, channel 2 with an empty array.
uint32_t SimulatedAnswer(uint8_t channel, uint16_t value, uint16_t *outValue, uint32_t *count,
                         MeasuringValue **values) {
    const uint32_t needed = channel == 1 ? kKwSimulatedValueCount : 0;
    bool allocated = false;
    if (const uint32_t code = KwPrepareValues(needed, count, values, false, &allocated);
        code != 0) {
        return code;
    }
    if (channel == 1) {
        KwSimulatedValues(value, false, *values);
    }
    *outValue = value;
    return 0;
}

// The delay of a simulated channel operation: channel 1 answers with values after 200 ms, the
// rest (channel 2, refusals) after 100 ms.
uint32_t SimulatorDelay(uint8_t channel, bool accepted) {
    return accepted && channel == 1 ? kSimulatorValuesMs : kSimulatorShortMs;
}

bool KnownChannel(uint8_t channel) {
    return channel == 1 || channel == 2;
}

uint16_t &SimulatedChannelValue(uint8_t channel) {
    return KwConnection().simulator.adaptation[channel - 1];
}

void PutWorkshopCode(uint8_t *bytes, uint32_t workshopCode) {
    bytes[0] = static_cast<uint8_t>(workshopCode >> 16);
    bytes[1] = static_cast<uint8_t>(workshopCode >> 8);
    bytes[2] = static_cast<uint8_t>(workshopCode);
}

uint32_t ReadClearAnswer() {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    if (title != kKwTitleAcknowledge && title != kTitleAdaptation) {
        return KwBadBlockType(title, kKwTitleAcknowledge);
    }
    return 0;
}

} // namespace
} // namespace dv

extern "C" {

DV_API uint32_t DV_CALL DvVagGetGroupAdaption(uint8_t channel, uint16_t *value, uint32_t *count,
                                              MeasuringValue **values) {
    using namespace dv;
    const uint8_t request[] = {kTitleRead, channel};
    const bool known = KnownChannel(channel);
    return KwRunService(
        SimulatorDelay(channel, known),
        [&]() -> uint32_t {
            if (!known) {
                return 256;
            }
            return SimulatedAnswer(channel, SimulatedChannelValue(channel), value, count, values);
        },
        request, [&]() { return ReadAdaptationAnswer(channel, value, count, values); });
}

DV_API uint32_t DV_CALL DvVagTestGroupAdaption(uint8_t channel, uint16_t value, uint16_t *outValue,
                                               uint32_t *count, MeasuringValue **values) {
    using namespace dv;
    const uint8_t request[] = {kTitleTest, channel, static_cast<uint8_t>(value >> 8),
                               static_cast<uint8_t>(value)};
    const bool accepted = KwIsSimulator() && SimulatedLogin() && KnownChannel(channel);
    return KwRunService(
        SimulatorDelay(channel, accepted),
        [&]() -> uint32_t {
            if (!accepted) {
                return 256;
            }
            const uint16_t tried = channel == 1 ? Clamped(value) : value;
            return SimulatedAnswer(channel, tried, outValue, count, values);
        },
        request, [&]() { return ReadAdaptationAnswer(channel, outValue, count, values); });
}

DV_API uint32_t DV_CALL DvVagSaveGroupAdaption(uint32_t workshopCode, uint8_t channel,
                                               uint16_t value, uint16_t *outValue, uint32_t *count,
                                               MeasuringValue **values) {
    using namespace dv;
    uint8_t request[7] = {kTitleSave, channel, static_cast<uint8_t>(value >> 8),
                          static_cast<uint8_t>(value)};
    PutWorkshopCode(request + 4, workshopCode);
    const bool accepted = KwIsSimulator() && SimulatedLogin() && KnownChannel(channel);
    return KwRunService(
        SimulatorDelay(channel, accepted),
        [&]() -> uint32_t {
            if (!accepted) {
                return 256;
            }
            uint16_t &stored = SimulatedChannelValue(channel);
            stored = channel == 1 ? Clamped(value) : value;
            return SimulatedAnswer(channel, stored, outValue, count, values);
        },
        request, [&]() { return ReadAdaptationAnswer(channel, outValue, count, values); });
}

DV_API uint32_t DV_CALL DvVagClearAdaptions(uint32_t workshopCode) {
    using namespace dv;
    uint8_t request[7] = {kTitleSave, 0, 0, 0};
    PutWorkshopCode(request + 4, workshopCode);
    return KwRunService(
        kSimulatorShortMs,
        [&]() -> uint32_t {
            if (!SimulatedLogin()) {
                return 256;
            }
            KwConnection().simulator.adaptation[0] = kSimulatorStart;
            KwConnection().simulator.adaptation[1] = kSimulatorStart;
            return 0;
        },
        request, []() { return ReadClearAnswer(); });
}

} // extern "C"
