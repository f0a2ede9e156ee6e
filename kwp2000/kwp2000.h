// The KWP2000 link as the KWP2000 Parts see it: the link state of Part 5.1, its message layer
// (framing, reception, exchange with repeats, the two message buffers) and the connection
// operations of Part 5.2 that the services of Parts 5.3 and 6.1-6.3 call.
#pragma once

#include <cstdint>

namespace dv {

// ---- Part 5.1: link state --------------------------------------------------------------------

// The ISO 14230 timing parameter set, all in milliseconds.
struct IsoTiming {
    uint32_t P1min = 0;
    uint32_t P1max = 20;
    uint32_t P2min = 25;
    uint32_t P2max = 50;
    uint32_t P3min = 55;
    uint32_t P3max = 5000;
    uint32_t P4min = 5;
    uint32_t P4max = 20;
    uint32_t TesterByteGap = 10;
    uint32_t BusyRepeatDelay = 2500;
};

// One growing message buffer (Part 5.1: steps of 256 bytes, kept between exchanges).
struct IsoBuffer {
    uint8_t *data = nullptr;
    uint32_t capacity = 0;
    uint8_t inUse = 0;
};

// The one KWP2000 link of the process.
struct IsoLink {
    IsoTiming timing;
    uint8_t keyByte1 = 0;
    uint8_t keyByte2 = 0;
    uint8_t targetAddress = 0;
    uint8_t initAddress = 0;
    uint8_t testerAddress = 0xF1;
    uint32_t connectMode = 0; // 0 slow (five-baud) init, non-zero fast init
    uint32_t connected = 0;   // 0 closed, 1 connected, 2 link lost (Part 5.3)
    uint8_t sessionMode = 0;  // diagnostic session last started; 0 none
    uint32_t servicesRequested = 0;
    uint32_t repeats = 0;
    uint32_t restarts = 0;
    uint32_t startTick = 0;
    uint32_t stopTick = 0;
    IsoBuffer request;
    IsoBuffer response;
};

// The simulated ECU behind target 0xFF (Parts 6.2, 6.3), reset by DvVagIsoStartCommunication
// for module 0x80.
struct VagIsoSimulator {
    bool dtcSet1 = true;   // code 0x020A, status 10
    bool dtcSet2 = true;   // code 0x0206, status 8
    uint16_t actuator = 0; // function code under test: 0 none, 1262, 1264
    uint8_t stepFlag = 0;
};

IsoLink &IsoLinkState();
VagIsoSimulator &VagIsoSimulatorState();

constexpr uint8_t kIsoSimulatedTarget = 0xFF; // module 0x80: answered without the line
constexpr uint8_t kIsoSimulatorModule = 0x80;

// True when the link is the simulated one (target 0xFF): services answer without the line.
bool IsoIsSimulated();

// Key byte 1 bits (ISO 14230-2).
constexpr uint8_t kKb1LengthInFormat = 0x01;
constexpr uint8_t kKb1AdditionalLength = 0x02;
constexpr uint8_t kKb1AddressHeader = 0x08;
constexpr uint8_t kKb1NormalTiming = 0x10;
constexpr uint8_t kKb1ExtendedTiming = 0x20;

// The two timing sets of Part 5.1.
void IsoLoadDefaultTiming();
void IsoLoadSettingsTiming();

// a − b for the Part's millisecond differences; 0 where settings make b exceed a.
constexpr uint32_t IsoMsLess(uint32_t a, uint32_t b) {
    return a > b ? a - b : 0;
}

// Byte `index` of an answer, 0 past its end: answers shorter than a Part assumes read as zeros.
constexpr uint8_t IsoByteAt(const uint8_t *data, uint32_t length, uint32_t index) {
    return index < length && data != nullptr ? data[index] : 0;
}

// ---- Part 5.1: message buffers ---------------------------------------------------------------

uint8_t *IsoAcquireRequestBuffer(uint32_t n);
void IsoReleaseRequestBuffer();
uint8_t *IsoAcquireResponseBuffer(uint32_t n);
uint8_t *IsoGrowResponseBuffer(bool keep, uint32_t n);
void IsoReleaseResponseBuffer();
void IsoFreeBuffers(); // library destruction

// ---- Part 5.1: message layer -----------------------------------------------------------------

// Frames and writes one request (service id and parameters) and checks the adapter echo.
uint32_t IsoSendRequest(uint32_t length, const uint8_t *data);
// Reads one answer (one or more messages) into the response buffer.
uint32_t IsoReceiveResponse(uint32_t *length, uint8_t **data);
// One exchange inside an exchange section, with repeats and busy passes. The answer (service id
// first) stays in the response buffer until IsoReleaseResponseBuffer.
uint32_t IsoExchange(uint32_t length, const uint8_t *data, uint32_t *outLength, uint8_t **outData);

// ---- Part 5.2: initialisation and connection ---------------------------------------------------

uint32_t IsoSlowInit(uint8_t address);
uint32_t IsoFastInit(uint8_t address);
uint32_t IsoConnectSlow(const char16_t *port, uint8_t address);
uint32_t IsoConnectFast(const char16_t *port, uint8_t address);
uint32_t IsoReconnectSlow();
uint32_t IsoReconnectFast();
// Called by every service after a failed exchange (8 or 12); restarts + 1 on success.
uint32_t IsoRestartCommunication();
uint32_t IsoRestoreSession();
// Module address to target address; 2 with "Target address is unkown : 0x%02X" if unknown.
uint32_t IsoMapTargetAddress(uint32_t module, uint8_t *target);
// Resets the simulator state (both fault-code sets present, no actuator under test).
void VagIsoResetSimulator();

} // namespace dv
