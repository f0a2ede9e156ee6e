// The serial line as the protocol layers see it (Parts 2.1, 2.2).
#pragma once

#include <cstdint>

#include "platform/platform.h"

namespace dv {

// ---- Part 2.1: serial port -------------------------------------------------------------------

constexpr uint32_t kNoLimit = 0xFFFFFFFF; // PortSetTimeouts: no total / interval limit

uint32_t PortOpen(const char16_t *name, uint32_t baud, uint32_t inQueue, uint32_t outQueue);
void PortClose();
uint32_t PortSetTimeouts(uint32_t total, uint32_t perByte, uint32_t interval);
uint32_t PortSetByteDelay(uint32_t ms);
uint32_t PortByteDelay();            // the byte delay in force (LineWrite)
constexpr uint32_t kPurgeInput = 2;  // PortPurge: clear the receive queue
constexpr uint32_t kPurgeOutput = 1; // PortPurge: clear the transmit queue
uint32_t PortPurge(uint32_t which);
bool PortIsOpen();
PortHandle PortCurrentHandle();

// ---- Part 2.2: line transfer primitives ------------------------------------------------------

// LineWrite/LineRead: the trace level (3 for protocol bytes, 4 for echoes and detail) is the
// level of every line they log.
uint32_t LineWrite(uint32_t traceLevel, uint32_t count, const uint8_t *bytes);
uint32_t LineRead(uint32_t traceLevel, uint32_t count, uint8_t *buffer, uint32_t *got);
uint32_t LineWaitForInput(uint32_t count, uint32_t *queued);
// Sends the address at 1/bitTimeMs baud on the break line; echo receives the number of bytes
// the adapter's echo produced, or -1 when unknown.
uint32_t LineSendAddress(uint32_t bitTimeMs, uint8_t address, int32_t *echo);
uint32_t LineSendWakeUp(uint32_t ms, int32_t *echo);

} // namespace dv
