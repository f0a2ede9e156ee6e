// Shared helpers of the KW1281 suites that run on the bench: a fixture that installs an
// emulated KW1281 ECU and the library, and readers of the descriptions, the log and the trace.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/kw1281_ecu.h"
#include "frame/frame.h"
#include "kw1281/kw1281.h"
#include "support/log_capture.h"

namespace dvtest {

// The strings of a descriptions array; frees the array and its strings as a host does.
inline std::vector<std::string> TakeDescriptions(DvChar **descriptions) {
    std::vector<std::string> result;
    for (DvChar **item = descriptions; item != nullptr && *item != nullptr; ++item) {
        std::string text;
        for (const DvChar *c = *item; *c != 0; ++c) {
            text.push_back(static_cast<char>(*c));
        }
        result.push_back(text);
        DvFree(*item);
    }
    DvFree(descriptions);
    return result;
}

// Whether the decoded log holds these texts in this order.
inline ::testing::AssertionResult LogHasInOrder(const std::vector<std::string> &texts) {
    const std::string log = LogText();
    size_t at = 0;
    for (const std::string &text : texts) {
        const size_t found = log.find(text, at);
        if (found == std::string::npos) {
            return ::testing::AssertionFailure() << "missing in order: \"" << text << "\"\nlog:\n"
                                                 << log;
        }
        at = found + text.size();
    }
    return ::testing::AssertionSuccess();
}

inline int LogCount(const std::string &text) {
    const std::string log = LogText();
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

// The pauses slept by the library (sleeps of 500 ms and more; the shorter ones are bit times,
// block pauses and polls).
inline std::vector<uint32_t> Pauses(size_t fromTraceIndex = 0) {
    std::vector<uint32_t> pauses;
    const auto &trace = dv::bench::BenchTrace();
    for (size_t i = fromTraceIndex; i < trace.size(); ++i) {
        if (trace[i].kind == dv::bench::TraceKind::Sleep && trace[i].value >= 500) {
            pauses.push_back(trace[i].value);
        }
    }
    return pauses;
}

inline size_t TraceCount(dv::bench::TraceKind kind) {
    return dv::bench::BenchTraceOf(kind).size();
}

// The read-timeout constants the tester set, in order.
inline std::vector<uint32_t> TimeoutConstants() {
    std::vector<uint32_t> values;
    for (const auto &entry : dv::bench::BenchTraceOf(dv::bench::TraceKind::SetTimeouts)) {
        values.push_back(entry.extra & 0xFFFF);
    }
    return values;
}

class KwBenchTest : public ::testing::Test {
protected:
    void Install(dv::bench::Kw1281Profile profile, uint32_t level = 2) {
        auto ecu = std::make_unique<dv::bench::Kw1281Ecu>(std::move(profile));
        ecu_ = ecu.get();
        dv::bench::BenchInstall(std::move(ecu));
        ASSERT_EQ(ConstructLibrary(level), 0u);
    }
    void InstallEngine(uint32_t level = 2) { Install(dv::bench::Kw1281EngineProfile(), level); }
    void InstallCluster(uint32_t level = 2) { Install(dv::bench::Kw1281ClusterProfile(), level); }
    void TearDown() override {
        TakeDescriptions(descriptions_);
        DvDestruct();
        dv::bench::BenchUninstall();
    }
    void Settings(const std::function<void(DvSettings &)> &change) {
        DvSettings settings{};
        DvGetSettings(&settings);
        change(settings);
        ASSERT_EQ(DvSetSettings(&settings), 0u);
    }
    uint32_t Connect(uint32_t address, uint32_t baud) {
        TakeDescriptions(descriptions_);
        descriptions_ = nullptr;
        return DvVagConnect(reinterpret_cast<const DvChar *>(u"COM1"), baud, address,
                            &descriptions_, &interval_);
    }
    uint32_t ConnectEngine() { return Connect(0x01, 10400); }
    uint32_t ConnectCluster() { return Connect(0x17, 9600); }
    std::vector<std::string> Descriptions() {
        std::vector<std::string> result = TakeDescriptions(descriptions_);
        descriptions_ = nullptr;
        return result;
    }
    // The ECU drops the link when the next tester block is complete.
    void DropLinkAtNextBlock() { ecu_->faults.dropLinkAtBlock = ecu_->BlocksReceived() + 1; }
    // The next `count` tester bytes after the next `skip` never reach the ECU.
    void DropTesterBytes(int skip, int count) {
        const int first = static_cast<int>(TraceCount(dv::bench::TraceKind::TesterByte)) + skip + 1;
        for (int i = 0; i < count; ++i) {
            dv::bench::BenchFault().DropTesterByte(first + i);
        }
    }

    dv::bench::Kw1281Ecu *ecu_ = nullptr;
    DvChar **descriptions_ = nullptr;
    uint32_t interval_ = 0;
};

// What the engine profile's identification reads as.
inline const std::vector<std::string> kEngineDescriptions = {
    "038906019FR", "1,9l R4 EDC",       "G000SG",        "2337", "$SC:01503",
    "$WC:12345",   "WVWZZZ1JZXW000001", "VWZ7Z0X1234567"};
inline const std::vector<std::string> kClusterDescriptions = {
    "1J0920826C", "KOMBI+WEGFAHRSP. VDO V50", "0001", "$SC:00033", "$WC:65659"};

} // namespace dvtest
