// A KW1281 ECU scripted on the fake port, for the byte- and block-level suites: it complements
// every byte of the tester's blocks but the end byte, and after each tester block (or when
// started) sends its next scripted block, each byte after the tester's complement of the one
// before. The adapter echo comes from the fake (echoWrites).
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "bench/fake_platform.h"

namespace dvtest {

struct FakeEcuBlock {
    std::vector<uint8_t> bytes; // as on the line, the end byte included unless truncated
    // The block stops after its last byte (no end byte): the ECU waits for that byte's
    // complement and then falls silent (or chains).
    bool truncated = false;
    // When >= 0: the next scripted block follows this many ms after this one ended, without
    // waiting for a tester block.
    int64_t chainMs = -1;
};

class FakeKwEcu {
public:
    std::deque<FakeEcuBlock> script;
    std::vector<std::vector<uint8_t>> testerBlocks; // the tester's blocks, end byte included
    uint32_t answerDelayMs = 10;
    // Complements sent for the tester's bytes: 0 = the right one; else XORed with this mask
    // for the tester bytes whose 1-based number is in wrongComplements.
    std::vector<int> wrongComplements;
    uint8_t wrongMask = 0x01;
    std::vector<int> missingComplements; // tester bytes that get no complement at all

    // Installs the responder on the fake (which must be installed) and turns on its echo.
    void Install() {
        dv::bench::Fake().echoWrites = true;
        dv::bench::Fake().onWrite = [this](dv::bench::FakeLine &line,
                                           const std::vector<uint8_t> &bytes) {
            for (uint8_t b : bytes) {
                OnByte(line, b);
            }
        };
    }
    // Sends the next scripted block now (+ delay), as after an initialisation.
    void Start(int64_t delayMs = 0) {
        SendNext(dv::bench::Fake(), dv::bench::Fake().now + delayMs * dv::bench::kFakeTicksPerMs);
    }

private:
    std::vector<uint8_t> current_; // tester block in progress
    FakeEcuBlock sending_;
    size_t sent_ = 0; // bytes of sending_ put on the line
    bool busy_ = false;
    int testerBytes_ = 0;

    static bool Contains(const std::vector<int> &list, int value) {
        for (int v : list) {
            if (v == value) {
                return true;
            }
        }
        return false;
    }

    void SendNext(dv::bench::FakeLine &line, int64_t at) {
        if (script.empty()) {
            busy_ = false;
            return;
        }
        sending_ = script.front();
        script.pop_front();
        sent_ = 0;
        busy_ = true;
        SendByte(line, at);
    }

    void SendByte(dv::bench::FakeLine &line, int64_t at) {
        line.QueueInputAt(at, {sending_.bytes[sent_]});
        ++sent_;
        if (sent_ == sending_.bytes.size() && !sending_.truncated) {
            Finish(line, at);
        }
    }

    void Finish(dv::bench::FakeLine &line, int64_t at) {
        busy_ = false;
        if (sending_.chainMs >= 0) {
            SendNext(line, at + sending_.chainMs * dv::bench::kFakeTicksPerMs);
        }
    }

    void OnByte(dv::bench::FakeLine &line, uint8_t b) {
        const int64_t afterEcho = line.now + line.ByteTicks();
        if (busy_) {
            // The tester's complement of our last byte.
            if (sent_ < sending_.bytes.size()) {
                SendByte(line, afterEcho + line.ByteTicks());
            } else {
                Finish(line, afterEcho);
            }
            return;
        }
        current_.push_back(b);
        ++testerBytes_;
        const uint8_t length = current_[0];
        if (current_.size() <= length) {
            const bool missing = Contains(missingComplements, testerBytes_);
            const bool wrong = Contains(wrongComplements, testerBytes_);
            if (!missing) {
                const uint8_t mask = wrong ? wrongMask : uint8_t{0};
                line.QueueInputAt(afterEcho + line.ByteTicks() / 2,
                                  {static_cast<uint8_t>(b ^ 0xFF ^ mask)});
            }
            if (missing || wrong) {
                current_.clear(); // the tester will send the block again from its start
            }
            return;
        }
        testerBlocks.push_back(current_);
        current_.clear();
        SendNext(line, afterEcho + answerDelayMs * dv::bench::kFakeTicksPerMs);
    }
};

} // namespace dvtest
