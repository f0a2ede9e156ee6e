// A scripted KW1281 ECU on the fake port, for the service tests of Parts 4.4, 4.6 and 4.7: it
// complements every tester byte but the end byte, records each request block, and answers each
// with the next scripted block (title and data; length, counter and end byte are added). The
// link is taken as already connected (no address initialisation), so that a test controls every
// answer byte, also the ones a well-behaved ECU never sends.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "bench/bench.h"
#include "bench/fake_platform.h"
#include "bench/kw1281_ecu.h"
#include "dravelin/dravelin.h"
#include "kw1281/kw1281.h"
#include "serial/serial.h"
#include "support/log_capture.h"

namespace kwtest {

using dv::bench::Fake;
using dv::bench::FakeLine;
using dv::bench::kFakeTicksPerMs;

constexpr uint8_t kEcuAddress = 0x01;

struct FakeKwEcu {
    // Answers still to send, one a request (title, then data).
    std::deque<std::vector<uint8_t>> answers;
    // End byte of the answers (0x03 on a well-behaved ECU).
    uint8_t endByte = 0x03;
    // Every block received from the tester as it stood on the line: length, counter, title,
    // data, end byte.
    std::vector<std::vector<uint8_t>> requests;

    std::vector<uint8_t> incoming;
    std::vector<uint8_t> outgoing; // length, counter, title, data, end byte
    size_t sendIndex = 0;
    bool sending = false;

    void OnWrite(FakeLine &line, const std::vector<uint8_t> &bytes) {
        for (uint8_t byte : bytes) {
            Byte(line, byte);
        }
    }

    // The ECU hears a tester byte one byte time after it was written (with its echo).
    static int64_t Later(const FakeLine &line, int64_t ms) {
        return line.now + 2 * line.ByteTicks() + ms * kFakeTicksPerMs;
    }

    void Byte(FakeLine &line, uint8_t byte) {
        if (sending) {
            // The tester's complement of outgoing[sendIndex].
            ++sendIndex;
            line.QueueInputAt(Later(line, 1), {outgoing[sendIndex]});
            if (sendIndex + 1 == outgoing.size()) {
                sending = false; // the end byte is not complemented
            }
            return;
        }
        incoming.push_back(byte);
        if (incoming.size() <= incoming[0]) {
            line.QueueInputAt(Later(line, 1), {static_cast<uint8_t>(byte ^ 0xFF)});
            return;
        }
        // The end byte: the block is complete.
        requests.push_back(incoming);
        const uint8_t counter = incoming[1];
        incoming.clear();
        if (answers.empty()) {
            return;
        }
        const std::vector<uint8_t> body = answers.front();
        answers.pop_front();
        outgoing.clear();
        outgoing.push_back(static_cast<uint8_t>(body.size() + 2));
        outgoing.push_back(static_cast<uint8_t>(counter + 1));
        outgoing.insert(outgoing.end(), body.begin(), body.end());
        outgoing.push_back(endByte);
        sendIndex = 0;
        sending = true;
        line.QueueInputAt(Later(line, 15), {outgoing[0]});
    }

    // The title and data of request i.
    std::vector<uint8_t> Request(size_t i) const {
        if (i >= requests.size()) {
            return {};
        }
        return std::vector<uint8_t>(requests[i].begin() + 2, requests[i].end() - 1);
    }
};

inline FakeKwEcu &Ecu() {
    static FakeKwEcu ecu;
    return ecu;
}

// Fake platform, library, port open, link connected to address 0x01 with counter 0.
inline void ConnectFakeEcu(uint32_t level = 2) {
    dv::bench::FakeInstall();
    Ecu() = FakeKwEcu{};
    ASSERT_EQ(dvtest::ConstructLibrary(level), 0u);
    Fake().echoWrites = true;
    Fake().onWrite = [](FakeLine &line, const std::vector<uint8_t> &bytes) {
        Ecu().OnWrite(line, bytes);
    };
    ASSERT_EQ(dv::PortOpen(u"COM1", 10400, 256, 256), 0u);
    dv::KwConnectionData &connection = dv::KwConnection();
    connection.address = kEcuAddress;
    connection.state = dv::KwLinkState::Connected;
    dv::KwSetCounter(0);
    dvtest::LogCaptureReset();
}

inline void DisconnectFakeEcu() {
    dv::KwFreeGroupList();
    dv::PortClose();
    dv::KwConnection() = dv::KwConnectionData{};
    DvDestruct();
    Fake().onWrite = nullptr;
    dv::bench::FakeUninstall();
}

// The simulated ECU at 0x80 on the fake clock: connected, log captured from here on.
inline void ConnectSimulator(uint32_t level = 2) {
    dv::bench::FakeInstall();
    ASSERT_EQ(dvtest::ConstructLibrary(level), 0u);
    DvChar **descriptions = nullptr;
    uint32_t interval = 0;
    ASSERT_EQ(DvVagConnect(reinterpret_cast<const DvChar *>(u"COM1"), 9600, 0x80, &descriptions,
                           &interval),
              0u);
    for (DvChar **d = descriptions; d != nullptr && *d != nullptr; ++d) {
        DvFree(*d);
    }
    DvFree(descriptions);
    dvtest::LogCaptureReset();
}

inline void DisconnectSimulator() {
    DvVagDisconnect();
    dv::KwFreeGroupList();
    DvDestruct();
    dv::bench::FakeUninstall();
}

// The bench with a KW1281 profile on the virtual clock, connected with DvVagConnect.
inline void ConnectBench(const char *profile, uint32_t baud, uint8_t address) {
    ASSERT_TRUE(dv::bench::BenchInstall(profile));
    ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
    DvChar **descriptions = nullptr;
    uint32_t interval = 0;
    ASSERT_EQ(DvVagConnect(reinterpret_cast<const DvChar *>(u"COM1"), baud, address, &descriptions,
                           &interval),
              0u);
    for (DvChar **d = descriptions; d != nullptr && *d != nullptr; ++d) {
        DvFree(*d);
    }
    DvFree(descriptions);
    dvtest::LogCaptureReset();
}

inline void DisconnectBench() {
    DvVagDisconnect();
    dv::KwFreeGroupList();
    DvDestruct();
    dv::bench::BenchUninstall();
}

inline dv::bench::Kw1281Ecu &BenchKwEcu() {
    return *static_cast<dv::bench::Kw1281Ecu *>(dv::bench::BenchEcu());
}

// The text of a record, UTF-16 to a plain string of the low bytes.
inline std::u16string TextOf(const MeasuringValue &record) {
    return record.text == nullptr ? std::u16string()
                                  : std::u16string(reinterpret_cast<const char16_t *>(record.text));
}

inline void FreeValues(uint32_t count, MeasuringValue *values) {
    if (values == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < count; ++i) {
        DvFree(values[i].text);
    }
    DvFree(values);
}

// The log lines captured so far (each call's text concatenated).
inline std::string Log() {
    return dvtest::LogText();
}

inline bool LogHas(const std::string &text) {
    return Log().find(text) != std::string::npos;
}

} // namespace kwtest
