// The library frame as the other layers see it (Parts 1.1-1.4): the message log, the exchange
// section, the millisecond clock and the settings sub-blocks each layer keeps.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "dravelin/dravelin.h"

namespace dv {

// ---- Part 1.3: message log -------------------------------------------------------------------

// Emits one line at `level` (printf-style, UTF-16 format; %s takes a const char16_t*).
void LogMessage(uint32_t level, const char16_t *format, ...);
void LogMessageV(uint32_t level, const char16_t *format, va_list args);
// The current message level (callers at trace levels test it before building texts).
uint32_t LogLevel();
// "@ %.1f": milliseconds since the start mark. Static buffer, valid until the next call.
const char16_t *LogTimestampText();
// The bytes as "'01 02 03'" for trace lines. Static buffer, valid until the next call.
const char16_t *HexText(const uint8_t *bytes, uint32_t count);
// Takes a new start mark for the log timestamps (DvSpy, DvVagConnect, the KWP2000 starts).
void LogResetStartMark();
// The 512-byte key table shared with DvLogDecode.
extern const uint8_t kLogKeyTable[512];

// ---- Part 1.4: exchange section and timing ---------------------------------------------------

uint32_t ExchangeBegin(); // 0, or 1 when the priority could not be saved or raised
void ExchangeEnd();
void DelayMs(uint32_t ms); // busy-wait on the performance counter
void SleepMs(uint32_t ms); // the platform's Sleep
uint32_t SwapBytes16(uint32_t v);
int64_t TicksPerMs(); // performance-counter ticks per millisecond (0 before DvConstruct)
int64_t CounterNow(); // the performance counter
uint32_t TickCount(); // the millisecond tick count (GetTickCount)

// ---- Part 1.2: the sub-blocks each layer keeps ----------------------------------------------

struct IsoSettings {
    uint32_t P2max = 50;
    uint32_t P1max = 20;
    uint32_t connectAttempts = 3;
    uint32_t requestAttempts = 3;
    uint8_t testerAddress = 0xF1;
};

struct KwSettings {
    uint32_t connectRetries = 3;
    uint32_t serviceRetries = 2;
    uint32_t blockSendRetries = 3;
    uint32_t silenceReads = 3;
    uint32_t initTimeout = 1000;
    uint32_t keywordTimeout = 140;
    uint32_t blockTimeout = 1000;
    uint32_t byteTimeout = 60;
};

// ---- Part 1.1: the layers DvConstruct sets up and DvDestruct tears down ----------------------
// Each is defined by its own layer; the frame calls them in the order of Part 1.1.

uint32_t SerialLayerSetUp(); // serial/ (Part 2.1)
void SerialLayerTearDown();
uint32_t IsoLayerSetUp(); // kwp2000/ (Part 5.1)
void IsoLayerTearDown();
uint32_t VagIsoLayerSetUp(); // kwp2000/ manufacturer services (Part 6)
void VagIsoLayerTearDown();
uint32_t KwLayerSetUp(); // kw1281/ (Part 3.2)
void KwLayerTearDown();

// Settings sub-blocks, applied by DvSetSettings in the order serial, KWP2000, KW1281.
uint32_t SerialApplyDtrSetting(uint32_t dtrOn); // serial/: 0, or 5 (Part 1.2)
uint32_t SerialDtrSetting();
void IsoApplySettings(
    const IsoSettings &settings); // kwp2000/: stores (validated by the frame), updates live timing
const IsoSettings &IsoSettingsInForce();
void KwApplySettings(const KwSettings &settings); // kw1281/: stores (validated by the frame)
const KwSettings &KwSettingsInForce();

} // namespace dv
