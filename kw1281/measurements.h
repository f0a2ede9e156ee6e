// What the measurement services (Part 4.6) share with the adaptation services (Part 4.7): the
// host's in/out record arrays and the simulated ECU's measuring values.
#pragma once

#include <cstdint>

#include "dravelin/dravelin.h"

namespace dv {

// The host's in/out array: a null *values asks the library to allocate `needed` records and set
// *count; a supplied array must have *count == needed. Returns 0, or 1 on a different count
// (logging "Bad group measurement count: %u vs %u\r\n" when `logMismatch`), or 5 when the
// allocation failed. *allocated tells whether the array was allocated in this call.
uint32_t KwPrepareValues(uint32_t needed, uint32_t *count, MeasuringValue **values,
                         bool logMismatch, bool *allocated);

// Decodes a run of value elements (inner title 0xE7) into the host's array: count, prepare,
// decode; a failed decoding frees an array allocated in this call and returns 1.
uint32_t KwDecodeElementsToHost(uint32_t length, const uint8_t *data, uint32_t *count,
                                MeasuringValue **values);

// The simulated ECU's four measuring values of group 1 / adaptation channel 1 for the value v:
// (1, v * 8000 / 128), (5, 920), (11, 1000 or the swinging value), (16, 23362 or 23360).
void KwSimulatedValues(uint32_t v, bool basicSetting, MeasuringValue *records);
constexpr uint32_t kKwSimulatedValueCount = 4;

} // namespace dv
