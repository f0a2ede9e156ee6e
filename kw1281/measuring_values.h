// Measuring value decoding (Part 4.5): value elements and curve-coded bytes into MeasuringValue
// records by the formula table, shared by the KW1281 services (Parts 4.6, 4.7) and the KWP2000
// manufacturer data services (Part 6.3).
#pragma once

#include <cstdint>

#include "dravelin/dravelin.h"

namespace dv {

// ---- element decoding ---------------------------------------------------------------------------
// Callers count first, then allocate (or check the host's array against) that many records.
// Every text of a record is its own malloc block; the host frees texts and array with DvFree.
// A decoder that returns 1 (text conversion failed) has freed the texts it made in this call and
// left the freed pointers in the records: the caller releases only the array.

// KW1281 form: stores in *count how many records DecodeMeasuringValues will produce; returns 0.
uint32_t CountMeasuringValues(uint32_t length, const uint8_t *data, uint32_t *count);
// Decodes `count` elements of the `length` bytes at `data` into `values`; 0, or 1 on a text
// conversion failure.
uint32_t DecodeMeasuringValues(uint32_t count, MeasuringValue *values, uint32_t length,
                               const uint8_t *data);

// KWP2000 form, which also knows the counted text element "_": returns the count (0 for empty
// data).
uint32_t CountLocalIdValues(uint32_t length, const uint8_t *data);
// As DecodeMeasuringValues, with "_" elements.
uint32_t DecodeLocalIdValues(uint32_t count, MeasuringValue *values, uint32_t length,
                             const uint8_t *data);

// ---- the measurement curve table
// ------------------------------------------------------------------

// One entry of a header answer (Part 4.6): how the value byte at its position is read.
struct MeasurementCurve {
    uint8_t formula; // curve formula id, 128..153
    uint8_t factor;  // the constant K
    uint8_t length;  // number of data bytes n
    uint8_t *data;   // malloc copy of the n data bytes, or null when n is 0
};

// Decodes value byte i with entry i of the table (kind 0xFF and the raw byte past its end); 0, or
// 1 on a text conversion failure.
uint32_t DecodeCurveValues(uint32_t count, MeasuringValue *values, const uint8_t *bytes);

// Makes `entries` (a malloc array of `count` entries, each owning its data) the table, freeing
// the old table and its data. A null array or count 0 makes the table empty.
void SetMeasurementCurveTable(MeasurementCurve *entries, uint32_t count);
// Frees the table and its data; the table is then empty.
void FreeMeasurementCurveTable();
// The number of entries of the table.
uint32_t MeasurementCurveCount();
// Frees a malloc array of entries that is not the table, with each entry's data.
void FreeMeasurementCurves(MeasurementCurve *entries, uint32_t count);

} // namespace dv
