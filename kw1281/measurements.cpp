// Part 4.6: measuring groups and basic settings, the raw group-less reading, channel readings and
// the acknowledge that ends a series of readings; the measurement curve table (Part 4.5) is
// filled here from header answers.
#include "kw1281/measurements.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "kw1281/kw1281.h"
#include "kw1281/measuring_values.h"

namespace dv {
namespace {

constexpr uint8_t kTitleHeader = 0x02;
constexpr uint8_t kTitleValues = 0xE7;
constexpr uint8_t kTitleCurveValues = 0xF4;
constexpr uint8_t kTitleChannelValue = 0xFB;
constexpr uint8_t kTitleReadChannel = 0x08;
constexpr uint8_t kTitleGroup = 0x29;
constexpr uint8_t kTitleBasicSettingGroup = 0x28;
constexpr uint8_t kTitleGrouplessReading = 0x12;
constexpr uint8_t kTitleGrouplessBasicSetting = 0x11;

constexpr uint32_t kNoMemory = 5;
constexpr uint8_t kRawKind = 0xFF;
constexpr double kPi = 3.14159265358979323846;

constexpr uint32_t kSimulatorGroupMs = 200;
constexpr uint32_t kSimulatorRefusalMs = 100;
constexpr uint32_t kSimulatorChannelMs = 100;
constexpr uint8_t kSimulatorGroup0[] = {19, 15, 0, 85, 19, 252, 254, 5, 174, 2}; // [2] = V / 4
constexpr uint8_t kSimulatorZones[] = {19, 12, 0, 85, 19, 252, 254, 5, 174, 2};  // [2] = V / 4

uint32_t SimulatedV() {
    return KwConnection().simulator.adaptation[0];
}

// A mode other than 0 or 1: the exchange section is begun and ended, and the result is 1.
uint32_t BadMode() {
    if (const uint32_t code = ExchangeBegin(); code != 0) {
        return code;
    }
    ExchangeEnd();
    return 1;
}

void *AllocateArray(size_t bytes) {
    return std::malloc(bytes != 0 ? bytes : 1);
}

// ---- the measurement curve table from a header answer (title 0x02) ------------------------------

// Reads the entries formula, factor, n, n bytes; n = 1 or an entry running past the end (its
// three leading bytes included) is refused with 7 and the old table kept.
uint32_t ReadCurveHeader(const uint8_t *data, uint32_t length) {
    MeasurementCurve *entries = nullptr;
    uint32_t count = 0;
    for (uint32_t position = 0; position < length;) {
        const uint32_t n = position + 2 < length ? data[position + 2] : 0;
        if (n == 1 || position + 3 + n > length) {
            LogMessage(1, u"Bad Digifant measurement curve count: '%02X'\r\n", n);
            FreeMeasurementCurves(entries, count);
            return 7;
        }
        auto *grown = static_cast<MeasurementCurve *>(
            std::realloc(entries, (count + 1) * sizeof(MeasurementCurve)));
        uint8_t *copy = n != 0 ? static_cast<uint8_t *>(std::malloc(n)) : nullptr;
        if (grown == nullptr || (n != 0 && copy == nullptr)) {
            std::free(copy);
            FreeMeasurementCurves(grown != nullptr ? grown : entries, count);
            return kNoMemory;
        }
        entries = grown;
        if (copy != nullptr) {
            std::memcpy(copy, data + position + 3, n);
        }
        entries[count++] = {data[position], data[position + 1], static_cast<uint8_t>(n), copy};
        position += 3 + n;
    }
    SetMeasurementCurveTable(entries, count);
    return 0;
}

// Curve-coded values (title 0xF4) into the host's array: one byte a value.
uint32_t DecodeCurvesToHost(uint32_t length, const uint8_t *data, uint32_t *count,
                            MeasuringValue **values) {
    bool allocated = false;
    if (const uint32_t code = KwPrepareValues(length, count, values, true, &allocated); code != 0) {
        return code;
    }
    if (DecodeCurveValues(length, *values, data) != 0) {
        if (allocated) {
            std::free(*values);
            *values = nullptr;
        }
        return 1;
    }
    return 0;
}

// The answer to a group reading. A header answer is taken only when `headerAllowed` (the first
// request); it fills the table and sets *header so that the request is sent again.
uint32_t ReadGroupAnswer(bool headerAllowed, bool *header, uint32_t *count,
                         MeasuringValue **values) {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    const uint8_t *data = KwBlockData();
    const uint32_t length = KwBlockDataCount();
    if (title == kTitleHeader && headerAllowed) {
        const uint32_t code = ReadCurveHeader(data, length);
        *header = code == 0;
        return code;
    }
    if (title == kTitleValues) {
        return KwDecodeElementsToHost(length, data, count, values);
    }
    if (title == kTitleCurveValues) {
        return DecodeCurvesToHost(length, data, count, values);
    }
    LogMessage(1, u"Bad block type id: '%02X' vs '%02X' or '%02X'\r\n", title, kTitleCurveValues,
               kTitleValues);
    return 13;
}

// ---- the simulated ECU
// ------------------------------------------------------------------------------

uint32_t SimulateGroup(uint32_t mode, uint8_t group, uint32_t *count, MeasuringValue **values) {
    if (group > 1) {
        KwSimulatorDelay(kSimulatorRefusalMs);
        return 256;
    }
    KwSimulatorDelay(kSimulatorGroupMs);
    const uint32_t needed = group == 0 ? sizeof kSimulatorGroup0 : kKwSimulatedValueCount;
    bool allocated = false;
    if (const uint32_t code = KwPrepareValues(needed, count, values, false, &allocated);
        code != 0) {
        return code;
    }
    if (group == 1) {
        KwSimulatedValues(SimulatedV(), mode == 1, *values);
        return 0;
    }
    for (uint32_t i = 0; i < needed; ++i) {
        const uint32_t value = i == 2 ? SimulatedV() / 4 : kSimulatorGroup0[i];
        (*values)[i] = {kRawKind, static_cast<int32_t>(value), nullptr};
    }
    return 0;
}

uint32_t SimulateZones(uint32_t *count, uint8_t **bytes) {
    constexpr uint32_t needed = sizeof kSimulatorZones;
    if (*bytes == nullptr) {
        *bytes = static_cast<uint8_t *>(AllocateArray(needed));
        if (*bytes == nullptr) {
            return kNoMemory;
        }
        *count = needed;
    } else if (*count != needed) {
        return 1;
    }
    std::memcpy(*bytes, kSimulatorZones, needed);
    (*bytes)[2] = static_cast<uint8_t>(SimulatedV() / 4);
    return 0;
}

uint32_t SimulateChannel(uint8_t channel, uint16_t *value) {
    if (channel != 0) {
        return 256;
    }
    *value = static_cast<uint16_t>(SimulatedV() * 800 / 128);
    return 0;
}

// ---- the raw reading and the channel reading
// -------------------------------------------------------

uint32_t ReadZonesAnswer(uint32_t *count, uint8_t **bytes) {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    if (title != kTitleCurveValues) {
        return KwBadBlockType(title, kTitleCurveValues);
    }
    const uint32_t length = KwBlockDataCount();
    if (*bytes == nullptr) {
        *bytes = static_cast<uint8_t *>(AllocateArray(length));
        if (*bytes == nullptr) {
            return kNoMemory;
        }
        *count = length;
    } else if (*count != length) {
        LogMessage(1, u"Bad zone count: %u vs %u\r\n", length, *count);
        return 1;
    }
    if (length != 0) {
        std::memcpy(*bytes, KwBlockData(), length);
    }
    return 0;
}

// The value is the first two data bytes, high byte first; a byte the block lacks counts as 0.
uint32_t ReadChannelAnswer(uint16_t *value) {
    if (const uint32_t code = KwReceiveAnswer(); code != 0) {
        return code;
    }
    const uint8_t title = KwBlockTitle();
    if (title != kTitleChannelValue) {
        return KwBadBlockType(title, kTitleChannelValue);
    }
    const uint32_t length = KwBlockDataCount();
    const uint8_t *data = KwBlockData();
    const uint32_t high = length > 0 ? data[0] : 0;
    const uint32_t low = length > 1 ? data[1] : 0;
    *value = static_cast<uint16_t>(high << 8 | low);
    return 0;
}

// ---- closing ------------------------------------------------------------------------------------

// The acknowledge and its answer; a lost link is reestablished once and then counts as closed.
uint32_t CloseExchange() {
    uint32_t code = KwAcknowledge();
    bool lost = code == 8 || code == 11;
    if (code == 0) {
        code = KwReceiveAnswer();
        if (code == 0 && KwBlockTitle() != kKwTitleAcknowledge) {
            code = KwBadBlockType(KwBlockTitle(), kKwTitleAcknowledge);
        }
        lost = code == 8;
    }
    if (!lost) {
        return code;
    }
    LogMessage(1, u"\r\nReestablishing connection\r\n");
    code = KwReestablish();
    if (code == 0) {
        KwConnection().state = KwLinkState::Connected;
    }
    return code;
}

} // namespace

uint32_t KwPrepareValues(uint32_t needed, uint32_t *count, MeasuringValue **values,
                         bool logMismatch, bool *allocated) {
    *allocated = false;
    if (*values == nullptr) {
        auto *array = static_cast<MeasuringValue *>(AllocateArray(needed * sizeof(MeasuringValue)));
        if (array == nullptr) {
            return kNoMemory;
        }
        *values = array;
        *count = needed;
        *allocated = true;
        return 0;
    }
    if (*count != needed) {
        if (logMismatch) {
            LogMessage(1, u"Bad group measurement count: %u vs %u\r\n", needed, *count);
        }
        return 1;
    }
    return 0;
}

uint32_t KwDecodeElementsToHost(uint32_t length, const uint8_t *data, uint32_t *count,
                                MeasuringValue **values) {
    uint32_t needed = 0;
    CountMeasuringValues(length, data, &needed);
    bool allocated = false;
    if (const uint32_t code = KwPrepareValues(needed, count, values, true, &allocated); code != 0) {
        return code;
    }
    if (DecodeMeasuringValues(needed, *values, length, data) != 0) {
        if (allocated) {
            std::free(*values);
            *values = nullptr;
        }
        return 1;
    }
    return 0;
}

void KwSimulatedValues(uint32_t v, bool basicSetting, MeasuringValue *records) {
    const double t = static_cast<double>(TickCount());
    const int32_t swing = static_cast<int32_t>(std::trunc(100 * std::sin(t * kPi / 2000)));
    records[0] = {1, static_cast<int32_t>(v * 8000 / 128), nullptr};
    records[1] = {5, 920, nullptr};
    records[2] = {11, basicSetting ? 1000 : 1000 + swing, nullptr};
    records[3] = {16, basicSetting ? 23362 : 23360, nullptr};
}

void KwClearGroupList() {
    FreeMeasurementCurveTable();
}

void KwFreeGroupList() {
    FreeMeasurementCurveTable();
}

} // namespace dv

extern "C" {

DV_API uint32_t DV_CALL DvVagGetGroupMeasurements(uint32_t mode, uint8_t group, uint32_t *count,
                                                  MeasuringValue **values) {
    using namespace dv;
    if (mode > 1) {
        return KwIsSimulator() ? 1 : BadMode();
    }
    if (KwIsSimulator()) {
        return SimulateGroup(mode, group, count, values);
    }
    uint8_t request[2];
    size_t size = 1;
    if (group == 0) {
        request[0] = mode == 0 ? kTitleGrouplessReading : kTitleGrouplessBasicSetting;
    } else {
        request[0] = mode == 0 ? kTitleGroup : kTitleBasicSettingGroup;
        request[1] = group;
        size = 2;
    }
    const std::span<const uint8_t> block(request, size);
    bool header = false;
    uint32_t code =
        KwRunExchange(block, [&]() { return ReadGroupAnswer(true, &header, count, values); });
    if (code == 0 && header) {
        code =
            KwRunExchange(block, [&]() { return ReadGroupAnswer(false, &header, count, values); });
    }
    return code;
}

DV_API uint32_t DV_CALL DvVagCloseGroupMeasurements(void) {
    using namespace dv;
    if (KwIsSimulator()) {
        return 0;
    }
    FreeMeasurementCurveTable();
    if (const uint32_t code = ExchangeBegin(); code != 0) {
        return code;
    }
    const uint32_t code = CloseExchange();
    KwEmptyBuffer();
    if (code == 8) {
        KwConnection().state = KwLinkState::Broken;
    }
    ExchangeEnd();
    return code;
}

DV_API uint32_t DV_CALL DvVagGetMeasurements(uint32_t mode, uint32_t *count, uint8_t **bytes) {
    using namespace dv;
    if (mode > 1) {
        return KwIsSimulator() ? 1 : BadMode();
    }
    const uint8_t request[] = {mode == 0 ? kTitleGrouplessReading : kTitleGrouplessBasicSetting};
    return KwRunService(
        kSimulatorGroupMs, [&]() { return SimulateZones(count, bytes); }, request,
        [&]() { return ReadZonesAnswer(count, bytes); });
}

DV_API uint32_t DV_CALL DvVagGetMeasurement(uint8_t channel, uint16_t *value) {
    using namespace dv;
    const uint8_t request[] = {kTitleReadChannel, channel};
    return KwRunService(
        kSimulatorChannelMs, [&]() { return SimulateChannel(channel, value); }, request,
        [&]() { return ReadChannelAnswer(value); });
}

} // extern "C"
