// Part 4.2: reading and clearing the ECU's fault memory.
#include <cstdlib>

#include "kw1281/kw1281.h"

namespace dv {
namespace {

constexpr uint32_t kSimulatorFaultsMs = 100;
constexpr uint32_t kInitialRecords = 8;
constexpr uint32_t kEntrySize = 3;

struct FaultList {
    FaultRecord *records = nullptr;
    uint32_t count = 0;
    uint32_t capacity = 0;

    bool Reserve(uint32_t total) {
        const uint32_t grown = KwFaultCapacity(capacity, total);
        if (grown == capacity) {
            return true;
        }
        auto *bigger =
            static_cast<FaultRecord *>(std::realloc(records, grown * sizeof(FaultRecord)));
        if (bigger == nullptr) {
            return false;
        }
        records = bigger;
        capacity = grown;
        return true;
    }

    // The entries of the 0xFC block in the link buffer; a remainder of the data is ignored.
    bool AppendBlock() {
        const uint8_t *data = KwBlockData();
        const uint32_t entries = KwBlockDataCount() / kEntrySize;
        if (!Reserve(count + entries)) {
            return false;
        }
        for (uint32_t i = 0; i < entries; ++i) {
            const uint8_t *entry = data + i * kEntrySize;
            FaultRecord &record = records[count++];
            record = FaultRecord{};
            record.intermittent = (entry[2] & 0x80) != 0 ? 1 : 0;
            record.code = static_cast<uint16_t>(entry[0] << 8 | entry[1]);
            record.elaboration = static_cast<uint8_t>(entry[2] & 0x7F);
        }
        return true;
    }
};

uint32_t SimulateFaults(FaultList &list) {
    static constexpr FaultRecord kEmpty = {1, 0xFFFF, 8};
    static constexpr FaultRecord kFilled[] = {{0, 522, 30}, {1, 518, 27}};
    const bool filled = KwConnection().simulator.faultsFilled != 0;
    const uint32_t count = filled ? 2 : 1;
    list.records = static_cast<FaultRecord *>(std::malloc(count * sizeof(FaultRecord)));
    if (list.records == nullptr) {
        return kKwNoMemory;
    }
    for (uint32_t i = 0; i < count; ++i) {
        list.records[i] = filled ? kFilled[i] : kEmpty;
    }
    list.count = list.capacity = count;
    return 0;
}

// The answer to a read or clear request: 0xFC blocks, each acknowledged, until the ECU's
// acknowledge. `list` keeps the records (null: they are discarded).
uint32_t ReceiveFaultBlocks(FaultList *list) {
    if (list != nullptr) {
        list->count = 0;
    }
    for (;;) {
        uint32_t code = KwReceiveAnswer();
        const uint8_t title = KwBlockTitle();
        if (code == 0 && title == kKwTitleAcknowledge) {
            KwEmptyBuffer();
            return 0;
        }
        if (code == 0 && title != kKwTitleFaults) {
            code = KwBadBlockType(title, kKwTitleFaults);
        }
        if (code == 0 && list != nullptr && !list->AppendBlock()) {
            code = kKwNoMemory;
        }
        KwEmptyBuffer();
        if (code != 0) {
            return code;
        }
        if (const uint32_t ack = KwAcknowledge(); ack != 0) {
            return ack;
        }
    }
}

} // namespace

uint32_t KwFaultCapacity(uint32_t capacity, uint32_t total) {
    return total <= capacity ? capacity : (total / 8 + 1) * 8;
}

} // namespace dv

using namespace dv;

extern "C" {

DV_API uint32_t DV_CALL DvVagGetFaults(uint32_t *count, FaultRecord **faults) {
    FaultList list;
    uint32_t code = 0;
    if (KwIsSimulator()) {
        KwSimulatorDelay(kSimulatorFaultsMs);
        code = SimulateFaults(list);
    } else {
        list.records =
            static_cast<FaultRecord *>(std::malloc(kInitialRecords * sizeof(FaultRecord)));
        if (list.records == nullptr) {
            return kKwNoMemory;
        }
        list.capacity = kInitialRecords;
        static constexpr uint8_t kRequest[] = {kKwTitleReadFaults};
        code = KwRunExchange(kRequest, [&]() { return ReceiveFaultBlocks(&list); });
    }
    if (code != 0 || count == nullptr || faults == nullptr) {
        std::free(list.records);
        return code;
    }
    *count = list.count;
    *faults = list.records;
    return 0;
}

DV_API uint32_t DV_CALL DvVagClearFaults(void) {
    static constexpr uint8_t kRequest[] = {kKwTitleClearFaults};
    return KwRunService(
        kSimulatorFaultsMs,
        []() -> uint32_t {
            KwConnection().simulator.faultsFilled = 0;
            return 0;
        },
        kRequest, []() { return ReceiveFaultBlocks(nullptr); });
}

} // extern "C"
