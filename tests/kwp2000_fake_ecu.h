// A scripted KWP2000 ECU on the fake port, for the KWP2000 link suites: it collects the framed
// requests the tester writes and answers each with the next scripted reply, at chosen times.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "bench/fake_platform.h"

namespace dvtest {

using dv::bench::Fake;
using dv::bench::FakeLine;
using dv::bench::kFakeTicksPerMs;
using Bytes = std::vector<uint8_t>;

inline uint8_t Sum(const Bytes &bytes) {
    uint32_t sum = 0;
    for (uint8_t b : bytes) {
        sum += b;
    }
    return static_cast<uint8_t>(sum);
}

// An ECU message with address header: 80|L, target (tester), source (ECU), data, checksum.
inline Bytes EcuMessage(const Bytes &data, uint8_t tester = 0xF1, uint8_t source = 0x10) {
    Bytes message = {static_cast<uint8_t>(0x80 | data.size()), tester, source};
    message.insert(message.end(), data.begin(), data.end());
    message.push_back(Sum(message));
    return message;
}

inline Bytes Concat(const Bytes &a, const Bytes &b) {
    Bytes c = a;
    c.insert(c.end(), b.begin(), b.end());
    return c;
}

// Part of a reply: bytes put on the line `afterMs` after the request's last byte was written,
// one byte time apart.
struct ReplyPart {
    int64_t afterMs;
    Bytes bytes;
};
using Reply = std::vector<ReplyPart>; // empty: the ECU stays silent

// Hex text "81 10 F1 3E C0" of bytes, for readable assertions.
inline std::string Hex(const Bytes &bytes) {
    static const char *digits = "0123456789ABCDEF";
    std::string text;
    for (uint8_t b : bytes) {
        if (!text.empty()) {
            text += ' ';
        }
        text += digits[b >> 4];
        text += digits[b & 15];
    }
    return text;
}

class FakeKwpEcu {
public:
    std::deque<Reply> replies;        // one per request, in order; silence when none is left
    std::vector<Bytes> requests;      // every complete request seen
    std::vector<int64_t> requestEnds; // virtual tick of each request's last byte
    // Slow init: the answer to the inverted key byte 2, put on the line after this many ms.
    std::optional<uint8_t> addressAnswer;
    int64_t addressAnswerAfterMs = 30;
    int addressAnswerSkips = 0; // inverted key bytes 2 left unanswered before the answer
    int singleBytes = 0;        // single bytes written outside a frame (inverted key byte 2)

    void Install() {
        Fake().onWrite = [this](FakeLine &line, const Bytes &bytes) { OnWrite(line, bytes); };
    }

    static void Put(FakeLine &line, int64_t at, const Bytes &bytes) {
        for (size_t i = 0; i < bytes.size(); ++i) {
            line.QueueInputAt(at + static_cast<int64_t>(i) * line.ByteTicks(), {bytes[i]});
        }
    }

private:
    Bytes pending_;

    void OnWrite(FakeLine &line, const Bytes &bytes) {
        if (pending_.empty() && bytes.size() == 1 && (bytes[0] & 0x80) == 0) {
            ++singleBytes;
            if (addressAnswer && addressAnswerSkips-- <= 0) {
                Put(line, line.now + addressAnswerAfterMs * kFakeTicksPerMs, {*addressAnswer});
                addressAnswer.reset();
            }
            return;
        }
        pending_.insert(pending_.end(), bytes.begin(), bytes.end());
        if (!Complete()) {
            return;
        }
        requests.push_back(pending_);
        requestEnds.push_back(line.now);
        pending_.clear();
        if (replies.empty()) {
            return;
        }
        for (const ReplyPart &part : replies.front()) {
            Put(line, line.now + part.afterMs * kFakeTicksPerMs, part.bytes);
        }
        replies.pop_front();
    }

    bool Complete() const {
        const uint8_t format = pending_[0];
        const uint32_t mode = format >> 6;
        uint32_t length = format & 0x3F;
        const uint32_t header = (mode == 2 ? 3 : 1) + (length == 0 ? 1 : 0);
        if (pending_.size() < header) {
            return false;
        }
        if (length == 0) {
            length = pending_[header - 1];
        }
        return pending_.size() >= header + length + 1;
    }
};

} // namespace dvtest
