// The formula id -> unit table of the dravelin host program. The scaled integers are those of
// the library's Part 4.5 table; the units and divisors restate the publicly documented KW1281
// measuring-value formulas (see docs/units.md for the source and the derivation).
#include "units.h"

#include <array>
#include <cstdio>
#include <cstdlib>

#include "common.h"

namespace dvtool {
namespace {

struct UnitEntry {
    uint8_t kind;
    UnitInfo info;
};

constexpr UnitEntry kUnits[] = {
    {1, {"rpm", 10, "engine speed"}},
    {2, {"%", 100, "load"}},
    {3, {"\xC2\xB0", 100, "angle"}},
    {4, {"\xC2\xB0", 100, "ignition angle (ATDC/BTDC)"}},
    {5,
     {"\xC2\xB0"
      "C",
      10, "temperature"}},
    {6, {"V", 1000, "voltage"}},
    {7, {"km/h", 100, "speed"}},
    {8, {"", 10, "value"}},
    {9, {"\xC2\xB0", 100, "angle"}},
    {10, {"", 1, "warm/cold"}},
    {11, {"", 1000, "factor"}},
    {12, {"\xCE\xA9", 1000, "resistance"}},
    {13, {"mm", 1000, "distance"}},
    {14, {"bar", 100, "pressure"}},
    {15, {"ms", 100, "time"}},
    {16, {"", 1, "bit field"}},
    {17, {"", 1, "characters"}},
    {18, {"mbar", 10, "pressure"}},
    {19, {"l", 100, "volume"}},
    {20, {"%", 100, "ratio"}},
    {21, {"V", 1000, "voltage"}},
    {22, {"ms", 1000, "time"}},
    {23, {"%", 100, "ratio"}},
    {24, {"A", 1000, "current"}},
    {25, {"g/s", 100, "air mass"}},
    {26,
     {"\xC2\xB0"
      "C",
      1, "temperature"}},
    {27, {"\xC2\xB0", 100, "angle"}},
    {28, {"", 1, "difference"}},
    {29, {"", 1, "map (Kennfeld)"}},
    {30, {"\xC2\xB0 k/w", 10, "knock retard"}},
    {31,
     {"\xC2\xB0"
      "C",
      1000, "temperature"}},
    {32, {"", 1, "signed value"}},
    {33, {"%", 1, "ratio"}},
    {34, {"kW", 100, "power"}},
    {35, {"l/h", 100, "consumption"}},
    {36, {"km", 1, "distance"}},
    {37, {"", 1, "value"}},
    {38, {"\xC2\xB0 k/w", 1000, "knock retard"}},
    {39, {"mg/h", 100, "consumption"}},
    {40, {"A", 10, "current"}},
    {41, {"Ah", 1, "charge"}},
    {42, {"kW", 10, "power"}},
    {43, {"V", 10, "voltage"}},
    {44, {"", 1, "time of day"}},
    {45, {"", 1000, "value"}},
    {46, {"\xC2\xB0 k/w", 1000, "knock retard"}},
    {47, {"ms", 1, "time"}},
    {48, {"", 1, "value"}},
    {49, {"mg/h", 10, "consumption"}},
    {50, {"mbar", 1, "pressure"}},
    {51, {"mg/h", 100, "consumption"}},
    {52, {"Nm", 10, "torque"}},
    {53, {"g/s", 100, "air mass"}},
    {54, {"", 1, "count"}},
    {55, {"s", 100, "time"}},
    {56, {"WSC", 1, "workshop code"}},
    {57, {"WSC", 1, "workshop code"}},
    {58, {"", 1, "value"}},
    {59, {"g/s", 1000, "air mass"}},
    {60, {"s", 100, "time"}},
    {61, {"", 100, "ratio"}},
    {62, {"", 1, "value"}},
    {64, {"\xCE\xA9", 1, "resistance"}},
    {65, {"mm", 100, "distance"}},
    {66, {"V", 100, "voltage"}},
    {67, {"\xC2\xB0", 10, "angle"}},
    {68, {"\xC2\xB0/s", 100, "rotation rate"}},
    {69, {"bar", 100, "pressure"}},
    {70, {"m/s\xC2\xB2", 100, "acceleration"}},
    {81, {"", 1, "value"}},
    {82, {"", 1, "value"}},
    {83, {"", 1, "value"}},
    {85, {"", 1, "value"}},
    {0x3F, {"", 1, "text"}},
    {0x5F, {"", 1, "text"}},
    {128, {"", 1, "curve value"}},
    {129, {"%", 100, "curve ratio"}},
    {130, {"%", 100, "curve ratio"}},
    {132, {"", 1, "curve value"}},
    {133, {"%", 100, "curve ratio"}},
    {134, {"", 1, "curve value"}},
    {135, {"", 1, "curve value"}},
    {136, {"", 1, "curve value"}},
    {137, {"", 1, "curve value"}},
    {138, {"", 1, "curve value"}},
    {139, {"", 1, "curve"}},
    {140, {"", 1, "curve"}},
    {141, {"", 1, "text list"}},
    {142, {"", 1, "characters"}},
    {143, {"", 1, "curve value"}},
    {144, {"", 1, "curve value"}},
    {145, {"", 1, "curve value"}},
    {146, {"", 1000, "factor"}},
    {148, {"", 10, "curve value"}},
    {149, {"", 1, "curve value"}},
    {150, {"g/s", 100, "air mass"}},
    {151, {"", 1, "curve value"}},
    {152, {"", 1, "curve value"}},
    {153, {"%", 100, "curve ratio"}},
};

// An id -> entry index built once from the list above.
constexpr std::array<int16_t, 256> BuildIndex() {
    std::array<int16_t, 256> index{};
    for (auto &slot : index) {
        slot = -1;
    }
    for (size_t i = 0; i < sizeof kUnits / sizeof kUnits[0]; ++i) {
        index[kUnits[i].kind] = static_cast<int16_t>(i);
    }
    return index;
}

constexpr std::array<int16_t, 256> kIndex = BuildIndex();

} // namespace

UnitInfo UnitFor(uint8_t kind) {
    const int16_t slot = kIndex[kind];
    if (slot < 0) {
        return {"", 1, "raw"};
    }
    return kUnits[slot].info;
}

std::vector<Reading> TakeReadings(uint32_t count, MeasuringValue *values) {
    std::vector<Reading> readings;
    if (values == nullptr) {
        return readings;
    }
    for (uint32_t i = 0; i < count; ++i) {
        Reading reading;
        reading.kind = values[i].kind;
        reading.value = values[i].value;
        if (values[i].text != nullptr) {
            reading.hasText = true;
            reading.text = ToUtf8(values[i].text);
            DvFree(values[i].text);
        }
        readings.push_back(reading);
    }
    DvFree(values);
    return readings;
}

double NumericValue(const Reading &value) {
    return static_cast<double>(value.value) / UnitFor(value.kind).divisor;
}

std::string FormatValue(const Reading &value) {
    if (value.hasText) {
        return value.text;
    }
    char text[64];
    if (value.kind == 0 || value.kind == 0xFF) {
        std::snprintf(text, sizeof text, "raw %d", value.value);
        return text;
    }
    const UnitInfo info = UnitFor(value.kind);
    if (value.kind == 16) {
        std::string bits;
        for (int bit = 15; bit >= 0; --bit) {
            bits += ((value.value >> bit) & 1) != 0 ? '1' : '0';
            if (bit == 8) {
                bits += ' ';
            }
        }
        return bits;
    }
    const int decimals = info.divisor >= 1000  ? 3
                         : info.divisor >= 100 ? 2
                         : info.divisor >= 10  ? 1
                                               : 0;
    std::snprintf(text, sizeof text, "%.*f", decimals, NumericValue(value));
    std::string result = text;
    if (info.unit[0] != '\0') {
        result += ' ';
        result += info.unit;
    }
    return result;
}

Json ReadingsJson(const std::vector<Reading> &readings) {
    Json list = Json::array();
    for (const Reading &reading : readings) {
        Json item = {{"formula", reading.kind}, {"value", reading.value}};
        if (reading.hasText) {
            item["text"] = reading.text;
        } else {
            item["number"] = NumericValue(reading);
            item["unit"] = UnitFor(reading.kind).unit;
        }
        item["display"] = FormatValue(reading);
        list.push_back(item);
    }
    return list;
}

void PrintReadings(const std::vector<Reading> &readings) {
    for (size_t i = 0; i < readings.size(); ++i) {
        std::string shown = FormatValue(readings[i]);
        // Pad by characters, not bytes, so that units such as "°C" line up.
        size_t width = 0;
        for (char c : shown) {
            width += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
        }
        shown.append(width < 24 ? 24 - width : 0, ' ');
        std::printf("  %zu: %s (formula %u, value %d)\n", i + 1, shown.c_str(), readings[i].kind,
                    readings[i].value);
    }
}

} // namespace dvtool
