// KWP2000 standard services (Part 5.3): diagnostic sessions, tester present, reading and
// clearing trouble codes.
#include <algorithm>
#include <cstdlib>

#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "kwp2000/service.h"
#include "kwp2000/simulator.h"

namespace dv {

namespace {

constexpr uint32_t kBadArgument = 1;
constexpr uint32_t kBadEcho = 7;

// Host session values 0, 1, 2 and 4 name the standard sessions; others are sent as they are.
uint8_t SessionModeOf(uint32_t mode) {
    switch (mode) {
    case 0: return 0x81;
    case 1: return 0x82;
    case 2: return 0x85;
    case 4: return 0x87;
    default: return static_cast<uint8_t>(mode);
    }
}

// 3E 02: tester present without an answer; no restart.
uint32_t SendTesterPresentUnanswered() {
    const uint32_t begun = ExchangeBegin();
    if (begun != 0) {
        return begun;
    }
    LogMessage(3, u"\r\n---- ECU <- Dravelin ----\r\n\r\n");
    uint8_t *request = IsoAcquireRequestBuffer(2);
    request[0] = 0x3E;
    request[1] = 0x02;
    const uint32_t result = IsoSendRequest(2, request);
    const IsoLink &link = IsoLinkState();
    DelayMs(result == 0 ? IsoMsLess(link.timing.P3min, link.timing.P4max) : link.timing.P3min);
    ExchangeEnd();
    IsoReleaseRequestBuffer();
    return result;
}

} // namespace

uint32_t IsoStartSession(uint8_t mode) {
    if (IsoIsSimulated()) {
        return IsoSimulateService();
    }
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x10, mode}, answer);
    if (result != 0) {
        return result;
    }
    if (!IsoCheckEchoByte(answer, 1, mode, u"Bad diagnostic session mode : '%02X' vs '%02X'\r\n")) {
        return kBadEcho;
    }
    IsoLinkState().sessionMode = mode;
    return 0;
}

} // namespace dv

using namespace dv;

extern "C" {

DV_API uint32_t DV_CALL DvIsoStartDiagnosticSession(uint32_t mode) {
    return IsoStartSession(SessionModeOf(mode));
}

DV_API uint32_t DV_CALL DvIsoStopDiagnosticSession(void) {
    if (IsoIsSimulated()) {
        return IsoSimulateService();
    }
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x20}, answer);
    if (result == 0) {
        IsoLinkState().sessionMode = 0;
    }
    return result;
}

DV_API uint32_t DV_CALL DvIsoTesterPresent(void) {
    if (IsoIsSimulated()) {
        return IsoSimulateService();
    }
    IsoAnswer answer;
    return IsoServiceRequest({0x3E}, answer, IsoRetry::RestartOnly);
}

DV_API uint32_t DV_CALL DvIsoTesterPresentExtended(uint32_t responseRequired) {
    if (IsoIsSimulated()) {
        return IsoSimulateService();
    }
    if (responseRequired == 0) {
        return SendTesterPresentUnanswered();
    }
    IsoAnswer answer;
    return IsoServiceRequest({0x3E, 0x01}, answer, IsoRetry::RestartOnly);
}

DV_API uint32_t DV_CALL DvIsoReadDtc(uint32_t *count, uint16_t **codes) {
    if (count == nullptr || codes == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadDtc(count, codes);
    }
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x13}, answer);
    if (result != 0) {
        return result;
    }
    // The codes the answer holds, at most the n it announces.
    const uint32_t n = std::min<uint32_t>(answer.At(1), answer.AreaLength(2) / 2);
    auto *array = IsoAllocateRecords<uint16_t>(n);
    for (uint32_t i = 0; i < n; ++i) {
        array[i] = static_cast<uint16_t>(answer.Word(2 + 2 * i));
    }
    *count = n;
    *codes = array;
    return 0;
}

DV_API uint32_t DV_CALL DvIsoClearDiagnosticInformation(void) {
    if (IsoIsSimulated()) {
        return IsoSimulateService();
    }
    IsoAnswer answer;
    return IsoServiceRequest({0x14}, answer);
}

} // extern "C"
