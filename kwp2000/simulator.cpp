// The simulated KWP2000 link (target 0xFF): built-in answers of Parts 5.3 and 6.1 to 6.3.
#include "kwp2000/simulator.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/frame.h"
#include "kwp2000/kwp2000.h"
#include "kwp2000/service.h"

namespace dv {

namespace {

constexpr uint32_t kNotAvailable = 0x111;
constexpr uint16_t kSet1Code = 0x020A;
constexpr uint8_t kSet1Status = 10;
constexpr uint16_t kSet2Code = 0x0206;
constexpr uint8_t kSet2Status = 8;
constexpr uint16_t kFirstActuator = 1262;
constexpr uint16_t kSecondActuator = 1264;

struct SimValue {
    uint8_t kind;
    int32_t value;
};

DvChar *CopyText(const char16_t *text) {
    const size_t units = std::char_traits<char16_t>::length(text) + 1;
    auto *copy = static_cast<char16_t *>(std::malloc(units * sizeof(char16_t)));
    std::memcpy(copy, text, units * sizeof(char16_t));
    return reinterpret_cast<DvChar *>(copy);
}

void Fill(MeasuringValue *values, const SimValue (&records)[4]) {
    for (const SimValue &record : records) {
        *values++ = MeasuringValue{record.kind, record.value, nullptr};
    }
}

// The four records of local id 1 (and of the first actuator's data) into the host's array.
uint32_t FillFour(uint32_t *count, MeasuringValue **values, const SimValue (&records)[4]) {
    bool allocated = false;
    const uint32_t result = IsoTakeValueArray(4, count, values, allocated);
    if (result == 0) {
        Fill(*values, records);
    }
    return result;
}

// The third value of local id 1 swings between 900 and 1100 with a period of 4 s.
int32_t SwingingValue() {
    const double t = static_cast<double>(TickCount());
    return 1000 - static_cast<int32_t>(-100.0 * std::sin(t * 0.0015707963267948967));
}

bool InGroup(bool byGroup, uint32_t group, uint16_t code) {
    return !byGroup || group == 0 || group == code;
}

} // namespace

uint32_t IsoSimulateService() {
    SleepMs(100);
    return 0;
}

uint32_t IsoSimulateReadDtc(uint32_t *count, uint16_t **codes) {
    SleepMs(100);
    auto *array = IsoAllocateRecords<uint16_t>(2);
    array[0] = 0x0102;
    array[1] = 0x0119;
    *count = 2;
    *codes = array;
    return 0;
}

uint32_t IsoSimulateReadEcuIdentification(EcuIdentification *record) {
    SleepMs(200);
    record->partNumber = CopyText(u"8D0923512S");
    record->componentText = CopyText(u"SIMULATOR");
    record->coding = 4001;
    record->workshopCode = 0;
    record->extraCode = 0;
    return 0;
}

uint32_t IsoSimulateReadCapabilities(uint32_t *mask) {
    SleepMs(100);
    *mask = 5;
    return 0;
}

uint32_t IsoSimulateReadDtcByStatus(uint32_t status, bool byGroup, uint32_t group, uint32_t *count,
                                    DtcEntry **entries) {
    const VagIsoSimulator &simulator = VagIsoSimulatorState();
    SleepMs(100);
    // Room for both sets, also when none is reported.
    auto *array = static_cast<DtcEntry *>(std::malloc(2 * sizeof(DtcEntry)));
    uint32_t n = 0;
    if (status == 0 || status == 1) {
        if (simulator.dtcSet1 && InGroup(byGroup, group, kSet1Code)) {
            array[n] = DtcEntry{n, kSet1Code, kSet1Status};
            ++n;
        }
        if (simulator.dtcSet2 && InGroup(byGroup, group, kSet2Code)) {
            array[n] = DtcEntry{n, kSet2Code, kSet2Status};
            ++n;
        }
    }
    *count = n;
    *entries = array;
    return 0;
}

uint32_t IsoSimulateClearDtcGroup(uint32_t group) {
    VagIsoSimulator &simulator = VagIsoSimulatorState();
    if (group == 0 || group == kSet1Code) {
        simulator.dtcSet1 = false;
    }
    if (group == 0 || group == kSet2Code) {
        simulator.dtcSet2 = false;
    }
    SleepMs(100);
    return 0;
}

uint32_t IsoSimulateReadFreezeFrame(uint32_t code, uint32_t *count, MeasuringValue **values) {
    const VagIsoSimulator &simulator = VagIsoSimulatorState();
    if (code != kSet2Code || !simulator.dtcSet2) {
        SleepMs(100);
        return kNotAvailable;
    }
    SleepMs(200);
    auto *array = IsoAllocateRecords<MeasuringValue>(4);
    Fill(array, {{1, 8000}, {5, 920}, {11, 1082}, {16, 23360}});
    *count = 4;
    *values = array;
    return 0;
}

uint32_t IsoSimulateReadDataByLocalId(uint32_t localId, uint32_t *count, MeasuringValue **values) {
    if (localId != 1) {
        SleepMs(100);
        return kNotAvailable;
    }
    SleepMs(200);
    return FillFour(count, values, {{1, 8000}, {5, 920}, {11, SwingingValue()}, {16, 23360}});
}

uint32_t IsoSimulateTestActuator(uint32_t next) {
    VagIsoSimulator &simulator = VagIsoSimulatorState();
    if (next == 0) {
        simulator.actuator = kFirstActuator;
        simulator.stepFlag = 0;
        SleepMs(100);
        return 0;
    }
    SleepMs(100);
    if (simulator.stepFlag == 0) {
        if (simulator.actuator == 0) {
            return kNotAvailable;
        }
        simulator.stepFlag = 1;
        return 0;
    }
    simulator.actuator = simulator.actuator == kFirstActuator ? kSecondActuator : 0;
    simulator.stepFlag = 0;
    return 0;
}

uint32_t IsoSimulateReadActuatorData(uint32_t *count, MeasuringValue **values) {
    const VagIsoSimulator &simulator = VagIsoSimulatorState();
    if (simulator.stepFlag == 0) {
        SleepMs(100);
        // Always a new array, as the simulated ECU of the design does: the host passes its
        // previous array back only for the actuator's four values.
        auto *array = IsoAllocateRecords<MeasuringValue>(1);
        array[0] = MeasuringValue{0, simulator.actuator, nullptr};
        *count = 1;
        *values = array;
        return 0;
    }
    if (simulator.actuator != kFirstActuator) {
        SleepMs(100);
        return kNotAvailable;
    }
    SleepMs(200);
    return FillFour(count, values, {{1, 0}, {52, 2220}, {18, 21900}, {2, 2560}});
}

} // namespace dv
