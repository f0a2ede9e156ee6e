// The service pattern of the KWP2000 services (Part 5.3), shared by the standard services and the
// manufacturer services of Parts 6.1 to 6.3.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include "dravelin/dravelin.h"

namespace dv {

// The answer of one service exchange. It holds the response buffer of the link layer (Part 5.1)
// and releases it when it goes out of scope, so that both buffers are released on every answered
// path. Bytes past the end of the answer read as 0 and are reported missing by Has, so that no
// check or decoder reads outside the data.
class IsoAnswer {
public:
    IsoAnswer() = default;
    IsoAnswer(const IsoAnswer &) = delete;
    IsoAnswer &operator=(const IsoAnswer &) = delete;
    ~IsoAnswer();

    void Hold(const uint8_t *data, uint32_t length);
    uint32_t Length() const { return length_; }
    bool Has(uint32_t index) const { return index < length_; }
    uint8_t At(uint32_t index) const { return Has(index) ? data_[index] : 0; }
    // Big-endian 16-bit value of bytes index and index + 1.
    uint32_t Word(uint32_t index) const { return (At(index) << 8) | At(index + 1); }
    // The bytes from `offset` on (null when the answer is shorter), and their number leaving
    // the last `tail` bytes out (0 when the answer is shorter).
    const uint8_t *Area(uint32_t offset) const { return Has(offset) ? data_ + offset : nullptr; }
    uint32_t AreaLength(uint32_t offset, uint32_t tail = 0) const {
        return length_ >= offset + tail ? length_ - offset - tail : 0;
    }

private:
    const uint8_t *data_ = nullptr;
    uint32_t length_ = 0;
    bool held_ = false;
};

// How a service treats a lost link (Part 5.3): the pattern makes a second attempt after a
// successful restart; tester present ends with 0 after it without sending again.
enum class IsoRetry { SecondAttempt, RestartOnly };

// Steps 2 to 5 of the service pattern: sends `request` (service id first) from the request
// buffer through IsoExchange, restarts the link once on result 8 or 12, maps a negative answer
// to 0x100 + code and checks the service id (13). On 0 `answer` holds a positive answer.
uint32_t IsoServiceRequest(std::initializer_list<uint8_t> request, IsoAnswer &answer,
                           IsoRetry retry = IsoRetry::SecondAttempt);

// Checks an echoed byte of the answer: logs "Bad <item> : '%02X' vs '%02X'" with the received
// byte (0 when the answer is too short to hold it) and the expected one, and returns false when
// it differs or is missing.
bool IsoCheckEchoByte(const IsoAnswer &answer, uint32_t index, uint8_t expected,
                      const char16_t *format);

// Converts `count` ANSI bytes into a new malloc block of `count` + 1 UTF-16 units, terminated
// after the converted text. On failure logs "Could not convert to Unicode (0x%08X)\r\n" and
// returns null.
DvChar *IsoConvertText(const uint8_t *bytes, uint32_t count);

// A malloc block of `count` records for the host (freed with DvFree); null for 0.
template <class Record> Record *IsoAllocateRecords(uint32_t count) {
    return count == 0 ? nullptr : static_cast<Record *>(std::malloc(count * sizeof(Record)));
}

// Starts the diagnostic session `mode` (the byte sent) by the pattern and records it for the
// session restore of Part 5.2; the answer must echo it (7). Defined with the standard services.
uint32_t IsoStartSession(uint8_t mode);

// The in/out value array of Part 6.3 (defined with the data services): with a null *values it
// stores `n` in *count and allocates `n` records into *values (`allocated` set); with an array
// given, `n` must equal *count, else it logs "Bad measurement zone count: %u vs %u\r\n" (new,
// old) and returns 1.
uint32_t IsoTakeValueArray(uint32_t n, uint32_t *count, MeasuringValue **values, bool &allocated);

} // namespace dv
