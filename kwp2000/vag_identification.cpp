// Manufacturer session, general identification and capabilities over KWP2000 (Part 6.1).
#include <algorithm>
#include <cstdlib>

#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "kwp2000/service.h"
#include "kwp2000/simulator.h"

namespace dv {

namespace {

constexpr uint32_t kBadArgument = 1;
constexpr uint32_t kConversionFailed = 1;
constexpr uint32_t kBadEcho = 7;

constexpr uint8_t kIdentificationOption = 0x9B;
constexpr uint32_t kPartNumberAt = 2;
constexpr uint32_t kPartNumberLength = 12;
constexpr uint32_t kComponentTextAt = 28;
constexpr uint32_t kComponentTextEnd = 48;
constexpr uint8_t kCapabilitiesLocalId = 0xB8;

// The identification numbers, from the answer bytes counted from the service id.
void FillNumbers(const IsoAnswer &answer, EcuIdentification &record) {
    record.coding = ((answer.At(19) & 0x0Fu) << 16) | (answer.At(20) << 8) | answer.At(21);
    record.workshopCode = ((answer.At(25) & 0x01u) << 16) | (answer.At(26) << 8) | answer.At(27);
    record.extraCode = ((answer.At(24) & 0x07u) << 7) | (answer.At(25) >> 1);
}

// Converts the bytes [from, to) of the answer, as far as the answer holds them.
DvChar *ConvertAnswerText(const IsoAnswer &answer, uint32_t from, uint32_t to) {
    const uint32_t end = std::min(answer.Length(), to);
    return IsoConvertText(answer.Area(from), end > from ? end - from : 0);
}

// Each capability code sets one bit of the mask; other codes are ignored.
uint32_t CapabilityBit(uint32_t code) {
    switch (code) {
    case 0x0106: return 0x01;
    case 0x0101: return 0x02;
    case 0x0102: return 0x04;
    case 0x0103: return 0x08;
    case 0x0104: return 0x10;
    case 0x0105: return 0x20;
    default: return 0;
    }
}

} // namespace

} // namespace dv

using namespace dv;

extern "C" {

DV_API uint32_t DV_CALL DvVagIsoStartDiagnosticSession(uint32_t mode) {
    if (mode == 1) {
        return IsoStartSession(0x89);
    }
    return DvIsoStartDiagnosticSession(mode);
}

DV_API uint32_t DV_CALL DvVagIsoReadEcuIdentificationGeneral(EcuIdentification *record) {
    if (record == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadEcuIdentification(record);
    }
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x1A, kIdentificationOption}, answer);
    if (result != 0) {
        return result;
    }
    if (!IsoCheckEchoByte(answer, 1, kIdentificationOption,
                          u"Bad identification option : '%02X' vs '%02X'\r\n")) {
        return kBadEcho;
    }
    DvChar *partNumber =
        ConvertAnswerText(answer, kPartNumberAt, kPartNumberAt + kPartNumberLength);
    if (partNumber == nullptr) {
        return kConversionFailed;
    }
    DvChar *componentText = ConvertAnswerText(answer, kComponentTextAt, kComponentTextEnd);
    if (componentText == nullptr) {
        std::free(partNumber);
        return kConversionFailed;
    }
    record->partNumber = partNumber;
    record->componentText = componentText;
    FillNumbers(answer, *record);
    return 0;
}

DV_API uint32_t DV_CALL DvVagIsoReadCapabilities(uint32_t *mask) {
    if (mask == nullptr) {
        return kBadArgument;
    }
    if (IsoIsSimulated()) {
        return IsoSimulateReadCapabilities(mask);
    }
    IsoAnswer answer;
    const uint32_t result = IsoServiceRequest({0x31, kCapabilitiesLocalId, 0x00, 0x00}, answer);
    if (result != 0) {
        return result;
    }
    if (!IsoCheckEchoByte(answer, 1, kCapabilitiesLocalId,
                          u"Bad routine local id : '%02X' vs '%02X'\r\n")) {
        return kBadEcho;
    }
    uint32_t bits = 0;
    for (uint32_t i = 0; i < answer.AreaLength(2) / 2; ++i) {
        bits |= CapabilityBit(answer.Word(2 + 2 * i));
    }
    *mask = bits;
    return 0;
}

} // extern "C"
