// How the host shows a MeasuringValue: the library hands out a formula id (kind) and a scaled
// integer; the unit, the divisor and a label for each id are the host's (docs/units.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common.h"
#include "dravelin/dravelin.h"

namespace dvtool {

struct UnitInfo {
    const char *unit;  // "" when the formula has no unit
    int32_t divisor;   // value / divisor is the physical value; 1, 10, 100 or 1000
    const char *label; // what the formula usually measures
};

// The unit table entry of a formula id (KW1281 1..85, curve formulas 128..153, texts).
UnitInfo UnitFor(uint8_t kind);

// A MeasuringValue copied out of the library's array (whose texts the host frees).
struct Reading {
    uint8_t kind = 0;
    int32_t value = 0;
    bool hasText = false;
    std::string text; // UTF-8
};

// Copies count records out and frees every text and the array (DvFree).
std::vector<Reading> TakeReadings(uint32_t count, MeasuringValue *values);

// The value as a person reads it: "812.0 rpm", "WARM", "raw 31" for kind 0 / 0xFF.
std::string FormatValue(const Reading &reading);

// The physical value as a number (value / divisor), for CSV and JSON.
double NumericValue(const Reading &reading);

// The readings as JSON (formula, value, number and unit or text, display) and as text lines.
Json ReadingsJson(const std::vector<Reading> &readings);
void PrintReadings(const std::vector<Reading> &readings);

} // namespace dvtool
