// An emulated ISO 14230 (KWP2000) ECU for the virtual K-line.
//
// The model is the other end of Parts 5.1 to 6.3: it answers a five-baud or fast
// initialisation, frames its answers as its key bytes announce, checks the tester's framing and
// checksum, and serves every service those Parts send. Its contents, timing and injected faults
// are data (Kwp2000Profile), so a test or a port name picks an ECU by choosing a profile.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/ecu_model.h"

namespace dv::bench {

// A stored trouble code. `present` selects the codes a read with status request 0x11 returns;
// `freezeFrame` holds the measuring-value elements (Part 4.5) of its freeze frame, empty when
// none was stored.
struct Kwp2000Dtc {
    uint16_t code = 0;
    uint8_t status = 0;
    bool present = false;
    std::vector<uint8_t> freezeFrame;
};

// Measuring-value elements (Part 4.5, KWP2000 form) answered for one local identifier.
struct Kwp2000LocalId {
    uint8_t id = 0;
    std::vector<uint8_t> elements;
};

// One step pair of the actuator test: its function code and the elements of its data while it runs.
struct Kwp2000Actuator {
    uint16_t code = 0;
    std::vector<uint8_t> elements;
};

// The general identification (1A 9B) as Part 6.1 reads it.
struct Kwp2000Identification {
    std::string partNumber;      // 12 characters, padded with spaces
    std::string softwareVersion; // 4 characters
    uint32_t coding = 0;         // 20 bits
    uint32_t workshopCode = 0;   // 17 bits
    uint32_t extraCode = 0;      // 10 bits
    std::string componentText;   // 20 characters, padded with spaces
};

// ISO 14230 times of the ECU side, in milliseconds.
struct Kwp2000Timing {
    int w1 = 60;            // end of the address byte to the synchronisation byte
    int w2 = 10;            // synchronisation byte to key byte 1
    int w3 = 10;            // key byte 1 to key byte 2
    int w4 = 30;            // tester's inverted key byte 2 to the inverted address
    int w4Max = 50;         // how long the ECU waits for the inverted key byte 2
    int resync = 100;       // after w4Max without it: pause before sync and key bytes go out again
    int resyncs = 3;        // how often they go out again before the ECU gives up
    int p1 = 1;             // gap between the bytes of an ECU message
    int p2 = 30;            // end of a request (or of an answer message) to the next answer message
    int p3Max = 5000;       // silence after which the ECU ends the session; 0: never
    int p4Max = 20;         // longest gap between request bytes; a longer gap starts a new message
    int wakeUpLow = 25;     // low time of the fast-init wake-up pattern
    int wakeUpTotal = 50;   // low and high time of the wake-up pattern (TWuP)
    int wakeUpJitter = 5;   // tolerance on both
    int startWindow = 300;  // wake-up end to the latest start of StartCommunication
    int addressJitter = 50; // tolerance of a five-baud edge around its bit boundary
};

// Faults of the KWP2000 ECU (byte-level drop and corruption are the bench's own). Requests are
// counted from 1 over every message the ECU accepted (good checksum, its address), the
// StartCommunication of a fast init included; answer messages are counted from 1 over every
// message the ECU sends, response-pending and busy answers included. 0 disables a fault.
struct Kwp2000Faults {
    std::optional<uint8_t> syncByte;                // sent instead of 0x55
    std::optional<std::array<uint8_t, 2>> keyBytes; // sent instead of the profile's (init answers)
    bool wrongInvertedAddress = false;              // the address answer has bit 0 flipped
    int silentRequest = 0, silentCount = 1;         // requests left without any answer
    int pendingRequest = 0, pendingCount = 0;       // 7F sid 78 answers before the real one
    int pendingGap = 200;                           // ms between them and before the real one
    int busyRequest = 0;                            // first request answered 7F sid code ...
    std::vector<uint8_t> busyCodes;                 // ... one code a request (0x21, 0x23)
    int slowRequest = 0, slowCount = 1,
        slowDelay = 0;               // answers begin slowDelay ms late instead of P2
    int dropAfterRequest = 0;        // the session ends after answering it
    int badChecksumMessage = 0;      // checksum one too high
    int wrongTargetMessage = 0;      // target byte: tester address XOR 0x01
    int wrongAddressModeMessage = 0; // format byte with address mode 1
    int wrongSizeMessage = 0;        // length one more than the data sent
};

struct Kwp2000Profile {
    std::string name;
    uint32_t baud = 10400;
    uint8_t moduleAddress = 0x01; // five-baud address (the target address is accepted as well)
    uint8_t targetAddress = 0x10; // address of the ECU in message headers
    uint8_t keyByte1 = 0xEF;
    uint8_t keyByte2 = 0x8F;
    Kwp2000Timing timing;
    int maxMessageData = 0;        // data bytes in one answer message; 0: as the key bytes allow
    std::vector<uint8_t> sessions; // diagnostic session modes accepted by 0x10
    Kwp2000Identification identification;
    std::vector<Kwp2000Dtc> dtcs;
    std::vector<Kwp2000LocalId> localIds;
    std::vector<uint16_t> capabilities; // routine function codes listed by 31 B8 00 00
    std::vector<Kwp2000Actuator> actuators;
    uint8_t actuatorSession = 0; // session the actuator test needs; 0: any
    Kwp2000Faults faults;
};

// Negative response codes the model uses.
constexpr uint8_t kKwpServiceNotSupported = 0x11;
constexpr uint8_t kKwpInvalidFormat = 0x12;
constexpr uint8_t kKwpConditionsNotCorrect = 0x22;
constexpr uint8_t kKwpRequestOutOfRange = 0x31;
constexpr uint8_t kKwpResponsePending = 0x78;

// The engine ECU (module 0x01, target 0x10) of the profile table: "kwp2000-engine".
Kwp2000Profile Kwp2000EngineProfile();

std::unique_ptr<EcuModel> MakeKwp2000Ecu(const Kwp2000Profile &profile);
// The factory of the profile table: an ECU of Kwp2000EngineProfile().
std::unique_ptr<EcuModel> MakeKwp2000Engine();

} // namespace dv::bench
