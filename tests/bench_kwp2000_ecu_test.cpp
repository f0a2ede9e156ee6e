// The KWP2000 ECU model on its own: a small event loop stands in for the bench, feeds line levels
// and tester bytes at chosen times and records every byte the model puts on the line.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "bench/kwp2000_ecu.h"

namespace dv::bench {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int64_t kTicksPerMs = 10'000;
constexpr int64_t kByteTicks = 10 * 1000 * kTicksPerMs / 10400; // one byte at 10400 baud
constexpr int64_t Ms(int64_t ms) {
    return ms * kTicksPerMs;
}

struct Sent {
    int64_t at;
    uint8_t byte;
};

class TestBus final : public EcuBus {
public:
    int64_t Send(int64_t at, uint8_t byte) override {
        EXPECT_GE(at, now);
        sent.push_back({at, byte});
        return at + kByteTicks;
    }
    void SetTimer(int64_t at) override { timer = at; }
    void CancelTimer() override { timer.reset(); }
    int64_t TicksPerMs() const override { return kTicksPerMs; }

    int64_t now = 0;
    std::optional<int64_t> timer;
    std::vector<Sent> sent;
};

uint8_t Sum(const Bytes &bytes) {
    uint32_t sum = 0;
    for (uint8_t b : bytes)
        sum += b;
    return static_cast<uint8_t>(sum);
}

// A request or answer with address header and the length in the format byte.
Bytes Message(uint8_t target, uint8_t source, const Bytes &data) {
    Bytes m{static_cast<uint8_t>(0x80 | data.size()), target, source};
    m.insert(m.end(), data.begin(), data.end());
    m.push_back(Sum(m));
    return m;
}
Bytes Request(const Bytes &data) {
    return Message(0x10, 0xF1, data);
}
Bytes Answer(const Bytes &data) {
    return Message(0xF1, 0x10, data);
}

class Kwp2000EcuTest : public ::testing::Test {
protected:
    void Make(const Kwp2000Profile &profile) { ecu = MakeKwp2000Ecu(profile); }
    void SetUp() override { Make(Kwp2000EngineProfile()); }

    void RunUntil(int64_t t) {
        while (bus.timer && *bus.timer <= t) {
            const int64_t at = *bus.timer;
            bus.timer.reset();
            bus.now = at;
            ecu->OnTimer(bus, at);
        }
        bus.now = std::max(bus.now, t);
    }
    void Level(int64_t at, bool high) {
        RunUntil(at);
        ecu->OnLineLevel(bus, at, high);
    }
    // Tester bytes, the first starting at `start`, one every `gapMs`; returns the last one's end.
    int64_t Write(int64_t start, const Bytes &bytes, int64_t gapMs = 10) {
        int64_t end = start;
        for (size_t i = 0; i < bytes.size(); ++i) {
            end = start + Ms(gapMs) * static_cast<int64_t>(i) + kByteTicks;
            RunUntil(end);
            ecu->OnByte(bus, end, bytes[i]);
        }
        return end;
    }
    // The five-baud frame of Part 2.2; `shift` moves each edge (index 0 = start bit).
    void SendAddress(int64_t start, uint8_t address, bool badParity = false,
                     std::vector<int64_t> shift = {}) {
        std::vector<bool> bits{false};
        int ones = 0;
        for (int i = 0; i < 7; ++i) {
            bits.push_back((address >> i) & 1);
            ones += (address >> i) & 1;
        }
        bits.push_back((ones % 2 == 0) != badParity);
        bits.push_back(true);
        bool level = true;
        for (size_t k = 0; k < bits.size(); ++k) {
            if (bits[k] == level)
                continue;
            level = bits[k];
            const int64_t jitter = k < shift.size() ? shift[k] : 0;
            Level(start + Ms(200) * static_cast<int64_t>(k) + jitter, level);
        }
    }
    Bytes SentBytes(size_t from = 0) const {
        Bytes out;
        for (size_t i = from; i < bus.sent.size(); ++i)
            out.push_back(bus.sent[i].byte);
        return out;
    }
    // A full five-baud initialisation as the tester of Part 5.2 runs it; returns the time the
    // address answer ended.
    int64_t SlowInit(int64_t start, uint8_t address = 0x01) {
        SendAddress(start, address);
        RunUntil(start + Ms(2090)); // key byte 2 has ended, W4 has not

        EXPECT_EQ(bus.sent.size(), 3u);
        if (bus.sent.size() != 3)
            return 0;
        const int64_t kb2End = bus.sent[2].at + kByteTicks;
        Write(kb2End + Ms(37) - kByteTicks, {static_cast<uint8_t>(~bus.sent[2].byte)});
        RunUntil(kb2End + Ms(200));
        EXPECT_EQ(bus.sent.size(), 4u);
        return bus.sent.size() == 4 ? bus.sent[3].at + kByteTicks : 0;
    }
    int64_t FastInit(int64_t start) {
        Level(start, false);
        Level(start + Ms(25), true);
        const int64_t end = Write(start + Ms(50), Request({0x81}));
        RunUntil(end + Ms(200));
        return end + Ms(200);
    }
    // Sends a request at `start` and returns the bytes answered within `waitMs`.
    Bytes Exchange(int64_t &start, const Bytes &message, int64_t waitMs = 300) {
        const size_t before = bus.sent.size();
        const int64_t end = Write(start, message);
        RunUntil(end + Ms(waitMs));
        start = end + Ms(waitMs);
        return SentBytes(before);
    }

    TestBus bus;
    std::unique_ptr<EcuModel> ecu;
};

// ---- five-baud initialisation -------------------------------------------------------------

TEST_F(Kwp2000EcuTest, SlowInitSendsSyncAndKeyBytesThenInvertedAddress) {
    const int64_t t0 = Ms(1000);
    SendAddress(t0, 0x01);
    RunUntil(t0 + Ms(2090));
    ASSERT_EQ(bus.sent.size(), 3u);
    EXPECT_EQ(SentBytes(), (Bytes{0x55, 0xEF, 0x8F}));
    // W1 after the end of the stop bit, W2 and W3 after the end of the byte before.
    EXPECT_EQ(bus.sent[0].at, t0 + Ms(2000) + Ms(60));
    EXPECT_EQ(bus.sent[1].at, bus.sent[0].at + kByteTicks + Ms(10));
    EXPECT_EQ(bus.sent[2].at, bus.sent[1].at + kByteTicks + Ms(10));
    const int64_t inverted = Write(bus.sent[2].at + kByteTicks + Ms(37) - kByteTicks, {0x70});
    RunUntil(inverted + Ms(100));
    ASSERT_EQ(bus.sent.size(), 4u);
    EXPECT_EQ(bus.sent[3].byte, 0xFE);
    EXPECT_EQ(bus.sent[3].at, inverted + Ms(30)); // W4
}

TEST_F(Kwp2000EcuTest, SlowInitAnswersTheTargetAddressToo) {
    SendAddress(Ms(1000), 0x10);
    RunUntil(Ms(3090));
    ASSERT_EQ(bus.sent.size(), 3u);
    Write(bus.sent[2].at + Ms(37), {0x70});
    RunUntil(Ms(4000));
    ASSERT_EQ(bus.sent.size(), 4u);
    EXPECT_EQ(bus.sent[3].byte, 0xEF);
}

TEST_F(Kwp2000EcuTest, SlowInitIgnoresAnotherAddress) {
    SendAddress(Ms(1000), 0x02);
    RunUntil(Ms(5000));
    EXPECT_TRUE(bus.sent.empty());
}

TEST_F(Kwp2000EcuTest, SlowInitIgnoresAParityError) {
    SendAddress(Ms(1000), 0x01, true);
    RunUntil(Ms(5000));
    EXPECT_TRUE(bus.sent.empty());
}

TEST_F(Kwp2000EcuTest, SlowInitToleratesJitterOfAFewMilliseconds) {
    // 0x01: edges at the start bit (k 0), after data bit 0 (k 2) and at the stop bit (k 9).
    SendAddress(Ms(1000), 0x01, false,
                {Ms(0), Ms(4), Ms(-6), Ms(0), Ms(0), Ms(0), Ms(0), Ms(0), Ms(0), Ms(5)});
    RunUntil(Ms(3090));
    EXPECT_EQ(SentBytes(), (Bytes{0x55, 0xEF, 0x8F}));
}

TEST_F(Kwp2000EcuTest, SlowInitRejectsEdgesFarFromTheBitBoundaries) {
    SendAddress(Ms(1000), 0x01, false, {0, 0, Ms(-80)});
    RunUntil(Ms(5000));
    EXPECT_TRUE(bus.sent.empty());
}

TEST_F(Kwp2000EcuTest, SlowInitOffersTheKeyBytesAgainThenGivesUp) {
    SendAddress(Ms(1000), 0x01);
    RunUntil(Ms(10000));
    // The first offer and three more, each 100 ms after W4max (50 ms after key byte 2's end).
    ASSERT_EQ(bus.sent.size(), 12u);
    for (size_t i = 0; i < 12; ++i)
        EXPECT_EQ(bus.sent[i].byte, (Bytes{0x55, 0xEF, 0x8F})[i % 3]);
    for (size_t i = 3; i < 12; i += 3)
        EXPECT_EQ(bus.sent[i].at, bus.sent[i - 1].at + kByteTicks + Ms(50) + kByteTicks + Ms(100));
    // Then it is idle: the inverted key byte 2 and a request are not heard.
    int64_t t = Ms(10000);
    Write(t, {0x70});
    t += Ms(100);
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    EXPECT_EQ(bus.sent.size(), 12u);
}

TEST_F(Kwp2000EcuTest, SlowInitIgnoresAWrongInvertedKeyByteAndAcceptsTheNextOffer) {
    SendAddress(Ms(1000), 0x01);
    RunUntil(Ms(3090));
    ASSERT_EQ(bus.sent.size(), 3u);
    Write(bus.sent[2].at + Ms(37), {0x8F});
    RunUntil(bus.sent[2].at + Ms(100));
    EXPECT_EQ(bus.sent.size(), 3u);
    RunUntil(bus.sent[2].at + Ms(190));
    ASSERT_EQ(bus.sent.size(), 6u);
    EXPECT_EQ(SentBytes(3), (Bytes{0x55, 0xEF, 0x8F}));
    const int64_t end = Write(bus.sent[5].at + Ms(37), {0x70});
    RunUntil(end + Ms(100));
    EXPECT_EQ(SentBytes(6), Bytes{0xFE});
}

TEST_F(Kwp2000EcuTest, RequestAfterSlowInitIsAnswered) {
    int64_t t = SlowInit(Ms(1000)) + Ms(55);
    EXPECT_EQ(Exchange(t, Request({0x3E})), (Bytes{0x81, 0xF1, 0x10, 0x7E, 0x00}));
}

// ---- fast initialisation --------------------------------------------------------------------

TEST_F(Kwp2000EcuTest, FastInitAnswersStartCommunicationWithKeyBytes) {
    Level(Ms(1000), false);
    Level(Ms(1025), true);
    const int64_t end = Write(Ms(1050), {0x81, 0x10, 0xF1, 0x81, 0x03});
    RunUntil(end + Ms(200));
    EXPECT_EQ(SentBytes(), (Bytes{0x83, 0xF1, 0x10, 0xC1, 0xEF, 0x8F, 0xC3}));
    ASSERT_EQ(bus.sent.size(), 7u);
    EXPECT_EQ(bus.sent[0].at, end + Ms(30)); // P2
    for (size_t i = 1; i < bus.sent.size(); ++i)
        EXPECT_EQ(bus.sent[i].at, bus.sent[i - 1].at + kByteTicks + Ms(1)); // P1
}

TEST_F(Kwp2000EcuTest, FastInitNeedsTheWakeUpPattern) {
    Level(Ms(1000), false);
    Level(Ms(1050), true); // 50 ms low: neither a wake-up nor a five-baud start bit
    Write(Ms(1100), Request({0x81}));
    RunUntil(Ms(2000));
    EXPECT_TRUE(bus.sent.empty());
}

TEST_F(Kwp2000EcuTest, FastInitToleratesAFewMillisecondsOnTheWakeUpLowTime) {
    Level(Ms(1000), false);
    Level(Ms(1029), true);
    int64_t t = Ms(1054);
    EXPECT_EQ(Exchange(t, Request({0x81})), Answer({0xC1, 0xEF, 0x8F}));
    const size_t before = bus.sent.size();
    Level(t, false);
    Level(t + Ms(31), true); // beyond 25 +- 5 ms
    t += Ms(56);
    EXPECT_TRUE(Exchange(t, Request({0x81})).empty());
    EXPECT_EQ(bus.sent.size(), before);
}

TEST_F(Kwp2000EcuTest, FastInitIgnoresBytesInsideTheWakeUpHighTime) {
    Level(Ms(1000), false);
    Level(Ms(1025), true);
    Write(Ms(1030), Request({0x81}));
    RunUntil(Ms(2000));
    EXPECT_TRUE(bus.sent.empty());
}

TEST_F(Kwp2000EcuTest, FastInitIgnoresABadChecksumOrAnotherTarget) {
    Level(Ms(1000), false);
    Level(Ms(1025), true);
    Write(Ms(1050), {0x81, 0x10, 0xF1, 0x81, 0x04});
    RunUntil(Ms(1500));
    Level(Ms(2000), false);
    Level(Ms(2025), true);
    Write(Ms(2050), Message(0x11, 0xF1, {0x81}));
    RunUntil(Ms(2500));
    EXPECT_TRUE(bus.sent.empty());
}

TEST_F(Kwp2000EcuTest, FastInitWithAnotherRequestThanStartCommunicationIsIgnored) {
    Level(Ms(1000), false);
    Level(Ms(1025), true);
    int64_t t = Ms(1050);
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
}

TEST_F(Kwp2000EcuTest, FastInitAnswersToTheTesterAddressUsed) {
    Level(Ms(1000), false);
    Level(Ms(1025), true);
    int64_t t = Ms(1050);
    EXPECT_EQ(Exchange(t, Message(0x10, 0xF2, {0x81})), Message(0xF2, 0x10, {0xC1, 0xEF, 0x8F}));
}

// ---- message framing --------------------------------------------------------------------------

TEST_F(Kwp2000EcuTest, RequestWithBadChecksumIsIgnored) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_TRUE(Exchange(t, {0x81, 0x10, 0xF1, 0x3E, 0xC1}).empty());
    EXPECT_EQ(Exchange(t, {0x81, 0x10, 0xF1, 0x3E, 0xC0}), Answer({0x7E}));
}

TEST_F(Kwp2000EcuTest, RequestToAnotherTargetOrInAnotherAddressModeIsIgnored) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_TRUE(Exchange(t, Message(0x11, 0xF1, {0x3E})).empty());
    Bytes functional = Request({0x3E});
    functional[0] = 0xC1;
    functional.back() = Sum(Bytes(functional.begin(), functional.end() - 1));
    EXPECT_TRUE(Exchange(t, functional).empty());
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
}

TEST_F(Kwp2000EcuTest, RequestWithLengthByteIsAccepted) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, {0x80, 0x10, 0xF1, 0x01, 0x3E, 0xC0}), Answer({0x7E}));
}

TEST_F(Kwp2000EcuTest, AGapLongerThanP4StartsANewMessage) {
    int64_t t = FastInit(Ms(1000));
    const Bytes request = Request({0x3E});
    Write(t, {request[0], request[1]});
    t += Ms(100);
    // The first two bytes were dropped; the whole request that follows is answered.
    EXPECT_EQ(Exchange(t, request), Answer({0x7E}));
}

TEST_F(Kwp2000EcuTest, GarbageOnTheLineIsSkippedUntilItGoesQuiet) {
    int64_t t = FastInit(Ms(1000));
    // A functional header, a long announced length never completed, a zero-length message.
    EXPECT_TRUE(Exchange(t, {0xC1, 0x33, 0xF1, 0x3E, 0x23}).empty());
    EXPECT_TRUE(Exchange(t, {0xBF, 0x10, 0xF1, 0x21}).empty());
    EXPECT_TRUE(Exchange(t, {0x80, 0x10, 0xF1, 0x00, 0x81}).empty());
    for (int value = 0; value < 256; value += 7)
        Write(t + Ms(value / 7), {static_cast<uint8_t>(value)}, 1);
    t += Ms(200);
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
}

TEST_F(Kwp2000EcuTest, LongAnswersUseTheLengthByte) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.localIds.push_back({0x40, Bytes(66, 0x01)});
    Make(profile);
    int64_t t = FastInit(Ms(1000));
    const Bytes answer = Exchange(t, Request({0x21, 0x40}));
    ASSERT_EQ(answer.size(), 4u + 68u + 1u);
    EXPECT_EQ(answer[0], 0x80);
    EXPECT_EQ(answer[3], 68);
    EXPECT_EQ(answer.back(), Sum(Bytes(answer.begin(), answer.end() - 1)));
}

TEST_F(Kwp2000EcuTest, KeyBytesWithoutAddressHeaderFrameWithoutAddresses) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.keyByte1 = 0xD5; // length in format byte, 1-byte header, normal timing
    Make(profile);
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(SentBytes(), (Bytes{0x03, 0xC1, 0xD5, 0x8F, 0x28}));
    // The tester of Part 5.1 keeps 0x80 in the format byte without addresses.
    EXPECT_EQ(Exchange(t, {0x81, 0x3E, 0xBF}), (Bytes{0x01, 0x7E, 0x7F}));
}

TEST_F(Kwp2000EcuTest, KeyBytesWithoutFormatLengthUseTheLengthByte) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.keyByte1 = 0xEA; // additional length byte only, address header, extended timing
    Make(profile);
    int64_t t = FastInit(Ms(1000));
    // A request with the length in the format byte is not for this ECU.
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    EXPECT_EQ(Exchange(t, {0x80, 0x10, 0xF1, 0x01, 0x3E, 0xC0}),
              (Bytes{0x80, 0xF1, 0x10, 0x01, 0x7E, 0x00}));
}

TEST_F(Kwp2000EcuTest, AnswersSplitIntoSeveralMessagesBehindOneServiceId) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.maxMessageData = 6;
    Make(profile);
    int64_t t = FastInit(Ms(1000));
    const size_t before = bus.sent.size();
    const Bytes answer = Exchange(t, Request({0x21, 0x01}));
    // 61 01 + 12 element bytes: 6 + 5 + 5 in three messages.
    Bytes expected = Answer({0x61, 0x01, 0x01, 0xC8, 0x23, 0x05});
    const Bytes second = Answer({0x61, 0x0A, 0xB6, 0x0B, 0x0A, 0x80});
    const Bytes third = Answer({0x61, 0x10, 0x5B, 0x40});
    expected.insert(expected.end(), second.begin(), second.end());
    expected.insert(expected.end(), third.begin(), third.end());
    EXPECT_EQ(answer, expected);
    // P2 between the end of one message and the start of the next.
    const int64_t end1 = bus.sent[before + 9].at + kByteTicks;
    EXPECT_EQ(bus.sent[before + 10].at, end1 + Ms(30));
}

TEST_F(Kwp2000EcuTest, SessionEndsAfterP3maxOfSilence) {
    int64_t t = FastInit(Ms(1000));
    t += Ms(5000);
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
}

TEST_F(Kwp2000EcuTest, RequestsWithinP3maxKeepTheSession) {
    int64_t t = FastInit(Ms(1000));
    t += Ms(4500);
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
    t += Ms(4500);
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
}

TEST_F(Kwp2000EcuTest, ANewInitEndsTheSessionAndStartsAgain) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x10, 0x89})), Answer({0x50, 0x89}));
    const size_t before = bus.sent.size();
    FastInit(t);
    EXPECT_EQ(SentBytes(before), Answer({0xC1, 0xEF, 0x8F}));
}

// ---- services -------------------------------------------------------------------------------

TEST_F(Kwp2000EcuTest, StartAndStopCommunication) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x81})), Answer({0xC1, 0xEF, 0x8F}));
    EXPECT_EQ(Exchange(t, Request({0x82})), Answer({0xC2}));
    // The link is closed: nothing more is heard until a new initialisation.
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    EXPECT_EQ(Exchange(t, Request({0x82, 0x00})), Bytes{});
}

TEST_F(Kwp2000EcuTest, StopCommunicationWithParametersIsRefused) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x82, 0x00})), Answer({0x7F, 0x82, 0x12}));
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
}

TEST_F(Kwp2000EcuTest, DiagnosticSessionsEchoTheirMode) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x10, 0x89})), Answer({0x50, 0x89}));
    EXPECT_EQ(Exchange(t, Request({0x10, 0x81})), Answer({0x50, 0x81}));
    EXPECT_EQ(Exchange(t, Request({0x10, 0x85})), Answer({0x50, 0x85}));
    EXPECT_EQ(Exchange(t, Request({0x10, 0x87})), Answer({0x50, 0x87}));
    EXPECT_EQ(Exchange(t, Request({0x20})), Answer({0x60}));
}

TEST_F(Kwp2000EcuTest, UnsupportedSessionModeIsRefused) {
    int64_t t = FastInit(Ms(1000));
    // Host mode 1 of DvIsoStartDiagnosticSession: the engine ECU has no session 0x82.
    EXPECT_EQ(Exchange(t, Request({0x10, 0x82})), Answer({0x7F, 0x10, 0x12}));
    EXPECT_EQ(Exchange(t, Request({0x10})), Answer({0x7F, 0x10, 0x12}));
}

TEST_F(Kwp2000EcuTest, TesterPresentWithAndWithoutResponse) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
    EXPECT_EQ(Exchange(t, Request({0x3E, 0x01})), Answer({0x7E}));
    EXPECT_TRUE(Exchange(t, Request({0x3E, 0x02})).empty());
    EXPECT_EQ(Exchange(t, Request({0x3E, 0x03})), Answer({0x7F, 0x3E, 0x12}));
}

TEST_F(Kwp2000EcuTest, ReadDtcListsTheCodes) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x13})),
              Answer({0x53, 0x03, 0x40, 0x66, 0x41, 0x2C, 0x45, 0x75}));
}

TEST_F(Kwp2000EcuTest, ReadDtcByStatusForAllGroupsAndOne) {
    int64_t t = FastInit(Ms(1000));
    const Bytes all = Answer({0x58, 0x03, 0x40, 0x66, 0x24, 0x41, 0x2C, 0x23, 0x45, 0x75, 0x28});
    EXPECT_EQ(Exchange(t, Request({0x18, 0x03, 0xFF, 0x00})), all);
    EXPECT_EQ(Exchange(t, Request({0x18, 0x02})), all);
    EXPECT_EQ(Exchange(t, Request({0x18, 0x02, 0x41, 0x2C})),
              Answer({0x58, 0x01, 0x41, 0x2C, 0x23}));
    EXPECT_EQ(Exchange(t, Request({0x18, 0x02, 0x02, 0x0A})), Answer({0x58, 0x00}));
    // 0x11: only the codes present now.
    EXPECT_EQ(Exchange(t, Request({0x18, 0x11, 0xFF, 0x00})),
              Answer({0x58, 0x02, 0x40, 0x66, 0x24, 0x45, 0x75, 0x28}));
    EXPECT_EQ(Exchange(t, Request({0x18, 0x07, 0xFF, 0x00})), Answer({0x7F, 0x18, 0x12}));
}

TEST_F(Kwp2000EcuTest, ClearingAGroupRemovesOnlyThatCode) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x14, 0x41, 0x2C})), Answer({0x54, 0x41, 0x2C}));
    EXPECT_EQ(Exchange(t, Request({0x18, 0x03, 0xFF, 0x00})),
              Answer({0x58, 0x02, 0x40, 0x66, 0x24, 0x45, 0x75, 0x28}));
    EXPECT_EQ(Exchange(t, Request({0x14, 0xFF, 0x00})), Answer({0x54, 0xFF, 0x00}));
    EXPECT_EQ(Exchange(t, Request({0x18, 0x03, 0xFF, 0x00})), Answer({0x58, 0x00}));
}

TEST_F(Kwp2000EcuTest, ClearDiagnosticInformationClearsAll) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x14})), Answer({0x54}));
    EXPECT_EQ(Exchange(t, Request({0x13})), Answer({0x53, 0x00}));
    // Cleared codes stay cleared over a new initialisation.
    FastInit(t + Ms(100));
    t += Ms(600);
    EXPECT_EQ(Exchange(t, Request({0x13})), Answer({0x53, 0x00}));
}

TEST_F(Kwp2000EcuTest, FreezeFrameOfAStoredCode) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x12, 0x00, 0x04, 0x40, 0x66})),
              Answer({0x52, 0x00, 0x01, 0xC8, 0x14, 0x05, 0x0A, 0xB6, 0x0B, 0x0A, 0x96, 0x10, 0x5B,
                      0x40, 0x04, 0x40, 0x66}));
    // A code without a freeze frame, and one after clearing.
    EXPECT_EQ(Exchange(t, Request({0x12, 0x00, 0x04, 0x41, 0x2C})), Answer({0x7F, 0x12, 0x31}));
    Exchange(t, Request({0x14, 0x40, 0x66}));
    EXPECT_EQ(Exchange(t, Request({0x12, 0x00, 0x04, 0x40, 0x66})), Answer({0x7F, 0x12, 0x31}));
    EXPECT_EQ(Exchange(t, Request({0x12, 0x01, 0x04, 0x45, 0x75})), Answer({0x7F, 0x12, 0x12}));
}

TEST_F(Kwp2000EcuTest, IdentificationRecordAtThePositionsPart61Reads) {
    int64_t t = FastInit(Ms(1000));
    const Bytes answer = Exchange(t, Request({0x1A, 0x9B}));
    ASSERT_EQ(answer.size(), 3u + 48u + 1u);
    const Bytes data(answer.begin() + 3, answer.end() - 1);
    EXPECT_EQ(data[0], 0x5A);
    EXPECT_EQ(data[1], 0x9B);
    EXPECT_EQ(std::string(data.begin() + 2, data.begin() + 14), "06A906032HN ");
    EXPECT_EQ(std::string(data.begin() + 14, data.begin() + 18), "3561");
    const uint32_t coding = (data[19] & 0x0Fu) << 16 | data[20] << 8 | data[21];
    const uint32_t workshop = (data[25] & 0x01u) << 16 | data[26] << 8 | data[27];
    const uint32_t extra = (data[24] & 0x07u) << 7 | data[25] >> 1;
    EXPECT_EQ(coding, 31u);
    EXPECT_EQ(workshop, 12345u);
    EXPECT_EQ(extra, 0x155u);
    EXPECT_EQ(std::string(data.begin() + 28, data.end()), "1.8L R4/5VT     G   ");
    EXPECT_EQ(Exchange(t, Request({0x1A, 0x9C})), Answer({0x7F, 0x1A, 0x31}));
}

TEST_F(Kwp2000EcuTest, ReadDataByLocalId) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x21, 0x03})),
              Answer({0x61, 0x03, 0x5F, 0x04, 'I', 'd', 'l', 'e', 0x01, 0xC8, 0x23}));
    EXPECT_EQ(Exchange(t, Request({0x21, 0x09})), Answer({0x7F, 0x21, 0x31}));
    EXPECT_EQ(Exchange(t, Request({0x21})), Answer({0x7F, 0x21, 0x12}));
}

TEST_F(Kwp2000EcuTest, CapabilitiesListTheRoutineCodes) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x31, 0xB8, 0x00, 0x00})),
              Answer({0x71, 0xB8, 0x01, 0x06, 0x01, 0x02}));
    EXPECT_EQ(Exchange(t, Request({0x31, 0xB7, 0x01, 0x02})), Answer({0x7F, 0x31, 0x31}));
}

TEST_F(Kwp2000EcuTest, ActuatorTestStepsThroughTheActuators) {
    int64_t t = FastInit(Ms(1000));
    const Bytes step = Request({0x31, 0xB9, 0x01, 0x02});
    const Bytes read = Request({0x31, 0xBA, 0x01, 0x02});
    EXPECT_EQ(Exchange(t, step), Answer({0x7F, 0x31, 0x22})); // no test started
    EXPECT_EQ(Exchange(t, Request({0x31, 0xB8, 0x01, 0x02})), Answer({0x71, 0xB8, 0x01, 0x02}));
    EXPECT_EQ(Exchange(t, read), Answer({0x71, 0xBA, 0x01, 0x02, 0x00, 0x10, 0x04, 0xEE}));
    EXPECT_EQ(Exchange(t, step), Answer({0x71, 0xB9, 0x01, 0x02}));
    EXPECT_EQ(Exchange(t, read), Answer({0x71, 0xBA, 0x01, 0x02, 0x01, 0x01, 0x00, 0x00, 0x34, 0x0A,
                                         0xAF, 0x12, 0x25, 0xFF, 0x02, 0x40, 0x50}));
    EXPECT_EQ(Exchange(t, step), Answer({0x71, 0xB9, 0x01, 0x02}));
    EXPECT_EQ(Exchange(t, read), Answer({0x71, 0xBA, 0x01, 0x02, 0x00, 0x10, 0x04, 0xF0}));
    EXPECT_EQ(Exchange(t, step), Answer({0x71, 0xB9, 0x01, 0x02}));
    EXPECT_EQ(Exchange(t, step), Answer({0x71, 0xB9, 0x01, 0x02}));
    // Past the last actuator: the end of the test.
    EXPECT_EQ(Exchange(t, step), Answer({0x7F, 0x31, 0x22}));
    EXPECT_EQ(Exchange(t, read), Answer({0x7F, 0x31, 0x22}));
}

TEST_F(Kwp2000EcuTest, ActuatorTestNeedsItsSessionAndEndsWithASessionChange) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.actuatorSession = 0x89;
    Make(profile);
    int64_t t = FastInit(Ms(1000));
    const Bytes start = Request({0x31, 0xB8, 0x01, 0x02});
    EXPECT_EQ(Exchange(t, start), Answer({0x7F, 0x31, 0x22}));
    EXPECT_EQ(Exchange(t, Request({0x10, 0x89})), Answer({0x50, 0x89}));
    EXPECT_EQ(Exchange(t, start), Answer({0x71, 0xB8, 0x01, 0x02}));
    EXPECT_EQ(Exchange(t, Request({0x20})), Answer({0x60}));
    EXPECT_EQ(Exchange(t, Request({0x31, 0xB9, 0x01, 0x02})), Answer({0x7F, 0x31, 0x22}));
    EXPECT_EQ(Exchange(t, start), Answer({0x7F, 0x31, 0x22}));
}

TEST_F(Kwp2000EcuTest, SessionModeFallsBackAfterANewInitialisation) {
    Kwp2000Profile profile = Kwp2000EngineProfile();
    profile.actuatorSession = 0x89;
    Make(profile);
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x10, 0x89})), Answer({0x50, 0x89}));
    const size_t before = bus.sent.size();
    t = FastInit(t);
    EXPECT_EQ(SentBytes(before), Answer({0xC1, 0xEF, 0x8F}));
    EXPECT_EQ(Exchange(t, Request({0x31, 0xB8, 0x01, 0x02})), Answer({0x7F, 0x31, 0x22}));
}

TEST_F(Kwp2000EcuTest, UnknownServiceIsRefused) {
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x23, 0x00, 0x10, 0x00, 0x04})), Answer({0x7F, 0x23, 0x11}));
}

// ---- faults ---------------------------------------------------------------------------------

class Kwp2000FaultTest : public Kwp2000EcuTest {
protected:
    void SetUp() override {}
    void MakeWith(const Kwp2000Faults &faults) {
        Kwp2000Profile profile = Kwp2000EngineProfile();
        profile.faults = faults;
        Make(profile);
    }
};

TEST_F(Kwp2000FaultTest, WrongSyncByte) {
    Kwp2000Faults f;
    f.syncByte = 0x54;
    MakeWith(f);
    SendAddress(Ms(1000), 0x01);
    RunUntil(Ms(3090));
    EXPECT_EQ(SentBytes(), (Bytes{0x54, 0xEF, 0x8F}));
}

TEST_F(Kwp2000FaultTest, Obd2KeyBytesInSlowAndFastInit) {
    Kwp2000Faults f;
    f.keyBytes = std::array<uint8_t, 2>{0x94, 0x94};
    MakeWith(f);
    SendAddress(Ms(1000), 0x01);
    RunUntil(Ms(3090));
    EXPECT_EQ(SentBytes(), (Bytes{0x55, 0x94, 0x94}));
    RunUntil(Ms(4900)); // the tester refuses them: no inverted key byte, the offers run out
    const size_t before = bus.sent.size();
    FastInit(Ms(5000));
    // 0x94 announces neither addresses nor lengths in the format byte.
    EXPECT_EQ(SentBytes(before), (Bytes{0x00, 0x03, 0xC1, 0x94, 0x94, 0xEC}));
}

TEST_F(Kwp2000FaultTest, BadKeyByte1) {
    Kwp2000Faults f;
    f.keyBytes = std::array<uint8_t, 2>{0x8F, 0x8F};
    MakeWith(f);
    SendAddress(Ms(1000), 0x01);
    RunUntil(Ms(3090));
    EXPECT_EQ(SentBytes(), (Bytes{0x55, 0x8F, 0x8F}));
}

TEST_F(Kwp2000FaultTest, WrongInvertedAddress) {
    Kwp2000Faults f;
    f.wrongInvertedAddress = true;
    MakeWith(f);
    SlowInit(Ms(1000));
    ASSERT_EQ(bus.sent.size(), 4u);
    EXPECT_EQ(bus.sent[3].byte, 0xFF);
}

TEST_F(Kwp2000FaultTest, SilenceForTheNthRequest) {
    Kwp2000Faults f;
    f.silentRequest = 2; // the StartCommunication is request 1
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
}

TEST_F(Kwp2000FaultTest, SilenceForStartCommunicationLeavesTheEcuIdle) {
    Kwp2000Faults f;
    f.silentRequest = 1;
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    EXPECT_TRUE(bus.sent.empty());
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    FastInit(t);
    EXPECT_EQ(SentBytes(), Answer({0xC1, 0xEF, 0x8F}));
}

TEST_F(Kwp2000FaultTest, ResponsePendingBeforeTheRealAnswer) {
    Kwp2000Faults f;
    f.pendingRequest = 2;
    f.pendingCount = 2;
    f.pendingGap = 150;
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    const size_t before = bus.sent.size();
    Bytes expected = Answer({0x7F, 0x14, 0x78});
    const Bytes pending = expected;
    expected.insert(expected.end(), pending.begin(), pending.end());
    const Bytes real = Answer({0x54});
    expected.insert(expected.end(), real.begin(), real.end());
    const int64_t start = t;
    EXPECT_EQ(Exchange(t, Request({0x14}), 1000), expected);
    const int64_t end = start + Ms(40) + kByteTicks; // five request bytes, 10 ms apart
    EXPECT_EQ(bus.sent[before].at, end + Ms(30));
    EXPECT_EQ(bus.sent[before + 7].at, bus.sent[before + 6].at + kByteTicks + Ms(150));
    EXPECT_EQ(bus.sent[before + 14].at, bus.sent[before + 13].at + kByteTicks + Ms(150));
    // The request was carried out.
    EXPECT_EQ(Exchange(t, Request({0x13})), Answer({0x53, 0x00}));
}

TEST_F(Kwp2000FaultTest, BusyAnswersForConsecutiveRequests) {
    Kwp2000Faults f;
    f.busyRequest = 2;
    f.busyCodes = {0x23, 0x21};
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x14})), Answer({0x7F, 0x14, 0x23}));
    EXPECT_EQ(Exchange(t, Request({0x13})), Answer({0x7F, 0x13, 0x21}));
    // A busy answer does not carry the request out.
    EXPECT_EQ(Exchange(t, Request({0x13})),
              Answer({0x53, 0x03, 0x40, 0x66, 0x41, 0x2C, 0x45, 0x75}));
}

TEST_F(Kwp2000FaultTest, SlowAnswer) {
    Kwp2000Faults f;
    f.slowRequest = 2;
    f.slowDelay = 80;
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    const size_t before = bus.sent.size();
    const int64_t start = t;
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
    EXPECT_EQ(bus.sent[before].at, start + Ms(40) + kByteTicks + Ms(80));
    const size_t next = bus.sent.size();
    const int64_t start2 = t;
    Exchange(t, Request({0x3E}));
    EXPECT_EQ(bus.sent[next].at, start2 + Ms(40) + kByteTicks + Ms(30));
}

TEST_F(Kwp2000FaultTest, DropTheLinkAfterTheNthRequest) {
    Kwp2000Faults f;
    f.dropAfterRequest = 2;
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x3E})), Answer({0x7E}));
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    EXPECT_TRUE(Exchange(t, Request({0x3E})).empty());
    const size_t before = bus.sent.size();
    FastInit(t);
    EXPECT_EQ(SentBytes(before), Answer({0xC1, 0xEF, 0x8F}));
}

TEST_F(Kwp2000FaultTest, BadChecksumInTheNthMessage) {
    Kwp2000Faults f;
    f.badChecksumMessage = 2;
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x3E})), (Bytes{0x81, 0xF1, 0x10, 0x7E, 0x01}));
    EXPECT_EQ(Exchange(t, Request({0x3E})), (Bytes{0x81, 0xF1, 0x10, 0x7E, 0x00}));
}

TEST_F(Kwp2000FaultTest, WrongTargetInTheNthMessage) {
    Kwp2000Faults f;
    f.wrongTargetMessage = 2;
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x3E})), Message(0xF0, 0x10, {0x7E}));
}

TEST_F(Kwp2000FaultTest, WrongAddressModeInTheNthMessage) {
    Kwp2000Faults f;
    f.wrongAddressModeMessage = 1;
    MakeWith(f);
    FastInit(Ms(1000));
    EXPECT_EQ(SentBytes(), (Bytes{0x43, 0xF1, 0x10, 0xC1, 0xEF, 0x8F, 0x83}));
}

TEST_F(Kwp2000FaultTest, WrongSizeInTheNthMessage) {
    Kwp2000Faults f;
    f.wrongSizeMessage = 2;
    MakeWith(f);
    int64_t t = FastInit(Ms(1000));
    EXPECT_EQ(Exchange(t, Request({0x3E})), (Bytes{0x82, 0xF1, 0x10, 0x7E, 0x01}));
}

} // namespace
} // namespace dv::bench
