// The KW1281 link as the KW1281 services see it: the link state and connection data (Part 3.3),
// the link buffer, block counter and statistics (Part 3.2), the byte exchange (Part 3.1), the
// connection operations (Part 3.3) and the service pattern (Part 4.1).
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <type_traits>

#include "dravelin/dravelin.h"
#include "frame/frame.h"

namespace dv {

// ---- Part 3.2: block titles ------------------------------------------------------------------

constexpr uint8_t kKwTitleReadIdentification = 0x00;
constexpr uint8_t kKwTitleReadRam = 0x01;
constexpr uint8_t kKwTitleReadRom = 0x03;
constexpr uint8_t kKwTitleActuatorTest = 0x04;
constexpr uint8_t kKwTitleClearFaults = 0x05;
constexpr uint8_t kKwTitleEndCommunication = 0x06;
constexpr uint8_t kKwTitleReadFaults = 0x07;
constexpr uint8_t kKwTitleAcknowledge = 0x09;
constexpr uint8_t kKwTitleRefusal = 0x0A;
constexpr uint8_t kKwTitleSetCoding = 0x10;
constexpr uint8_t kKwTitleReadEeprom = 0x19;
constexpr uint8_t kKwTitleLogin = 0x2B;
constexpr uint8_t kKwTitleActuatorAnswer = 0xF5;
constexpr uint8_t kKwTitleIdentification = 0xF6;
constexpr uint8_t kKwTitleFaults = 0xFC;

constexpr uint8_t kKwEndByte = 0x03;
constexpr uint16_t kKwSlowKeyword = 0x8089; // doubles the pause after a received block

// The code for a failed heap allocation, which the Parts leave open (docs/deviations.md): that of
// a failing platform call.
constexpr uint32_t kKwNoMemory = 5;

// ---- Part 3.3: connection data -----------------------------------------------------------------

constexpr uint8_t SIMULATOR_ADDRESS = 0x80;
constexpr uint32_t kKwSimulatorBaud = 9600;

enum class KwLinkState : uint32_t { NotConnected = 0, Connected = 1, Broken = 2 };

// The built-in ECU's values (Parts 4.1-4.7), set by a simulated DvVagConnect.
struct KwSimulatorValues {
    char16_t codingText[10] = {};   // "$SC:%05i", cut to 9 characters
    char16_t workshopText[10] = {}; // "$WC:%05i", cut to 9 characters
    uint16_t faultsFilled = 0;
    uint16_t actuatorStep = 0;
    uint16_t adaptation[2] = {0x80, 0x80}; // channel 1 (V) and channel 2 (W), Part 4.7
    uint16_t loggedIn = 0;
};

struct KwConnectionData {
    KwLinkState state = KwLinkState::NotConnected; // KwLinkState
    uint8_t address = 0;                           // SIMULATOR_ADDRESS marks the simulator
    uint16_t keyword = 0;                          // KwKeyword: (second << 8) | first
    uint8_t loggedIn = 0;                          // a DvVagLogin succeeded since the connect
    uint16_t loginCode = 0;
    uint32_t workshopCode = 0;
    uint8_t shortCoding = 0;            // written by KwReadIdentification
    uint32_t lastSimulatedExchange = 0; // ms tick count
    KwSimulatorValues simulator;
};

KwConnectionData &KwConnection();
bool KwIsSimulator(); // the connected address is SIMULATOR_ADDRESS

// ---- Part 3.2: link buffer, counter, statistics -------------------------------------------------

struct KwLinkBuffer {
    uint32_t capacity = 0;
    uint8_t *bytes = nullptr;
};

struct KwLinkStatistics {
    uint32_t startTick = 0;
    uint32_t endTick = 0;
    uint32_t blocksSent = 0;
    uint32_t breaks = 0;
    uint32_t blocksReceived = 0;
    uint32_t resets = 0;
    uint32_t reestablishments = 0;
};

KwLinkBuffer &KwBuffer();
// Makes the buffer hold at least `size` bytes (a larger need frees the old buffer and allocates
// exactly `size`). False when the allocation failed; the buffer is then empty with capacity 0.
bool KwGrowBuffer(uint32_t size);
// Byte 0 := 0: the block has been handled.
void KwEmptyBuffer();
// The block in the buffer: length byte, counter, title, and the length - 3 data bytes.
uint8_t KwBlockLength();
uint8_t KwBlockTitle();
const uint8_t *KwBlockData();
uint32_t KwBlockDataCount();

KwLinkStatistics &KwStatistics();

// The block counter and the counter rule (KwNextCounter).
uint8_t KwCounter();
void KwSetCounter(uint8_t counter);
uint8_t KwRaiseCounter(); // before a send: counter + 1, returned for position 1
void KwLowerCounter();    // after a failed send
// After a received block: the expected counter (counter + 1) becomes the counter; a different
// received counter is logged ("Bad block index") and taken.
void KwNextCounter(uint8_t received);

// ---- Part 3.1: byte exchange -------------------------------------------------------------------

uint32_t KwSendByte(uint32_t count, const uint8_t *bytes);
uint32_t KwSendByteAwaitComplement(uint32_t count, const uint8_t *bytes);
uint32_t KwReceiveByteSendComplement(uint32_t count, uint8_t *buffer);
uint32_t KwAwaitSilence();

// ---- Part 3.2: blocks --------------------------------------------------------------------------

uint32_t KwSendBlock();    // the block in the link buffer (length at byte 0, counter written)
uint32_t KwReceiveBlock(); // into the link buffer
void KwReportStatistics(uint32_t level);

// ---- Part 3.3: connection -----------------------------------------------------------------------

uint32_t KwAddressInit(uint8_t address);
uint32_t KwReestablish();
uint32_t KwSkipIdentification();
uint32_t KwRelogin();

// Part 4.6, defined with the measurements: DvVagConnect clears the measurement group list,
// DvVagDisconnect frees it.
void KwClearGroupList();
void KwFreeGroupList();

// ---- Part 4.1: identification and the service pattern -------------------------------------------

// Reads the identification blocks the ECU is sending into a NULL-terminated descriptions array
// (malloc'd strings and array). Nothing is returned on failure.
uint32_t KwReadIdentification(DvChar ***descriptions);

// A non-owning reference to a callable returning a result code: the services hand lambdas to
// the pattern without allocating.
class KwStep {
public:
    template <typename F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, KwStep>)
        KwStep(F &&step) // NOLINT(google-explicit-constructor): lambdas convert at the call site
        : object_(const_cast<void *>(static_cast<const void *>(std::addressof(step)))),
          call_([](void *object) -> uint32_t {
              return (*static_cast<std::remove_reference_t<F> *>(object))();
          }) {}
    uint32_t operator()() const { return call_(object_); }

private:
    void *object_;
    uint32_t (*call_)(void *);
};

// Builds a block of title + data in the link buffer with the next counter and sends it; on
// failure the counter is lowered again and the buffer emptied (Part 4.1 step 4).
uint32_t KwSendRequest(std::span<const uint8_t> titleAndData);
// Sends an acknowledge block (title 0x09) the same way.
uint32_t KwAcknowledge();
// Receives a block and applies the counter rule; the block stays in the link buffer.
uint32_t KwReceiveNextBlock();
// KwReceiveNextBlock for a service's answer (Part 4.1 steps 5-7): the link state becomes 1 and a
// refusal (title 0x0A) gives 256.
uint32_t KwReceiveAnswer();
// Logs "Bad block type id: '%02X' vs '%02X'\r\n" and returns 13.
uint32_t KwBadBlockType(uint8_t received, uint8_t expected);

// Part 4.1 step 1: sleeps 3000 ms when more than 1000 ms passed since the last simulated
// exchange, then the service's delay, and stores the time.
void KwSimulatorDelay(uint32_t delayMs);
// The simulator values after a simulated DvVagConnect (Parts 3.3, 4.1-4.7).
void KwSimulatorConnect();

// Part 4.1 steps 2-8 for a real ECU: ExchangeBegin, then until done: send `request` (title and
// data; length and counter are added), run `answer` (which receives with KwReceiveAnswer and
// may acknowledge further blocks with KwAcknowledge). A code 8 or 11 from the send or from
// `answer` counts an attempt and, while attempts remain (serviceRetries), reestablishes the link
// ("\r\nReestablishing connection\r\n") and starts again from the request. Ending: buffer
// emptied, state 2 on code 8, ExchangeEnd.
uint32_t KwRunExchange(std::span<const uint8_t> request, KwStep answer);
// The whole pattern: in the simulator KwSimulatorDelay(simulatorDelayMs) and `simulate`;
// otherwise KwRunExchange.
uint32_t KwRunService(uint32_t simulatorDelayMs, KwStep simulate, std::span<const uint8_t> request,
                      KwStep answer);

// DvVagGetDescriptions and DvVagSetCoding: `request`, then the identification the ECU sends
// (KwReadIdentification; state 1 on success). In the simulator, after the delay, the simulator
// descriptions. `descriptions` may be null (the result is then freed).
uint32_t KwIdentificationService(uint32_t simulatorDelayMs, std::span<const uint8_t> request,
                                 DvChar ***descriptions);

// Part 4.2: the record capacity of the fault list once `total` records must fit.
uint32_t KwFaultCapacity(uint32_t capacity, uint32_t total);

// The simulator descriptions of Part 4.1 (malloc'd), or nullptr when out of memory.
DvChar **KwSimulatorDescriptions();
// Frees a descriptions array and its strings.
void KwFreeDescriptions(DvChar **descriptions);

} // namespace dv
