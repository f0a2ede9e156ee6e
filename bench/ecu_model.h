// The interface between the virtual K-line (bench.h) and an emulated ECU.
//
// The bench owns time and the line; an ECU model is a state machine that hears line events in
// time order and answers by putting bytes on the line at times it chooses. Times are counter
// ticks of the bench clock (kFakeTicksPerMs a millisecond).
#pragma once

#include <cstdint>
#include <string_view>

namespace dv::bench {

// What the bench offers an ECU.
class EcuBus {
public:
    virtual ~EcuBus() = default;
    // Puts one byte on the K-line, its start bit beginning at `at` (at the ECU's baud rate);
    // returns the time its stop bit ends, when the next byte may start.
    virtual int64_t Send(int64_t at, uint8_t byte) = 0;
    // Asks for OnTimer at `at` (one pending timer; a new request replaces the old one).
    virtual void SetTimer(int64_t at) = 0;
    virtual void CancelTimer() = 0;
    // Counter ticks per millisecond of the bench clock.
    virtual int64_t TicksPerMs() const = 0;
    // Writes a line about the ECU's state (address decoded, link dropped) into the bench trace.
    virtual void Note(int64_t at, std::string_view text) {
        (void)at;
        (void)text;
    }
};

// An emulated ECU (KW1281 or KWP2000), driven by the bench.
class EcuModel {
public:
    virtual ~EcuModel() = default;
    // The K-line level changed at `at` (false: pulled low by the tester's break). The 5-baud
    // address and the fast-init wake-up are decoded from these edges.
    virtual void OnLineLevel(EcuBus &bus, int64_t at, bool high) = 0;
    // A byte the tester wrote, complete on the line at `at`. Bytes written at another baud rate
    // than the ECU's reach it garbled, as on a real line.
    virtual void OnByte(EcuBus &bus, int64_t at, uint8_t byte) = 0;
    // The timer asked for with SetTimer is due.
    virtual void OnTimer(EcuBus &bus, int64_t at) = 0;
    // The ECU's baud rate.
    virtual uint32_t Baud() const = 0;
};

} // namespace dv::bench
