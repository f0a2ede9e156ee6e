// Manufacturer data services over KWP2000 (Part 6.3): measuring values by local identifier, the
// actuator test and the actuator's measuring values.
#include <cstdlib>

#include "frame/frame.h"
#include "kw1281/measuring_values.h"
#include "kwp2000/kwp2000.h"
#include "kwp2000/service.h"
#include "kwp2000/simulator.h"

namespace dv {

namespace {

constexpr uint32_t kBadArgument = 1;
constexpr uint32_t kBadEcho = 7;
constexpr uint8_t kStartActuatorTest = 0xB8;
constexpr uint8_t kNextActuatorStep = 0xB9;
constexpr uint8_t kActuatorData = 0xBA;
constexpr uint32_t kActuatorFunction = 0x0102;

// The echo of a routine request: routine local id, then the function code 0x0102.
bool CheckRoutineEcho(const IsoAnswer &answer, uint8_t routine) {
    if (!IsoCheckEchoByte(answer, 1, routine, u"Bad routine local id : '%02X' vs '%02X'\r\n")) {
        return false;
    }
    if (!answer.Has(3) || answer.Word(2) != kActuatorFunction) {
        LogMessage(1, u"Bad function code : '%04X' vs '%04X'\r\n", answer.Word(2),
                   kActuatorFunction);
        return false;
    }
    return true;
}

// Steps 2 to 4 of reading values: the elements of the answer from `offset` on into the host's
// array.
uint32_t DecodeValues(const IsoAnswer &answer, uint32_t offset, uint32_t *count,
                      MeasuringValue **values) {
    const uint32_t length = answer.AreaLength(offset);
    const uint8_t *elements = answer.Area(offset);
    bool allocated = false;
    const uint32_t taken =
        IsoTakeValueArray(CountLocalIdValues(length, elements), count, values, allocated);
    if (taken != 0) {
        return taken;
    }
    const uint32_t decoded = DecodeLocalIdValues(*count, *values, length, elements);
    if (decoded != 0 && allocated) {
        std::free(*values);
        *values = nullptr;
    }
    return decoded;
}

} // namespace

uint32_t IsoTakeValueArray(uint32_t n, uint32_t *count, MeasuringValue **values, bool &allocated) {
    if (*values == nullptr) {
        *count = n;
        *values = IsoAllocateRecords<MeasuringValue>(n);
        allocated = true;
        return 0;
    }
    if (n != *count) {
        LogMessage(1, u"Bad measurement zone count: %u vs %u\r\n", n, *count);
        return 1;
    }
    return 0;
}

} // namespace dv

using namespace dv;

extern "C" {

DV_API uint32_t DV_CALL DvVagIsoReadDataByLocalId(uint32_t localId, uint32_t *count,
                                                  MeasuringValue **values) {
    if (count == nullptr || values == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadDataByLocalId(localId, count, values);
    }
    const auto id = static_cast<uint8_t>(localId);
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x21, id}, answer);
    if (result != 0) {
        return result;
    }
    if (!IsoCheckEchoByte(answer, 1, id, u"Bad local id : '%02X' vs '%02X'\r\n")) {
        return kBadEcho;
    }
    return DecodeValues(answer, 2, count, values);
}

DV_API uint32_t DV_CALL DvVagIsoTestActuator(uint32_t next) {
    if (IsoIsSimulated()) {
        return IsoSimulateTestActuator(next);
    }
    const uint8_t routine = next == 0 ? kStartActuatorTest : kNextActuatorStep;
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x31, routine, 0x01, 0x02}, answer);
    if (result != 0) {
        return result;
    }
    return CheckRoutineEcho(answer, routine) ? 0 : kBadEcho;
}

DV_API uint32_t DV_CALL DvVagIsoReadActuatorData(uint32_t *count, MeasuringValue **values) {
    if (count == nullptr || values == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadActuatorData(count, values);
    }
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x31, kActuatorData, 0x01, 0x02}, answer);
    if (result != 0) {
        return result;
    }
    if (!CheckRoutineEcho(answer, kActuatorData)) {
        return kBadEcho;
    }
    return DecodeValues(answer, 5, count, values);
}

} // extern "C"
