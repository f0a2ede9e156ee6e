// A KWP2000 ECU scripted on the fake platform, for the service suites: it hears the framed
// requests the library writes (byte by byte, 10 ms apart), answers the fast initialisation's
// StartCommunication with its key bytes, and answers service requests as the test says, with
// framed messages on the fake port at ECU timing. StopCommunication is always answered.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/fake_platform.h"
#include "dravelin/dravelin.h"
#include "kwp2000/kwp2000.h"
#include "support/log_capture.h"

namespace kwptest {

using Bytes = std::vector<uint8_t>;
using dv::bench::Fake;
using dv::bench::FakeCall;
using dv::bench::FakeEvent;
using dv::bench::kFakeTicksPerMs;

constexpr uint8_t kTester = 0xF1;
constexpr uint8_t kEcu = 0x10;

inline uint8_t Checksum(const Bytes &bytes) {
    uint32_t sum = 0;
    for (uint8_t b : bytes) {
        sum += b;
    }
    return static_cast<uint8_t>(sum);
}

// A message with address header and the length in the format byte (data up to 63 bytes).
inline Bytes Framed(const Bytes &data, uint8_t target, uint8_t source) {
    Bytes message{static_cast<uint8_t>(0x80 | data.size()), target, source};
    message.insert(message.end(), data.begin(), data.end());
    message.push_back(Checksum(message));
    return message;
}

// What the tester sends to the ECU for `data`.
inline Bytes Request(const Bytes &data) {
    return Framed(data, kEcu, kTester);
}

// What the ECU answers with `data`.
inline Bytes Answer(const Bytes &data) {
    return Framed(data, kTester, kEcu);
}

class FakeKwpEcu {
public:
    // The answer messages (whole framed messages) to one request's data; none: silent.
    using Responder = std::function<std::vector<Bytes>(const Bytes &request)>;

    Responder respond = [](const Bytes &) { return std::vector<Bytes>{}; };
    bool answerStartCommunication = true;
    uint8_t keyByte1 = 0xEF; // address header, length in format byte, extended timing (bit 5)
    int64_t answerDelayMs = 25;
    std::vector<Bytes> requests; // the data of every request heard (service id first)

    void Install() {
        Fake().onWrite = [this](dv::bench::FakeLine &line, const Bytes &written) {
            Hear(line, written);
        };
    }

    // Answers every service request with the one message `data` (framed).
    void AnswerAlways(const Bytes &data) {
        respond = [data](const Bytes &) { return std::vector<Bytes>{Answer(data)}; };
    }

    // Answers requests in turn with the given data; silent once they are used up.
    void AnswerInTurn(std::vector<Bytes> answers) {
        auto next = std::make_shared<size_t>(0);
        respond = [answers, next](const Bytes &) {
            if (*next >= answers.size()) {
                return std::vector<Bytes>{};
            }
            return std::vector<Bytes>{Answer(answers[(*next)++])};
        };
    }

    // How many requests with service id `sid` were heard.
    int Count(uint8_t sid) const {
        int n = 0;
        for (const Bytes &r : requests) {
            n += !r.empty() && r[0] == sid;
        }
        return n;
    }

private:
    Bytes pending_;

    void Hear(dv::bench::FakeLine &line, const Bytes &written) {
        pending_.insert(pending_.end(), written.begin(), written.end());
        const uint8_t format = pending_[0];
        size_t header = (format >> 6) == 2 ? 3 : 1;
        size_t length = format & 0x3F;
        if (length == 0) {
            if (pending_.size() <= header) {
                return;
            }
            length = pending_[header];
            ++header;
        }
        if (pending_.size() < header + length + 1) {
            return;
        }
        const Bytes data(pending_.begin() + static_cast<std::ptrdiff_t>(header),
                         pending_.begin() + static_cast<std::ptrdiff_t>(header + length));
        pending_.clear();
        requests.push_back(data);
        std::vector<Bytes> answers;
        if (data == Bytes{0x81}) {
            if (answerStartCommunication) {
                answers.push_back(Answer({0xC1, keyByte1, 0x8F}));
            }
        } else if (data == Bytes{0x82}) {
            answers.push_back(Answer({0xC2}));
        } else {
            answers = respond(data);
        }
        // The answer starts P2 after the request's last byte has left the line.
        int64_t at = line.now + line.ByteTicks() + answerDelayMs * kFakeTicksPerMs;
        for (const Bytes &message : answers) {
            for (uint8_t b : message) {
                at += line.ByteTicks();
                line.QueueInputAt(at, {b});
            }
            at += kFakeTicksPerMs;
        }
    }
};

// The suites' base: the fake platform with a KKL adapter's echo, the library constructed with
// the log captured, and a fast-initialised link to the scripted ECU at address 0x10.
class KwpFakeTest : public ::testing::Test {
protected:
    FakeKwpEcu ecu;

    void SetUp() override {
        dv::bench::FakeInstall();
        Fake().echoWrites = true;
        Fake().breakEchoes = true;
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        ecu.Install();
    }

    void TearDown() override {
        if (Fake().portOpen) {
            DvIsoStopCommunication();
        }
        DvDestruct();
        dv::bench::FakeUninstall();
    }

    // Starts the link with fast init and forgets what happened so far.
    void Start() {
        uint32_t keepAlive = 0;
        ASSERT_EQ(DvIsoStartCommunication(u16("COM1"), 1, kEcu, &keepAlive), 0u);
        Forget();
    }

    void Forget() {
        Fake().events.clear();
        ecu.requests.clear();
        dvtest::LogCaptureReset();
    }

    static const DvChar *u16(const char *ascii) {
        static std::vector<DvChar> text;
        text.assign(ascii, ascii + std::char_traits<char>::length(ascii) + 1);
        return text.data();
    }

    // Every byte written since the last Forget.
    static Bytes Written() { return Fake().Written(); }

    // True when one callback call delivered exactly `line` (a line logged outside an exchange
    // section; the decoded text starts with the header's CR LF).
    static bool Logged(const std::string &line) {
        for (const std::string &call : dvtest::LogCalls()) {
            if (call == "\r\n" + line) {
                return true;
            }
        }
        return false;
    }

    // True when the whole log contains `text`.
    static bool LogHas(const std::string &text) {
        return dvtest::LogText().find(text) != std::string::npos;
    }

    static int64_t NowMs() { return Fake().NowMs(); }
};

} // namespace kwptest
