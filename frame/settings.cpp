// The settings record (Part 1.2): three sub-blocks validated by the frame and kept by their
// layers.
#include <algorithm>

#include "frame/frame.h"

namespace dv {
namespace {

constexpr uint32_t kRefused = 1;

// The bounds are computed in 64 bits so that huge words cannot wrap them into acceptance.
bool IsoValid(const DvSettings &s) {
    if (s.P1max == 0) {
        return false;
    }
    if (s.P2max <= uint64_t{std::max<uint32_t>(s.P1max, 20)} + 5) {
        return false;
    }
    return s.isoConnectAttempts != 0 && s.isoRequestAttempts != 0;
}

bool KwValid(const DvSettings &s) {
    if (s.connectRetries == 0 || s.serviceRetries == 0 || s.blockSendRetries == 0 ||
        s.silenceReads == 0) {
        return false;
    }
    return s.initTimeout <= 3 * uint64_t{s.blockTimeout};
}

IsoSettings IsoSubBlock(const DvSettings &s) {
    IsoSettings iso;
    iso.P2max = s.P2max;
    iso.P1max = s.P1max;
    iso.connectAttempts = s.isoConnectAttempts;
    iso.requestAttempts = s.isoRequestAttempts;
    iso.testerAddress = static_cast<uint8_t>(s.testerAddress & 0xFF);
    return iso;
}

KwSettings KwSubBlock(const DvSettings &s) {
    KwSettings kw;
    kw.connectRetries = s.connectRetries;
    kw.serviceRetries = s.serviceRetries;
    kw.blockSendRetries = s.blockSendRetries;
    kw.silenceReads = s.silenceReads;
    kw.initTimeout = s.initTimeout;
    kw.keywordTimeout = s.keywordTimeout;
    kw.blockTimeout = s.blockTimeout;
    kw.byteTimeout = s.byteTimeout;
    return kw;
}

} // namespace
} // namespace dv

extern "C" {

DV_API uint32_t DV_CALL DvSetSettings(const DvSettings *settings) {
    if (settings == nullptr) {
        return dv::kRefused;
    }
    const uint32_t code = dv::SerialApplyDtrSetting(settings->dtrOn);
    if (code != 0) {
        return code;
    }
    if (!dv::IsoValid(*settings)) {
        return dv::kRefused;
    }
    dv::IsoApplySettings(dv::IsoSubBlock(*settings));
    if (!dv::KwValid(*settings)) {
        return dv::kRefused;
    }
    dv::KwApplySettings(dv::KwSubBlock(*settings));
    return 0;
}

DV_API void DV_CALL DvGetSettings(DvSettings *settings) {
    if (settings == nullptr) {
        return;
    }
    const dv::IsoSettings &iso = dv::IsoSettingsInForce();
    const dv::KwSettings &kw = dv::KwSettingsInForce();
    settings->dtrOn = dv::SerialDtrSetting();
    settings->P2max = iso.P2max;
    settings->P1max = iso.P1max;
    settings->isoConnectAttempts = iso.connectAttempts;
    settings->isoRequestAttempts = iso.requestAttempts;
    // Only the low byte of word 5 is written; the caller's other three bytes stay.
    settings->testerAddress = (settings->testerAddress & 0xFFFFFF00u) | iso.testerAddress;
    settings->connectRetries = kw.connectRetries;
    settings->serviceRetries = kw.serviceRetries;
    settings->blockSendRetries = kw.blockSendRetries;
    settings->silenceReads = kw.silenceReads;
    settings->initTimeout = kw.initTimeout;
    settings->keywordTimeout = kw.keywordTimeout;
    settings->blockTimeout = kw.blockTimeout;
    settings->byteTimeout = kw.byteTimeout;
}

} // extern "C"
