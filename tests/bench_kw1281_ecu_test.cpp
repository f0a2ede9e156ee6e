// The emulated KW1281 ECU on the bench, with the tester's side driven by hand through the
// platform seam: 5-baud decoding, the initialisation and the block protocol byte by byte, every
// request title of Parts 3.2-4.7, the ECU's timeouts, the protocol faults, determinism, speed
// and the real clock.
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

#include "bench/bench.h"
#include "bench/kw1281_ecu.h"

namespace dv::bench {
namespace {

constexpr int64_t kMs = kFakeTicksPerMs;
using Bytes = std::vector<uint8_t>;

const Platform &P() {
    return PlatformGet();
}

Bytes Text(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

// The tester's side of KW1281, by hand: raw platform calls only.
class Tester {
public:
    void Open(uint32_t baud) {
        port = P().portOpen(u"COM1");
        ASSERT_NE(port, kInvalidPort);
        CommState state{};
        state.baudRate = baud;
        ASSERT_TRUE(P().portSetState(port, &state));
    }
    void Timeouts(uint32_t constant, uint32_t multiplier = 0) {
        CommTimeouts t{};
        t.readConstant = constant;
        t.readMultiplier = multiplier;
        ASSERT_TRUE(P().portSetTimeouts(port, &t));
    }
    Bytes Read(uint32_t count, uint32_t constant) {
        Timeouts(constant);
        Bytes buffer(count);
        uint32_t got = 0;
        EXPECT_TRUE(P().portRead(port, buffer.data(), count, &got));
        buffer.resize(got);
        return buffer;
    }
    void Write(uint8_t byte) {
        uint32_t written = 0;
        ASSERT_TRUE(P().portWrite(port, &byte, 1, &written));
    }
    void Level(bool high) {
        ASSERT_TRUE(P().portEscape(port, high ? Escape::ClrBreak : Escape::SetBreak));
    }
    void Purge() { ASSERT_TRUE(P().portPurge(port, kPurgeRxClear | kPurgeTxClear)); }

    // The address at 5 baud: start bit, 7 data bits, odd parity (flipped on request), and half
    // a stop bit; jitter[i] ms is added to bit i.
    void SendAddress(uint8_t address, std::vector<int> jitter = {}, bool badParity = false,
                     uint32_t bitMs = 200) {
        jitter.resize(10, 0);
        int bits[10] = {0};
        int ones = 0;
        for (int i = 0; i < 7; ++i) {
            bits[1 + i] = address >> i & 1;
            ones += bits[1 + i];
        }
        bits[8] = (ones % 2 == 0) != badParity ? 1 : 0;
        bits[9] = 1;
        // As Part 2.2 does: sleep most of a bit, busy-wait the rest, edges on a fixed grid.
        int64_t frequency = 0;
        ASSERT_TRUE(P().counterFrequency(&frequency));
        const int64_t start = P().counterNow();
        int64_t edge = start;
        for (int i = 0; i < 10; ++i) {
            Level(bits[i] != 0);
            const int64_t ms = (i == 9 ? bitMs / 2 : bitMs) + jitter[i];
            P().sleep(static_cast<uint32_t>(ms > 20 ? ms - 20 : 0));
            edge += ms * frequency / 1000;
            P().spinUntil(edge);
        }
    }

    // Sync and keyword bytes after the address; the break echo is purged first.
    Bytes ReadInit() {
        Purge();
        Bytes bytes = Read(1, 1101);
        const Bytes keywords = Read(2, 141);
        bytes.insert(bytes.end(), keywords.begin(), keywords.end());
        return bytes;
    }
    // Busy-wait 25 ms, then the complement of the second keyword byte and its echo.
    void Complement(uint8_t keyword2) {
        P().spinUntil(P().counterNow() + 25 * kMs);
        Write(static_cast<uint8_t>(~keyword2));
        EXPECT_EQ(Read(1, 61), Bytes{static_cast<uint8_t>(~keyword2)});
    }
    Bytes Connect(uint8_t address, uint8_t keyword2) {
        SendAddress(address);
        Bytes init = ReadInit();
        Complement(keyword2);
        return init;
    }

    // One ECU block: every byte but the end byte answered with its complement. Returns the
    // block without its end byte; end receives the end byte (-1: none).
    Bytes ReceiveBlock(int *end = nullptr, uint32_t blockTimeout = 1001) {
        Bytes block = Read(1, blockTimeout);
        if (block.empty()) {
            return block;
        }
        for (size_t i = 0;; ++i) {
            Write(static_cast<uint8_t>(~block[i]));
            Read(1, 61); // the echo of the complement
            if (block.size() >= block[0] || block[0] < 3) {
                break;
            }
            const Bytes next = Read(1, 61);
            if (next.empty()) {
                return block;
            }
            block.push_back(next[0]);
        }
        const Bytes last = Read(1, 61);
        if (end != nullptr) {
            *end = last.empty() ? -1 : last[0];
        }
        P().sleep(60);
        return block;
    }

    // One tester block (length, counter, title, data): every byte with its complement expected,
    // then the end byte. Returns the complements received.
    Bytes SendBlock(uint8_t title, const Bytes &data = {}) {
        Bytes block{static_cast<uint8_t>(3 + data.size()), ++counter, title};
        block.insert(block.end(), data.begin(), data.end());
        Bytes complements;
        for (uint8_t byte : block) {
            Write(byte);
            const Bytes got = Read(2, 121);
            if (got.size() == 2) {
                complements.push_back(got[1]);
            }
        }
        Write(0x03);
        Read(1, 61);
        return complements;
    }

    // A request and its answer blocks (acknowledged while the ECU has more), as title + data.
    std::vector<Bytes> Request(uint8_t title, const Bytes &data = {}) {
        SendBlock(title, data);
        return Answers();
    }
    std::vector<Bytes> Answers() {
        std::vector<Bytes> answers;
        for (int i = 0; i < 20; ++i) {
            Bytes block = ReceiveBlock();
            if (block.size() < 3) {
                break;
            }
            counter = block[1];
            answers.emplace_back(block.begin() + 2, block.end());
            const uint8_t got = block[2];
            // Multi-block answers go on while the tester acknowledges.
            if (got != 0xF6 && got != 0xFC) {
                break;
            }
            SendBlock(0x09);
        }
        return answers;
    }

    PortHandle port = kInvalidPort;
    uint8_t counter = 0;
};

class Kw1281EcuTest : public ::testing::Test {
protected:
    void Install(Kw1281Profile profile, uint32_t testerBaud = 0) {
        auto ecu = std::make_unique<Kw1281Ecu>(std::move(profile));
        ecu_ = ecu.get();
        BenchInstall(std::move(ecu));
        tester_.Open(testerBaud != 0 ? testerBaud : ecu_->Baud());
    }
    void InstallEngine() { Install(Kw1281EngineProfile()); }
    void TearDown() override { BenchUninstall(); }

    // Connects and reads the identification passes, acknowledging every block.
    std::vector<Bytes> ConnectAndIdentify(uint8_t address, uint8_t keyword2) {
        tester_.Connect(address, keyword2);
        tester_.counter = 0;
        return tester_.Answers();
    }

    Kw1281Ecu *ecu_ = nullptr;
    Tester tester_;
};

std::vector<std::string> Notes() {
    std::vector<std::string> notes;
    for (const TraceEntry &entry : BenchTraceOf(TraceKind::Note)) {
        notes.push_back(entry.note);
    }
    return notes;
}

bool HasNote(const std::string &text) {
    for (const std::string &note : Notes()) {
        if (note.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// ---- 5-baud address ---------------------------------------------------------------------------

TEST_F(Kw1281EcuTest, DecodesSeveralAddressesAndAnswersOnlyItsOwn) {
    InstallEngine();
    for (uint8_t address : {0x17, 0x7F, 0x00, 0x56, 0x2A}) {
        tester_.SendAddress(address);
        P().sleep(500);
        EXPECT_EQ(ecu_->LastAddress(), address);
        EXPECT_EQ(ecu_->CurrentPhase(), Kw1281Ecu::Phase::Idle) << int(address);
    }
    EXPECT_TRUE(HasNote("5-baud address 0x56 is not mine"));
    EXPECT_TRUE(BenchTraceOf(TraceKind::EcuByte).empty()); // no sync for any of them
    tester_.SendAddress(0x01);
    EXPECT_EQ(tester_.ReadInit(), (Bytes{0x55, 0x01, 0x8A}));
    EXPECT_EQ(ecu_->LastAddress(), 0x01);
}

TEST_F(Kw1281EcuTest, ParityErrorIsIgnored) {
    InstallEngine();
    tester_.SendAddress(0x01, {}, true);
    EXPECT_TRUE(tester_.ReadInit().empty());
    EXPECT_TRUE(HasNote("5-baud address 0x01 with a parity error: ignored"));
    EXPECT_EQ(ecu_->CurrentPhase(), Kw1281Ecu::Phase::Idle);
}

TEST_F(Kw1281EcuTest, ToleratesAFewMsOfJitter) {
    InstallEngine();
    tester_.SendAddress(0x01, {5, -4, 3, -5, 2, 0, -3, 4, -2, 0});
    EXPECT_EQ(tester_.ReadInit(), (Bytes{0x55, 0x01, 0x8A}));
}

TEST_F(Kw1281EcuTest, RejectsEdgesFarOffTheBitGrid) {
    InstallEngine();
    tester_.SendAddress(0x01, {30}); // the start bit lasts 230 ms
    EXPECT_TRUE(tester_.ReadInit().empty());
    EXPECT_TRUE(HasNote("5-baud edge off the bit grid"));
}

TEST_F(Kw1281EcuTest, ShortWakeUpPulseIsNoAddress) {
    InstallEngine();
    tester_.Level(false);
    P().sleep(25);
    tester_.Level(true);
    P().sleep(25);
    EXPECT_TRUE(tester_.ReadInit().empty());
    EXPECT_EQ(ecu_->CurrentPhase(), Kw1281Ecu::Phase::Idle);
}

// ---- initialisation ---------------------------------------------------------------------------

TEST_F(Kw1281EcuTest, SessionByteByByte) {
    InstallEngine();
    const int64_t t0 = BenchNow();
    tester_.SendAddress(0x01);
    // Two falling edges (start bit, and data bit 1 after data bit 0): two break bytes.
    uint32_t errors = 0, queued = 0;
    ASSERT_TRUE(P().portClearError(tester_.port, &errors, &queued));
    EXPECT_EQ(queued, 2u);
    EXPECT_EQ(errors, kCeFrame | kCeBreak);
    EXPECT_EQ(tester_.ReadInit(), (Bytes{0x55, 0x01, 0x8A}));
    // Sync 30 ms after the middle of the stop bit, keywords after 10 and 5 ms gaps.
    const auto sent = BenchTraceOf(TraceKind::EcuByte);
    ASSERT_EQ(sent.size(), 3u);
    const int64_t byte = ByteTicksAt(10400);
    EXPECT_EQ(sent[0].at - t0, 1930 * kMs);
    EXPECT_EQ(sent[1].at - t0, 1940 * kMs + byte);
    EXPECT_EQ(sent[2].at - t0, 1945 * kMs + 2 * byte);
    tester_.Complement(0x8A);
    EXPECT_EQ(BenchTraceBytes(TraceKind::EcuHears), Bytes{0x75});
    EXPECT_TRUE(ecu_->LinkUp());
    EXPECT_EQ(ecu_->LinksUp(), 1);

    // First identification block: length 15, counter 1, 0xF6, the text with the more-flag.
    BenchTraceClear();
    int end = 0;
    const Bytes first = tester_.ReceiveBlock(&end);
    Bytes expected{0x0F, 0x01, 0xF6};
    const Bytes text = Text("038906019FR ");
    expected.insert(expected.end(), text.begin(), text.end());
    expected[3] |= 0x80;
    EXPECT_EQ(first, expected);
    EXPECT_EQ(end, 0x03);
    // Complements both ways: the ECU heard the complement of each of its bytes but the end
    // byte, and sent nothing else.
    Bytes complements;
    for (uint8_t b : expected) {
        complements.push_back(static_cast<uint8_t>(~b));
    }
    EXPECT_EQ(BenchTraceBytes(TraceKind::EcuHears), complements);
    expected.push_back(0x03);
    EXPECT_EQ(BenchTraceBytes(TraceKind::EcuByte), expected);

    // The tester's acknowledge (counter 2): the ECU complements 03 02 09, not the end byte.
    BenchTraceClear();
    tester_.counter = 1;
    EXPECT_EQ(tester_.SendBlock(0x09), (Bytes{0xFC, 0xFD, 0xF6}));
    EXPECT_EQ(BenchTraceBytes(TraceKind::EcuHears), (Bytes{0x03, 0x02, 0x09, 0x03}));
    EXPECT_EQ(BenchTraceBytes(TraceKind::EcuByte), (Bytes{0xFC, 0xFD, 0xF6}));
    // Next block carries counter 3.
    const Bytes second = tester_.ReceiveBlock();
    ASSERT_GE(second.size(), 3u);
    EXPECT_EQ(second[0], 3 + 13);
    EXPECT_EQ(second[1], 0x03);
    EXPECT_EQ(Bytes(second.begin() + 3, second.end()), Text("1,9l R4 EDC  "));
    EXPECT_EQ(ecu_->TitlesReceived(), Bytes{0x09});
}

TEST_F(Kw1281EcuTest, FullIdentificationInTwoPassesWithLongCoding) {
    InstallEngine();
    const auto pass1 = ConnectAndIdentify(0x01, 0x8A);
    ASSERT_EQ(pass1.size(), 5u);
    EXPECT_EQ(pass1[1],
              (Bytes{0xF6, '1', ',', '9', 'l', ' ', 'R', '4', ' ', 'E', 'D', 'C', ' ', ' '}));
    // Long coding block: 0, then (1503 << 17 | 12345) big-endian.
    EXPECT_EQ(pass1[3], (Bytes{0xF6, 0x00, 0x0B, 0xBE, 0x30, 0x39}));
    EXPECT_EQ(pass1[4], Bytes{0x09});
    const auto pass2 = tester_.Request(0x00);
    ASSERT_EQ(pass2.size(), 4u);
    EXPECT_EQ(pass2[0][1], 'W'); // last pass: no more-flag
    EXPECT_EQ(pass2[3], Bytes{0x09});
    // A further request starts over with the first pass.
    const auto again = tester_.Request(0x00);
    ASSERT_EQ(again.size(), 5u);
    EXPECT_EQ(again[0][1], '0' | 0x80);
}

TEST_F(Kw1281EcuTest, ClusterAt9600WithKeyword8089AndShortCoding) {
    Install(Kw1281ClusterProfile());
    tester_.SendAddress(0x17);
    EXPECT_EQ(tester_.ReadInit(), (Bytes{0x55, 0x89, 0x80}));
    tester_.Complement(0x80);
    tester_.counter = 0;
    const auto pass = tester_.Answers();
    ASSERT_EQ(pass.size(), 6u);
    EXPECT_EQ(pass[0][1], '1'); // a single pass: no more-flag
    // Short coding block (length 7): 0, coding 33 << 1 | bit 16 of 65659, then 0x00 0x7B.
    EXPECT_EQ(pass[4], (Bytes{0xF6, 0x00, 0x43, 0x00, 0x7B}));
}

TEST_F(Kw1281EcuTest, TesterAtAnotherBaudRateReadsGarbage) {
    Install(Kw1281EngineProfile(), 9600);
    tester_.SendAddress(0x01);
    const Bytes init = tester_.ReadInit();
    ASSERT_FALSE(init.empty()); // the 5-baud address works at any rate
    EXPECT_NE(init, (Bytes{0x55, 0x01, 0x8A}));
}

TEST_F(Kw1281EcuTest, MissingKeywordComplementMakesTheEcuRepeatThenGiveUp) {
    InstallEngine();
    tester_.SendAddress(0x01);
    EXPECT_EQ(tester_.ReadInit(), (Bytes{0x55, 0x01, 0x8A}));
    const int64_t t1 = BenchNow();
    // No complement: after 200 ms and a 300 ms pause sync and keywords come again.
    EXPECT_EQ(tester_.Read(3, 860), (Bytes{0x55, 0x01, 0x8A}));
    EXPECT_EQ(BenchTraceOf(TraceKind::EcuByte)[3].at - t1, 500 * kMs);
    EXPECT_EQ(tester_.Read(3, 860), (Bytes{0x55, 0x01, 0x8A}));
    EXPECT_TRUE(tester_.Read(1, 1000).empty()); // two repeats, then it waits for an address
    EXPECT_EQ(ecu_->CurrentPhase(), Kw1281Ecu::Phase::Idle);
}

TEST_F(Kw1281EcuTest, WrongKeywordComplementMakesTheEcuRepeat) {
    InstallEngine();
    tester_.SendAddress(0x01);
    tester_.ReadInit();
    tester_.Complement(0x8B); // sends 0x74
    EXPECT_FALSE(ecu_->LinkUp());
    EXPECT_EQ(tester_.Read(3, 860), (Bytes{0x55, 0x01, 0x8A}));
    tester_.Complement(0x8A);
    EXPECT_TRUE(ecu_->LinkUp());
}

// ---- services ---------------------------------------------------------------------------------

TEST_F(Kw1281EcuTest, FaultMemoryInSeveralBlocksThenClearKeepsPresentFaults) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    const auto faults = tester_.Request(0x07);
    ASSERT_EQ(faults.size(), 3u);
    EXPECT_EQ(faults[0], (Bytes{0xFC, 0x02, 0x0A, 0x1E, 0x02, 0x06, 0x9B, 0x44, 0x11, 0x23, 0x04,
                                0x41, 0x1D}));
    EXPECT_EQ(faults[1], (Bytes{0xFC, 0x01, 0xF4, 0x1B}));
    EXPECT_EQ(faults[2], Bytes{0x09});
    const auto cleared = tester_.Request(0x05);
    EXPECT_EQ(cleared, (std::vector<Bytes>{{0xFC, 0x44, 0x11, 0x23}, {0x09}}));
    EXPECT_EQ(ecu_->Faults().size(), 1u);
    EXPECT_EQ(tester_.Request(0x07), (std::vector<Bytes>{{0xFC, 0x44, 0x11, 0x23}, {0x09}}));
}

TEST_F(Kw1281EcuTest, EmptyFaultMemoryIsFfFf88) {
    Install(Kw1281ClusterProfile());
    ConnectAndIdentify(0x17, 0x80);
    EXPECT_EQ(tester_.Request(0x07), (std::vector<Bytes>{{0xFC, 0xFF, 0xFF, 0x88}, {0x09}}));
}

TEST_F(Kw1281EcuTest, GroupReadingsBasicSettingsCurvesAndChannels) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    const auto group = tester_.Request(0x29, {1});
    ASSERT_EQ(group.size(), 1u);
    EXPECT_EQ(group[0], (Bytes{0xE7, 0x01, 0xC8, 0x14, 0x05, 0x0A, 0x8C, 0x15, 0x64, 0x7F, 0x10,
                               0x01, 0x00}));
    EXPECT_EQ(tester_.Request(0x28, {1})[0].back(), 0x02); // basic settings
    EXPECT_EQ(tester_.Request(0x12)[0], (Bytes{0xF4, 19, 15, 32, 85, 19, 252, 254, 5, 174, 2}));
    EXPECT_EQ(tester_.Request(0x11)[0][0], 0xF4);
    // Curve group: the header first, the values on the repeated request.
    const auto header = tester_.Request(0x29, {3});
    ASSERT_EQ(header.size(), 1u);
    EXPECT_EQ(header[0][0], 0x02);
    EXPECT_EQ(header[0].size(), 23u);
    EXPECT_EQ(tester_.Request(0x29, {3})[0], (Bytes{0xF4, 0x28, 0x40, 0x01, 0xC8}));
    EXPECT_EQ(tester_.Request(0x29, {3})[0][0], 0xF4);
    // An acknowledge (closing the readings) makes the next reading send its header again.
    EXPECT_EQ(tester_.Request(0x09), std::vector<Bytes>{{0x09}});
    EXPECT_EQ(tester_.Request(0x29, {3})[0][0], 0x02);
    EXPECT_EQ(tester_.Request(0x29, {9})[0], Bytes{0x0A});
    EXPECT_EQ(tester_.Request(0x08, {1})[0], (Bytes{0xFB, 0x12, 0x34}));
    EXPECT_EQ(tester_.Request(0x08, {7})[0], Bytes{0x0A});
}

TEST_F(Kw1281EcuTest, AdaptationReadTestSaveAndClearWithLogin) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    EXPECT_EQ(tester_.Request(0x21, {1})[0],
              (Bytes{0xE6, 0x01, 0x00, 0x80, 0xE7, 0x01, 0xC8, 0x23, 0x05, 0x0A, 0x8C}));
    EXPECT_EQ(tester_.Request(0x21, {2})[0], (Bytes{0xE6, 0x02, 0x75, 0x30})); // no values
    EXPECT_EQ(tester_.Request(0x21, {3})[0], (Bytes{0xE6, 0x03, 0x00, 0x05, 0xF4, 0x11, 0x22}));
    EXPECT_EQ(tester_.Request(0x21, {4})[0], Bytes{0x0A});
    // Test and save need the login.
    EXPECT_EQ(tester_.Request(0x22, {1, 0x00, 0x28})[0], Bytes{0x0A});
    EXPECT_EQ(tester_.Request(0x2B, {0x2F, 0xCA, 0x00, 0x30, 0x39})[0], Bytes{0x0A}); // 12234
    EXPECT_FALSE(ecu_->LoggedIn());
    EXPECT_EQ(tester_.Request(0x2B, {0x2F, 0xC9, 0x00, 0x30, 0x39})[0], Bytes{0x09}); // 12233
    EXPECT_TRUE(ecu_->LoggedIn());
    // A test value is clamped and not stored.
    EXPECT_EQ(tester_.Request(0x22, {1, 0x00, 0x28})[0][3], 88);
    EXPECT_EQ(tester_.Request(0x22, {1, 0x00, 0xC8})[0][3], 168);
    EXPECT_EQ(ecu_->AdaptationValue(1), 128);
    EXPECT_EQ(tester_.Request(0x2A, {1, 0x00, 0x64, 0x00, 0x30, 0x39})[0][3], 100);
    EXPECT_EQ(ecu_->AdaptationValue(1), 100);
    EXPECT_EQ(tester_.Request(0x21, {1})[0][3], 100);
    EXPECT_EQ(tester_.Request(0x2A, {0, 0, 0, 0x00, 0x30, 0x39})[0], (Bytes{0xE6, 0, 0, 0}));
    EXPECT_EQ(ecu_->AdaptationValue(1), 128);
}

TEST_F(Kw1281EcuTest, CodingIsStoredAndAnsweredWithIdentification) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    // Long form: coding 4001, workshop code 0.
    const auto answer = tester_.Request(0x10, {0x1F, 0x42, 0x00, 0x00});
    ASSERT_EQ(answer.size(), 5u);
    EXPECT_EQ(answer[3], (Bytes{0xF6, 0x00, 0x1F, 0x42, 0x00, 0x00}));
    EXPECT_EQ(ecu_->Coding(), 4001);
    EXPECT_EQ(ecu_->WorkshopCode(), 0u);
    // The short form is refused by an ECU with long coding.
    EXPECT_EQ(tester_.Request(0x10, {0x41, 0x00, 0x7B})[0], Bytes{0x0A});
}

TEST_F(Kw1281EcuTest, ClusterCodingNeedsTheLogin) {
    Install(Kw1281ClusterProfile());
    ConnectAndIdentify(0x17, 0x80);
    EXPECT_EQ(tester_.Request(0x10, {0x41, 0x00, 0x7B})[0], Bytes{0x0A});
    EXPECT_EQ(tester_.Request(0x2B, {0x36, 0x25, 0x01, 0x00, 0x7B})[0], Bytes{0x09}); // 13861
    const auto answer = tester_.Request(0x10, {0x41, 0x00, 0x7B});
    ASSERT_EQ(answer.size(), 6u);
    EXPECT_EQ(answer[4], (Bytes{0xF6, 0x00, 0x41, 0x00, 0x7B}));
    EXPECT_EQ(ecu_->Coding(), 32);
    EXPECT_EQ(ecu_->WorkshopCode(), 65659u);
}

TEST_F(Kw1281EcuTest, ActuatorTestStepsThenEnds) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    EXPECT_EQ(tester_.Request(0x04, {0})[0], (Bytes{0xF5, 0x01, 0x19}));
    EXPECT_EQ(tester_.Request(0x04, {0})[0], (Bytes{0xF5, 0x04, 0xDF}));
    EXPECT_EQ(tester_.Request(0x04, {0})[0], (Bytes{0xF5, 0x02, 0x02}));
    EXPECT_EQ(tester_.Request(0x04, {0})[0], Bytes{0x09});
    EXPECT_EQ(tester_.Request(0x04, {0})[0], (Bytes{0xF5, 0x01, 0x19}));
}

TEST_F(Kw1281EcuTest, MemoryReadsAndRefusals) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    Bytes ram{0xFE};
    const Bytes data = Text("RAM data");
    ram.insert(ram.end(), data.begin(), data.end());
    ram.push_back(0);
    EXPECT_EQ(tester_.Request(0x01, {20, 0x00, 0x07})[0], ram);
    EXPECT_EQ(tester_.Request(0x03, {4, 0x00, 0x00})[0], (Bytes{0xFD, 'E', 'n', 'g', 'i'}));
    EXPECT_EQ(tester_.Request(0x19, {2, 0x00, 0x07})[0], (Bytes{0xEF, 'E', 'E'}));
    EXPECT_EQ(tester_.Request(0x01, {4, 0x01, 0x00})[0], Bytes{0x0A}); // beyond the end
    EXPECT_EQ(tester_.Request(0x30)[0], Bytes{0x0A});                  // unknown title
    EXPECT_EQ(tester_.Request(0x09), std::vector<Bytes>{{0x09}});      // keep-alive
}

TEST_F(Kw1281EcuTest, EndOfCommunicationDropsTheLinkWithoutAnswer) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    tester_.SendBlock(0x06);
    EXPECT_FALSE(ecu_->LinkUp());
    EXPECT_TRUE(tester_.Read(1, 1500).empty());
    EXPECT_TRUE(HasNote("link dropped: end of communication"));
    // A new address initialisation works again.
    EXPECT_EQ(ConnectAndIdentify(0x01, 0x8A).size(), 5u);
    EXPECT_EQ(ecu_->LinksUp(), 2);
}

// ---- the ECU's timeouts -----------------------------------------------------------------------

TEST_F(Kw1281EcuTest, SilentTesterLosesTheLinkAfterTheBlockTimeout) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    const int64_t lastEnd = BenchTraceOf(TraceKind::EcuByte).back().at + ByteTicksAt(10400);
    P().sleep(1200);
    EXPECT_FALSE(ecu_->LinkUp());
    const auto notes = BenchTraceOf(TraceKind::Note);
    EXPECT_EQ(notes.back().note, "link dropped: no block from the tester");
    EXPECT_EQ(notes.back().at - lastEnd, 1100 * kMs);
    EXPECT_TRUE(tester_.Request(0x09).empty());
}

TEST_F(Kw1281EcuTest, IncompleteTesterBlockIsDiscardedAndTheResentBlockAnswered) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    tester_.Write(0x03); // a length byte, then nothing
    EXPECT_EQ(tester_.Read(2, 20), (Bytes{0x03, 0xFC}));
    P().sleep(121);
    EXPECT_TRUE(HasNote("tester block incomplete: discarded"));
    EXPECT_EQ(tester_.Request(0x09), std::vector<Bytes>{{0x09}});
}

TEST_F(Kw1281EcuTest, MissingComplementMakesTheEcuResendItsBlock) {
    InstallEngine();
    tester_.Connect(0x01, 0x8A);
    // Take the length byte without answering it.
    const Bytes length = tester_.Read(1, 1001);
    ASSERT_EQ(length, Bytes{0x0F});
    const int64_t t1 = BenchTraceOf(TraceKind::EcuByte).back().at;
    // 50 ms for the complement, a 100 ms pause: the block again from its length byte.
    EXPECT_EQ(tester_.Read(1, 1001), Bytes{0x0F});
    EXPECT_EQ(BenchTraceOf(TraceKind::EcuByte).back().at - t1, ByteTicksAt(10400) + 150 * kMs);
    EXPECT_TRUE(HasNote("block sent again"));
    tester_.counter = 0;
    // Answered now, the rest of the block follows with the same counter.
    tester_.Write(static_cast<uint8_t>(~0x0F));
    tester_.Read(1, 61);
    EXPECT_EQ(tester_.Read(1, 61), Bytes{0x01});
}

TEST_F(Kw1281EcuTest, WrongComplementFromTheTesterMakesTheEcuResend) {
    InstallEngine();
    tester_.Connect(0x01, 0x8A);
    ASSERT_EQ(tester_.Read(1, 1001), Bytes{0x0F});
    tester_.Write(0x00);
    EXPECT_EQ(tester_.Read(1, 61), Bytes{0x00});
    EXPECT_TRUE(HasNote("complement 0x00 instead of 0xF0"));
    EXPECT_EQ(tester_.Read(1, 1001), Bytes{0x0F});
}

// ---- protocol faults --------------------------------------------------------------------------

TEST_F(Kw1281EcuTest, FaultWrongSyncAndKeywordBytes) {
    InstallEngine();
    ecu_->faults.syncByte = 0x54;
    ecu_->faults.keyword1 = 0x07;
    ecu_->faults.keyword2 = 0x05;
    tester_.SendAddress(0x01);
    EXPECT_EQ(tester_.ReadInit(), (Bytes{0x54, 0x07, 0x05}));
    // The ECU then waits for the complement of the keyword it sent.
    tester_.Complement(0x05);
    EXPECT_TRUE(ecu_->LinkUp());
}

TEST_F(Kw1281EcuTest, FaultWrongComplement) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    ecu_->faults.wrongComplement = ecu_->ComplementsSent() + 2;
    ecu_->faults.complementMask = 0x01;
    const uint8_t counter = static_cast<uint8_t>(tester_.counter + 1);
    // The second complement of the block (of its counter) comes XORed with 0x01.
    EXPECT_EQ(tester_.SendBlock(0x09), (Bytes{0xFC, static_cast<uint8_t>(~counter ^ 0x01), 0xF6}));
    EXPECT_EQ(ecu_->ComplementsSent(), ecu_->faults.wrongComplement + 1);
}

TEST_F(Kw1281EcuTest, FaultSilenceForTheNthBlock) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    ecu_->faults.silentBlock = ecu_->BlocksReceived() + 1;
    tester_.SendBlock(0x07);
    EXPECT_TRUE(tester_.ReceiveBlock(nullptr, 1001).empty());
    EXPECT_TRUE(HasNote("block left unanswered (fault injected)"));
    // The ECU then drops the link at its block timeout: 1100 ms after the request ended.
    P().sleep(200);
    EXPECT_FALSE(ecu_->LinkUp());
}

TEST_F(Kw1281EcuTest, FaultDropLinkMidSession) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    ecu_->faults.dropLinkAtBlock = ecu_->BlocksReceived() + 2;
    EXPECT_EQ(tester_.Request(0x09), std::vector<Bytes>{{0x09}});
    EXPECT_TRUE(tester_.Request(0x07).empty());
    EXPECT_FALSE(ecu_->LinkUp());
    EXPECT_EQ(ecu_->LinksDropped(), 1);
    EXPECT_TRUE(HasNote("link dropped: fault injected"));
}

TEST_F(Kw1281EcuTest, FaultSlowAnswer) {
    InstallEngine();
    ConnectAndIdentify(0x01, 0x8A);
    ecu_->faults.slowBlock = ecu_->BlocksReceived() + 1;
    ecu_->faults.slowMs = 700;
    tester_.SendBlock(0x09);
    const int64_t requestEnd = BenchNow();
    EXPECT_EQ(tester_.ReceiveBlock(),
              (Bytes{0x03, static_cast<uint8_t>(tester_.counter + 1), 0x09}));
    const auto sent = BenchTraceOf(TraceKind::EcuByte);
    EXPECT_EQ(sent[sent.size() - 4].at - requestEnd, 715 * kMs);
    // The next answer comes at the usual 15 ms again.
    tester_.counter = static_cast<uint8_t>(tester_.counter + 1);
    tester_.SendBlock(0x09);
    const int64_t next = BenchNow();
    tester_.ReceiveBlock();
    const auto later = BenchTraceOf(TraceKind::EcuByte);
    EXPECT_EQ(later[later.size() - 4].at - next, 15 * kMs);
}

TEST_F(Kw1281EcuTest, FaultWrongCounterAndBadEndByte) {
    InstallEngine();
    ecu_->faults.wrongCounterBlock = 1;
    ecu_->faults.badEndByteBlock = 1;
    tester_.Connect(0x01, 0x8A);
    int end = 0;
    const Bytes block = tester_.ReceiveBlock(&end);
    ASSERT_GE(block.size(), 2u);
    EXPECT_EQ(block[1], 0x02); // counter 1 + 1
    EXPECT_EQ(end, 0x00);
}

// ---- determinism, speed, real clock -----------------------------------------------------------

std::string OneSession() {
    BenchInstall("kw1281-engine");
    Tester tester;
    tester.Open(10400);
    tester.Connect(0x01, 0x8A);
    tester.Answers();
    tester.Request(0x00);
    tester.Request(0x07);
    tester.Request(0x29, {1});
    tester.SendBlock(0x06);
    std::string text = BenchTraceText();
    BenchUninstall();
    return text;
}

TEST(Kw1281BenchRunTest, SameRunTwiceGivesTheIdenticalTrace) {
    const std::string first = OneSession();
    const std::string second = OneSession();
    EXPECT_GT(first.size(), 10000u);
    EXPECT_EQ(first, second);
}

TEST(Kw1281BenchRunTest, ConnectWithIdentificationTakesMicrosecondsOfRealTime) {
    constexpr int kRuns = 20;
    int64_t virtualMs = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRuns; ++i) {
        BenchInstall("kw1281-engine");
        const int64_t t0 = BenchNow();
        Tester tester;
        tester.Open(10400);
        tester.Connect(0x01, 0x8A);
        const auto pass1 = tester.Answers();
        const auto pass2 = tester.Request(0x00);
        ASSERT_EQ(pass1.size() + pass2.size(), 9u);
        virtualMs = (BenchNow() - t0) / kMs;
        BenchUninstall();
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count() /
                    kRuns;
    std::printf("connect + identification: %lld ms of virtual time in %lld us of real time\n",
                static_cast<long long>(virtualMs), static_cast<long long>(us));
    RecordProperty("virtual_ms", static_cast<int>(virtualMs));
    RecordProperty("real_us", static_cast<int>(us));
    EXPECT_GT(virtualMs, 2000);
    EXPECT_LT(us, 200000); // wide: even a sanitizer build is far below
}

TEST(Kw1281BenchRunTest, RealClockSessionTakesRealTime) {
    Kw1281Profile profile = Kw1281EngineProfile();
    // A 20-baud address keeps the run short; wide tolerances keep it safe on a busy machine.
    profile.timing.bitTimeMs = 50;
    profile.timing.bitToleranceMs = 24;
    profile.timing.byteTimeoutMs = 200;
    BenchInstall(std::make_unique<Kw1281Ecu>(profile), BenchClock::Real);
    const auto start = std::chrono::steady_clock::now();
    Tester tester;
    tester.Open(10400);
    tester.SendAddress(0x01, {}, false, 50);
    EXPECT_EQ(tester.ReadInit(), (Bytes{0x55, 0x01, 0x8A})) << BenchTraceText();
    tester.Complement(0x8A);
    const Bytes block = tester.ReceiveBlock();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(block.size(), 15u);
    EXPECT_EQ(block[1], 0x01);
    // 475 ms of address, 30 + 17 ms of init, 25 + 40 ms, 16 bytes with complements, 60 ms.
    EXPECT_GE(elapsed, std::chrono::milliseconds(640));
    EXPECT_LT(elapsed, std::chrono::milliseconds(2000));
    BenchUninstall();
}

} // namespace
} // namespace dv::bench
