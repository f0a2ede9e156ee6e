// The KW1281 layer's module state: set-up and tear-down (Part 1.1 step 6), its settings sub-block
// (Part 1.2), the link buffer, block counter and statistics (Part 3.2) and the connection data
// (Part 3.3).
#include <cstdlib>

#include "frame/frame.h"
#include "kw1281/kw1281.h"

namespace dv {
namespace {
KwSettings gKwSettings;
KwLinkBuffer gBuffer;
uint8_t gCounter = 0;
KwLinkStatistics gStatistics;
KwConnectionData gConnection;

void FreeBuffer() {
    std::free(gBuffer.bytes);
    gBuffer = KwLinkBuffer{};
}
} // namespace

uint32_t KwLayerSetUp() {
    gKwSettings = KwSettings{};
    FreeBuffer();
    gCounter = 0;
    gStatistics = KwLinkStatistics{};
    gConnection = KwConnectionData{};
    return 0;
}

void KwLayerTearDown() {
    FreeBuffer();
}

void KwApplySettings(const KwSettings &settings) {
    gKwSettings = settings;
}

const KwSettings &KwSettingsInForce() {
    return gKwSettings;
}

KwConnectionData &KwConnection() {
    return gConnection;
}

bool KwIsSimulator() {
    return gConnection.address == SIMULATOR_ADDRESS;
}

KwLinkBuffer &KwBuffer() {
    return gBuffer;
}

bool KwGrowBuffer(uint32_t size) {
    if (size <= gBuffer.capacity) {
        return true;
    }
    FreeBuffer();
    gBuffer.bytes = static_cast<uint8_t *>(std::malloc(size));
    if (gBuffer.bytes == nullptr) {
        return false;
    }
    gBuffer.capacity = size;
    return true;
}

void KwEmptyBuffer() {
    if (gBuffer.bytes != nullptr) {
        gBuffer.bytes[0] = 0;
    }
}

uint8_t KwBlockLength() {
    return gBuffer.bytes != nullptr ? gBuffer.bytes[0] : 0;
}

uint8_t KwBlockTitle() {
    return KwBlockLength() >= 3 ? gBuffer.bytes[2] : 0;
}

const uint8_t *KwBlockData() {
    return gBuffer.bytes != nullptr ? gBuffer.bytes + 3 : nullptr;
}

uint32_t KwBlockDataCount() {
    return KwBlockLength() >= 3 ? KwBlockLength() - 3u : 0u;
}

KwLinkStatistics &KwStatistics() {
    return gStatistics;
}

uint8_t KwCounter() {
    return gCounter;
}

void KwSetCounter(uint8_t counter) {
    gCounter = counter;
}

uint8_t KwRaiseCounter() {
    return ++gCounter;
}

void KwLowerCounter() {
    --gCounter;
}

void KwNextCounter(uint8_t received) {
    const uint8_t expected = static_cast<uint8_t>(gCounter + 1);
    gCounter = expected;
    if (received != expected) {
        LogMessage(1, u"Bad block index: '%02X' vs '%02X'\r\n", received, expected);
        gCounter = received;
    }
}

} // namespace dv
