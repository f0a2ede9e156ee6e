// Manufacturer DTC services over KWP2000 (Part 6.2): trouble codes by status and group, clearing
// by group, freeze frames.
#include <algorithm>
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
constexpr uint8_t kFreezeFrameIndex = 0x00;

// Status selector values 0, 1 and 2 name the usual selections; others are sent as they are.
uint8_t StatusSelectorOf(uint32_t status) {
    switch (status) {
    case 0: return 0x03;
    case 1: return 0x02;
    case 2: return 0x11;
    default: return static_cast<uint8_t>(status);
    }
}

// Group 0 (all groups) goes on the line as FF 00.
uint8_t GroupHigh(uint32_t group) {
    return group == 0 ? 0xFF : static_cast<uint8_t>(group >> 8);
}
uint8_t GroupLow(uint32_t group) {
    return static_cast<uint8_t>(group);
}

// 58 n, then n entries of code (big-endian) and status; as many as the answer holds.
uint32_t ReadDtcEntries(const IsoAnswer &answer, uint32_t *count, DtcEntry **entries) {
    const uint32_t n = std::min<uint32_t>(answer.At(1), answer.AreaLength(2) / 3);
    auto *array = IsoAllocateRecords<DtcEntry>(n);
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t at = 2 + 3 * i;
        array[i] = DtcEntry{0, static_cast<uint16_t>(answer.Word(at)),
                            static_cast<uint8_t>(answer.At(at + 2) & 0x0F)};
    }
    *count = n;
    *entries = array;
    return 0;
}

uint32_t ReadDtcByStatus(std::initializer_list<uint8_t> request, uint32_t *count,
                         DtcEntry **entries) {
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest(request, answer);
    if (result != 0) {
        return result;
    }
    return ReadDtcEntries(answer, count, entries);
}

// The group code as the log shows it: its two bytes taken low byte first.
uint32_t GroupLowFirst(uint8_t first, uint8_t second) {
    return first | (second << 8);
}

} // namespace

} // namespace dv

using namespace dv;

extern "C" {

DV_API uint32_t DV_CALL DvVagIsoReadDtcByStatus(uint32_t status, uint32_t *count,
                                                DtcEntry **entries) {
    if (count == nullptr || entries == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadDtcByStatus(status, false, 0, count, entries);
    }
    return ReadDtcByStatus({0x18, StatusSelectorOf(status)}, count, entries);
}

DV_API uint32_t DV_CALL DvVagIsoReadDtcByStatusExtended(uint32_t status, uint32_t group,
                                                        uint32_t *count, DtcEntry **entries) {
    if (count == nullptr || entries == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadDtcByStatus(status, true, group, count, entries);
    }
    return ReadDtcByStatus({0x18, StatusSelectorOf(status), GroupHigh(group), GroupLow(group)},
                           count, entries);
}

DV_API uint32_t DV_CALL DvVagIsoClearDiagnosticInformationExtended(uint32_t group) {
    if (IsoIsSimulated()) {
        return IsoSimulateClearDtcGroup(group);
    }
    const uint8_t high = GroupHigh(group);
    const uint8_t low = GroupLow(group);
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x14, high, low}, answer);
    if (result != 0) {
        return result;
    }
    if (!answer.Has(2) || answer.At(1) != high || answer.At(2) != low) {
        LogMessage(1, u"Bad DTC group code : '%04X' vs '%04X'\r\n",
                   GroupLowFirst(answer.At(1), answer.At(2)), GroupLowFirst(high, low));
        return kBadEcho;
    }
    return 0;
}

DV_API uint32_t DV_CALL DvVagIsoReadFreezeFrameDataByDtc(uint32_t code, uint32_t *count,
                                                         MeasuringValue **values) {
    if (count == nullptr || values == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadFreezeFrame(code, count, values);
    }
    IsoAnswer answer;
    const uint32_t result =
        IsoServiceRequest({0x12, kFreezeFrameIndex, 0x04, static_cast<uint8_t>(code >> 8),
                           static_cast<uint8_t>(code)},
                          answer);
    if (result != 0) {
        return result;
    }
    if (!IsoCheckEchoByte(answer, 1, kFreezeFrameIndex,
                          u"Bad freeze frame index : '%02X' vs '%02X'\r\n")) {
        return kBadEcho;
    }
    // The elements leave the answer's last three bytes out.
    const uint32_t length = answer.AreaLength(2, 3);
    const uint8_t *elements = answer.Area(2);
    const uint32_t n = CountLocalIdValues(length, elements);
    auto *array = IsoAllocateRecords<MeasuringValue>(n);
    const uint32_t decoded = DecodeLocalIdValues(n, array, length, elements);
    if (decoded != 0) {
        std::free(array);
        return decoded;
    }
    *count = n;
    *values = array;
    return 0;
}

} // extern "C"
