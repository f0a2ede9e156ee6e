// The simulated KWP2000 link (target 0xFF, module 0x80): the answers of every service without
// the line. They read and change the simulator state of Parts 6.2 and 6.3 (VagIsoSimulator in
// kwp2000.h, reset by DvVagIsoStartCommunication for module 0x80).
#pragma once

#include <cstdint>

#include "dravelin/dravelin.h"

namespace dv {

// Part 5.3 step 1: every service without data of its own sleeps 100 ms and succeeds.
uint32_t IsoSimulateService();
uint32_t IsoSimulateReadDtc(uint32_t *count, uint16_t **codes);

// Part 6.1.
uint32_t IsoSimulateReadEcuIdentification(EcuIdentification *record);
uint32_t IsoSimulateReadCapabilities(uint32_t *mask);

// Part 6.2. `group` is used when `byGroup` is set (the extended form).
uint32_t IsoSimulateReadDtcByStatus(uint32_t status, bool byGroup, uint32_t group, uint32_t *count,
                                    DtcEntry **entries);
uint32_t IsoSimulateClearDtcGroup(uint32_t group);
uint32_t IsoSimulateReadFreezeFrame(uint32_t code, uint32_t *count, MeasuringValue **values);

// Part 6.3.
uint32_t IsoSimulateReadDataByLocalId(uint32_t localId, uint32_t *count, MeasuringValue **values);
uint32_t IsoSimulateTestActuator(uint32_t next);
uint32_t IsoSimulateReadActuatorData(uint32_t *count, MeasuringValue **values);

} // namespace dv
