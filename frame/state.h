// The frame state of Part 1.1, shared by the frame's own modules (lifecycle, message log,
// exchange section). The other layers reach it only through frame.h.
#pragma once

#include <cstdint>

#include "dravelin/dravelin.h"
#include "platform/platform.h"

namespace dv {

struct FrameState {
    uint32_t context = 0;
    MessageCallback callback = nullptr;
    uint32_t level = 0;
    const uint8_t *keyTable = nullptr;
    int64_t ticksPerMs = 0;
    int64_t startMark = 0;
    char16_t *logBuffer = nullptr;
    uint32_t logLength = 0;   // characters
    uint32_t logCapacity = 0; // characters
    bool buffering = false;
    int32_t savedPriority = kPriorityError;
    bool constructed = false;
};

// Zero-initialised until DvConstruct, as the Part requires for exports called before it.
extern FrameState gFrame;

// Delivers the buffered lines of an exchange section (Part 1.3, flushing).
void LogFlush();

} // namespace dv
