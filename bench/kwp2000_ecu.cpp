// The emulated KWP2000 ECU: initialisation, message framing and the services of Parts 5.2-6.3.
#include "bench/kwp2000_ecu.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <limits>
#include <string_view>
#include <utility>

namespace dv::bench {
namespace {

constexpr int kAddressBitMs = 200; // five baud
constexpr uint8_t kSync = 0x55;

// Key byte 1 bits (ISO 14230-2), as Part 5.1 reads them.
constexpr uint8_t kKb1FormatLength = 0x01;
constexpr uint8_t kKb1LengthByte = 0x02;
constexpr uint8_t kKb1AddressHeader = 0x08;

enum class Phase { Idle, Address, WakeUp, KeyBytes, Session };

// What happens once a queued byte is on the line.
enum class After { Nothing, AwaitInvertedKeyByte, StartSession, EndSession, DropLink };

// A trace note with one number in it ("%02X" or "%d").
void NoteValue(EcuBus &bus, int64_t at, const char *format, int value) {
    char text[80];
    std::snprintf(text, sizeof text, format, value);
    bus.Note(at, text);
}

struct OutByte {
    uint8_t value;
    int64_t gap; // ticks from the end of the previous byte (or the reference time) to its start
    After after;
};

using Bytes = std::vector<uint8_t>;

uint8_t Checksum(const Bytes &bytes, size_t count) {
    uint32_t sum = 0;
    for (size_t i = 0; i < count; ++i)
        sum += bytes[i];
    return static_cast<uint8_t>(sum);
}

bool InRange(int n, int first, int count) {
    return first > 0 && n >= first && n - first < count;
}

class Kwp2000Ecu final : public EcuModel {
public:
    explicit Kwp2000Ecu(const Kwp2000Profile &profile)
        : profile_(profile), faults_(profile_.faults), dtcs_(profile.dtcs) {}

    void OnLineLevel(EcuBus &bus, int64_t at, bool high) override;
    void OnByte(EcuBus &bus, int64_t at, uint8_t byte) override;
    void OnTimer(EcuBus &bus, int64_t at) override;
    uint32_t Baud() const override { return profile_.baud; }

private:
    int64_t Ms(const EcuBus &bus, int ms) const { return int64_t{ms} * bus.TicksPerMs(); }
    int64_t ByteTicks(const EcuBus &bus) const {
        return 10 * 1000 * bus.TicksPerMs() / static_cast<int64_t>(profile_.baud);
    }
    std::array<uint8_t, 2> KeyBytes() const {
        return faults_.keyBytes.value_or(
            std::array<uint8_t, 2>{profile_.keyByte1, profile_.keyByte2});
    }

    // Line levels: the five-baud address and the wake-up pattern.
    void BeginFrame(EcuBus &bus, int64_t at);
    void OnRisingEdge(EcuBus &bus, int64_t at);
    void DecodeAddress(EcuBus &bus, int64_t at);
    void SendKeyBytes(EcuBus &bus, int64_t reference, int gapMs);
    std::optional<uint8_t> AddressFromEdges(const EcuBus &bus) const;
    bool LevelAt(int64_t t) const;

    // Requests.
    void ReceiveByte(EcuBus &bus, int64_t at, uint8_t byte);
    size_t RequestHeaderSize(const Bytes &rx) const;
    bool Addressed(uint8_t format) const;
    void OnRequest(EcuBus &bus, int64_t at, const Bytes &message);
    void Answer(EcuBus &bus, int64_t at, const Bytes &request);

    // Services.
    std::optional<Bytes> Serve(const Bytes &request);
    Bytes StartCommunication() const;
    Bytes StartDiagnosticSession(const Bytes &request);
    std::optional<Bytes> TesterPresent(const Bytes &request) const;
    Bytes ReadDtc(const Bytes &request) const;
    Bytes ClearDiagnosticInformation(const Bytes &request);
    Bytes ReadDtcByStatus(const Bytes &request) const;
    Bytes ReadFreezeFrame(const Bytes &request) const;
    Bytes ReadEcuIdentification(const Bytes &request) const;
    Bytes ReadDataByLocalId(const Bytes &request) const;
    Bytes StartRoutine(const Bytes &request);
    Bytes Actuator(uint8_t routine);
    bool GroupMatches(uint16_t group, uint16_t code) const {
        return group == 0xFF00 || group == code;
    }

    // Answers on the line.
    std::vector<Bytes> Split(const Bytes &answer) const;
    Bytes Frame(const Bytes &data);
    void Queue(int64_t reference, int64_t gap, const Bytes &bytes, int64_t p1, After last);
    void SendDue(EcuBus &bus, int64_t at);
    void OnDeadline(EcuBus &bus, int64_t at);
    void EndSession();
    void Idle(EcuBus &bus, int64_t at, std::string_view why);
    void Reschedule(EcuBus &bus);

    Kwp2000Profile profile_;
    const Kwp2000Faults &faults_;
    Phase phase_ = Phase::Idle;
    int64_t deadline_ = 0; // 0: none

    std::vector<std::pair<int64_t, bool>> edges_; // line edges of the frame being received
    int64_t wakeUpRise_ = 0;
    uint8_t initAddress_ = 0;
    uint8_t keyByte2Sent_ = 0;
    int resyncs_ = 0;

    Bytes rx_;
    int64_t lastRxAt_ = 0;
    bool rxDiscard_ = false; // skipping an unreadable message until the line goes quiet
    uint8_t testerAddress_ = 0xF1;

    std::deque<OutByte> out_;
    int64_t lastEnd_ = 0;

    int requests_ = 0;
    int messages_ = 0;

    // ECU state that services change.
    std::vector<Kwp2000Dtc> dtcs_;
    uint8_t session_ = 0x81;
    bool actuatorTest_ = false;
    size_t actuatorIndex_ = 0;
    bool actuatorRunning_ = false;
};

// ---- line levels ------------------------------------------------------------------------------

void Kwp2000Ecu::OnLineLevel(EcuBus &bus, int64_t at, bool high) {
    if (high)
        OnRisingEdge(bus, at);
    else if (phase_ == Phase::Address)
        edges_.emplace_back(at, false);
    else
        BeginFrame(bus, at);
    Reschedule(bus);
}

// A break while the line was idle, in a session or after a wake-up: a real ECU abandons what it
// was doing and listens for an address or a wake-up pattern.
void Kwp2000Ecu::BeginFrame(EcuBus &bus, int64_t at) {
    if (phase_ == Phase::Session)
        bus.Note(at, "session abandoned: the line was pulled low");
    EndSession();
    out_.clear();
    phase_ = Phase::Address;
    edges_.assign(1, {at, false});
    deadline_ = at + Ms(bus, kAddressBitMs * 19 / 2); // the middle of the stop bit
}

void Kwp2000Ecu::OnRisingEdge(EcuBus &bus, int64_t at) {
    if (phase_ != Phase::Address)
        return;
    if (edges_.size() == 1) {
        const int64_t low = at - edges_.front().first;
        const auto &t = profile_.timing;
        if (std::llabs(low - Ms(bus, t.wakeUpLow)) <= Ms(bus, t.wakeUpJitter)) {
            phase_ = Phase::WakeUp;
            wakeUpRise_ = at;
            rx_.clear();
            rxDiscard_ = false;
            deadline_ = edges_.front().first + Ms(bus, t.wakeUpTotal + t.startWindow);
            bus.Note(at, "wake-up pattern");
            return;
        }
        if (low < Ms(bus, kAddressBitMs / 2)) {
            Idle(bus, at, "low pulse ignored: neither a start bit nor a wake-up");
            return;
        }
    }
    edges_.emplace_back(at, true);
}

bool Kwp2000Ecu::LevelAt(int64_t t) const {
    bool high = true;
    for (const auto &[at, level] : edges_) {
        if (at > t)
            break;
        high = level;
    }
    return high;
}

// Samples the ten bits in their middles; edges far from a bit boundary are a framing error.
std::optional<uint8_t> Kwp2000Ecu::AddressFromEdges(const EcuBus &bus) const {
    const int64_t start = edges_.front().first;
    const int64_t bit = Ms(bus, kAddressBitMs);
    for (const auto &edge : edges_) {
        const int64_t offset = edge.first - start;
        const int64_t nearest = (offset + bit / 2) / bit * bit;
        if (std::llabs(offset - nearest) > Ms(bus, profile_.timing.addressJitter))
            return std::nullopt;
    }
    if (LevelAt(start + bit / 2) || !LevelAt(start + 9 * bit + bit / 2))
        return std::nullopt;
    uint8_t address = 0;
    int ones = 0;
    for (int k = 1; k <= 8; ++k) {
        const bool one = LevelAt(start + k * bit + bit / 2);
        ones += one ? 1 : 0;
        if (one && k <= 7)
            address |= static_cast<uint8_t>(1u << (k - 1));
    }
    if (ones % 2 == 0)
        return std::nullopt;
    return address;
}

void Kwp2000Ecu::DecodeAddress(EcuBus &bus, int64_t at) {
    const auto address = AddressFromEdges(bus);
    if (!address) {
        Idle(bus, at, "five-baud frame not readable (timing, parity or stop bit)");
        return;
    }
    if (*address != profile_.moduleAddress && *address != profile_.targetAddress) {
        Idle(bus, at, "");
        NoteValue(bus, at, "address %02X is not this ECU's", *address);
        return;
    }
    NoteValue(bus, at, "address %02X: sync and key bytes follow", *address);
    phase_ = Phase::KeyBytes;
    initAddress_ = *address;
    resyncs_ = 0;
    SendKeyBytes(bus, edges_.front().first + Ms(bus, kAddressBitMs * 10), profile_.timing.w1);
}

// The synchronisation byte `gapMs` after `reference`, then the key bytes with their gaps.
void Kwp2000Ecu::SendKeyBytes(EcuBus &bus, int64_t reference, int gapMs) {
    const auto &t = profile_.timing;
    const auto keys = KeyBytes();
    keyByte2Sent_ = keys[1];
    deadline_ = 0;
    lastEnd_ = reference;
    out_.push_back({faults_.syncByte.value_or(kSync), Ms(bus, gapMs), After::Nothing});
    out_.push_back({keys[0], Ms(bus, t.w2), After::Nothing});
    out_.push_back({keys[1], Ms(bus, t.w3), After::AwaitInvertedKeyByte});
}

// ---- requests ---------------------------------------------------------------------------------

void Kwp2000Ecu::OnByte(EcuBus &bus, int64_t at, uint8_t byte) {
    switch (phase_) {
    case Phase::KeyBytes:
        // Anything but the inverted key byte 2 is not heard; W4max then decides.
        if (!out_.empty() || deadline_ == 0 || byte != static_cast<uint8_t>(~keyByte2Sent_))
            break;
        deadline_ = 0;
        bus.Note(at, "inverted key byte 2 heard");
        {
            uint8_t answer = static_cast<uint8_t>(~initAddress_);
            if (faults_.wrongInvertedAddress)
                answer ^= 0x01;
            Queue(at, Ms(bus, profile_.timing.w4), {answer}, 0, After::StartSession);
        }
        break;
    case Phase::WakeUp: {
        const auto &t = profile_.timing;
        const int64_t wakeUpEnd = wakeUpRise_ - Ms(bus, t.wakeUpLow) + Ms(bus, t.wakeUpTotal);
        if (rx_.empty() && at - ByteTicks(bus) < wakeUpEnd - Ms(bus, t.wakeUpJitter)) {
            Idle(bus, at, "byte inside the wake-up pattern: no fast init");
            break;
        }
        ReceiveByte(bus, at, byte);
        break;
    }
    case Phase::Session:
        if (profile_.timing.p3Max > 0)
            deadline_ = at + Ms(bus, profile_.timing.p3Max);
        ReceiveByte(bus, at, byte);
        break;
    case Phase::Idle:
    case Phase::Address: break;
    }
    Reschedule(bus);
}

bool Kwp2000Ecu::Addressed(uint8_t format) const {
    // StartCommunication after a wake-up may come in either header form (ISO 14230-2); in a
    // session the key bytes fix the form.
    if (phase_ == Phase::WakeUp)
        return (format >> 6) != 0;
    return (KeyBytes()[0] & kKb1AddressHeader) != 0;
}

// Header size of the request in rx_, 0 while not enough of it is known.
size_t Kwp2000Ecu::RequestHeaderSize(const Bytes &rx) const {
    size_t header = Addressed(rx[0]) ? 3 : 1;
    if ((rx[0] & 0x3F) == 0)
        ++header;
    return rx.size() >= header ? header : 0;
}

void Kwp2000Ecu::ReceiveByte(EcuBus &bus, int64_t at, uint8_t byte) {
    if (!rx_.empty() || rxDiscard_) {
        if (at - lastRxAt_ > Ms(bus, profile_.timing.p4Max) + ByteTicks(bus)) {
            rx_.clear();
            rxDiscard_ = false;
        }
    }
    lastRxAt_ = at;
    if (rxDiscard_)
        return;
    rx_.push_back(byte);
    if (Addressed(rx_[0]) && (rx_[0] >> 6) != 2) {
        // Modes 1 and 3 (no form / functional addressing) are not served: skip to the next gap.
        rx_.clear();
        rxDiscard_ = true;
        return;
    }
    const size_t header = RequestHeaderSize(rx_);
    if (header == 0)
        return;
    const size_t length = (rx_[0] & 0x3F) != 0 ? (rx_[0] & 0x3F) : rx_[header - 1];
    if (rx_.size() < header + length + 1)
        return;
    const Bytes message = std::move(rx_);
    rx_.clear();
    OnRequest(bus, at, message);
}

void Kwp2000Ecu::OnRequest(EcuBus &bus, int64_t at, const Bytes &message) {
    const bool addressed = Addressed(message[0]);
    const size_t header = RequestHeaderSize(message);
    const bool formatLength = (message[0] & 0x3F) != 0;
    const uint8_t kb1 = KeyBytes()[0];
    const bool fastStart = phase_ == Phase::WakeUp;
    // A real ECU ignores what it cannot take as its own request: wrong checksum, another
    // target, a length form its key bytes do not announce, or no service id.
    if (Checksum(message, message.size() - 1) != message.back()) {
        bus.Note(at, "request ignored: bad checksum");
        return;
    }
    if (addressed && message[1] != profile_.targetAddress) {
        NoteValue(bus, at, "request ignored: target %02X", message[1]);
        return;
    }
    if (!fastStart && !(kb1 & (formatLength ? kKb1FormatLength : kKb1LengthByte))) {
        bus.Note(at, "request ignored: length form not announced by the key bytes");
        return;
    }
    const Bytes request(message.begin() + static_cast<ptrdiff_t>(header), message.end() - 1);
    if (request.empty()) {
        bus.Note(at, "request ignored: no service id");
        return;
    }
    if (fastStart && request != Bytes{0x81}) {
        Idle(bus, at, "no StartCommunication after the wake-up");
        return;
    }
    if (addressed)
        testerAddress_ = message[2];
    ++requests_;
    if (InRange(requests_, faults_.silentRequest, faults_.silentCount)) {
        NoteValue(bus, at, "fault: request %d left unanswered", requests_);
        if (fastStart)
            Idle(bus, at, "");
        return;
    }
    if (fastStart) {
        phase_ = Phase::Session;
        deadline_ = 0;
    }
    Answer(bus, at, request);
}

void Kwp2000Ecu::Answer(EcuBus &bus, int64_t at, const Bytes &request) {
    const auto &t = profile_.timing;
    const uint8_t sid = request[0];
    std::optional<Bytes> answer;
    if (InRange(requests_, faults_.busyRequest, static_cast<int>(faults_.busyCodes.size())))
        answer = Bytes{0x7F, sid,
                       faults_.busyCodes[static_cast<size_t>(requests_ - faults_.busyRequest)]};
    else
        answer = Serve(request);
    const bool drop = requests_ == faults_.dropAfterRequest;
    const bool stop = sid == 0x82 && answer && (*answer)[0] == 0xC2;
    const After last = drop ? After::DropLink : stop ? After::EndSession : After::Nothing;
    if (!answer) {
        if (drop)
            Idle(bus, at, "fault: link dropped");
        return;
    }
    int64_t gap = Ms(bus, t.p2);
    if (InRange(requests_, faults_.slowRequest, faults_.slowCount))
        gap = Ms(bus, faults_.slowDelay);
    if (requests_ == faults_.pendingRequest) {
        for (int i = 0; i < faults_.pendingCount; ++i) {
            Queue(at, gap, Frame({0x7F, sid, kKwpResponsePending}), Ms(bus, t.p1), After::Nothing);
            gap = Ms(bus, faults_.pendingGap);
        }
    }
    const auto messages = Split(*answer);
    for (size_t i = 0; i < messages.size(); ++i) {
        Queue(at, gap, Frame(messages[i]), Ms(bus, t.p1),
              i + 1 == messages.size() ? last : After::Nothing);
        gap = Ms(bus, t.p2);
    }
}

// ---- services ---------------------------------------------------------------------------------

Bytes Negative(uint8_t sid, uint8_t code) {
    return {0x7F, sid, code};
}

std::optional<Bytes> Kwp2000Ecu::Serve(const Bytes &request) {
    const uint8_t sid = request[0];
    const size_t n = request.size();
    switch (sid) {
    case 0x81: return n == 1 ? StartCommunication() : Negative(sid, kKwpInvalidFormat);
    case 0x82: return n == 1 ? Bytes{0xC2} : Negative(sid, kKwpInvalidFormat);
    case 0x10: return StartDiagnosticSession(request);
    case 0x20:
        if (n != 1)
            return Negative(sid, kKwpInvalidFormat);
        session_ = 0x81;
        actuatorTest_ = false;
        return Bytes{0x60};
    case 0x3E: return TesterPresent(request);
    case 0x13: return ReadDtc(request);
    case 0x14: return ClearDiagnosticInformation(request);
    case 0x18: return ReadDtcByStatus(request);
    case 0x12: return ReadFreezeFrame(request);
    case 0x1A: return ReadEcuIdentification(request);
    case 0x21: return ReadDataByLocalId(request);
    case 0x31: return StartRoutine(request);
    default: return Negative(sid, kKwpServiceNotSupported);
    }
}

Bytes Kwp2000Ecu::StartCommunication() const {
    const auto keys = KeyBytes();
    return {0xC1, keys[0], keys[1]};
}

Bytes Kwp2000Ecu::StartDiagnosticSession(const Bytes &request) {
    if (request.size() != 2)
        return Negative(0x10, kKwpInvalidFormat);
    const uint8_t mode = request[1];
    if (std::find(profile_.sessions.begin(), profile_.sessions.end(), mode) ==
        profile_.sessions.end())
        return Negative(0x10, kKwpInvalidFormat);
    session_ = mode;
    actuatorTest_ = false; // a session change ends a running actuator test
    return {0x50, mode};
}

std::optional<Bytes> Kwp2000Ecu::TesterPresent(const Bytes &request) const {
    if (request.size() == 1 || (request.size() == 2 && request[1] == 0x01))
        return Bytes{0x7E};
    if (request.size() == 2 && request[1] == 0x02)
        return std::nullopt;
    return Negative(0x3E, kKwpInvalidFormat);
}

// 13 [group]: the codes only, two bytes each.
Bytes Kwp2000Ecu::ReadDtc(const Bytes &request) const {
    if (request.size() != 1 && request.size() != 3)
        return Negative(0x13, kKwpInvalidFormat);
    const uint16_t group =
        request.size() == 3 ? static_cast<uint16_t>(request[1] << 8 | request[2]) : 0xFF00;
    Bytes answer{0x53, 0};
    for (const auto &dtc : dtcs_) {
        if (!GroupMatches(group, dtc.code) || answer[1] == 0xFF)
            continue;
        ++answer[1];
        answer.push_back(static_cast<uint8_t>(dtc.code >> 8));
        answer.push_back(static_cast<uint8_t>(dtc.code));
    }
    return answer;
}

// 14 (all) or 14 g_hi g_lo: group FF 00 is every code, any other group the code equal to it.
Bytes Kwp2000Ecu::ClearDiagnosticInformation(const Bytes &request) {
    if (request.size() == 1) {
        dtcs_.clear();
        return {0x54};
    }
    if (request.size() != 3)
        return Negative(0x14, kKwpInvalidFormat);
    const uint16_t group = static_cast<uint16_t>(request[1] << 8 | request[2]);
    std::erase_if(dtcs_, [&](const Kwp2000Dtc &dtc) { return GroupMatches(group, dtc.code); });
    return {0x54, request[1], request[2]};
}

// 18 s [g_hi g_lo]: s 0x00 to 0x03 reads every stored code, 0x11 the codes present now.
Bytes Kwp2000Ecu::ReadDtcByStatus(const Bytes &request) const {
    if (request.size() != 2 && request.size() != 4)
        return Negative(0x18, kKwpInvalidFormat);
    const uint8_t status = request[1];
    if (status > 0x03 && status != 0x11)
        return Negative(0x18, kKwpInvalidFormat);
    const uint16_t group =
        request.size() == 4 ? static_cast<uint16_t>(request[2] << 8 | request[3]) : 0xFF00;
    Bytes answer{0x58, 0};
    for (const auto &dtc : dtcs_) {
        if (!GroupMatches(group, dtc.code) || (status == 0x11 && !dtc.present))
            continue;
        ++answer[1];
        answer.push_back(static_cast<uint8_t>(dtc.code >> 8));
        answer.push_back(static_cast<uint8_t>(dtc.code));
        answer.push_back(dtc.status);
    }
    return answer;
}

// 12 00 04 hi lo (frame 0, access by trouble code): 52 00, the elements, then 04 hi lo echoed.
Bytes Kwp2000Ecu::ReadFreezeFrame(const Bytes &request) const {
    if (request.size() != 5 || request[1] != 0x00 || request[2] != 0x04)
        return Negative(0x12, kKwpInvalidFormat);
    const uint16_t code = static_cast<uint16_t>(request[3] << 8 | request[4]);
    const auto dtc = std::find_if(dtcs_.begin(), dtcs_.end(), [&](const Kwp2000Dtc &d) {
        return d.code == code && !d.freezeFrame.empty();
    });
    if (dtc == dtcs_.end())
        return Negative(0x12, kKwpRequestOutOfRange);
    Bytes answer{0x52, 0x00};
    answer.insert(answer.end(), dtc->freezeFrame.begin(), dtc->freezeFrame.end());
    answer.insert(answer.end(), {0x04, request[3], request[4]});
    return answer;
}

void AppendText(Bytes &out, const std::string &text, size_t width) {
    for (size_t i = 0; i < width; ++i)
        out.push_back(i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{' '});
}

// 1A 9B: the 48-byte record whose fields Part 6.1 reads at fixed positions.
Bytes Kwp2000Ecu::ReadEcuIdentification(const Bytes &request) const {
    if (request.size() != 2)
        return Negative(0x1A, kKwpInvalidFormat);
    if (request[1] != 0x9B)
        return Negative(0x1A, kKwpRequestOutOfRange);
    const auto &id = profile_.identification;
    Bytes answer{0x5A, 0x9B};
    AppendText(answer, id.partNumber, 12);                          // bytes 2-13
    AppendText(answer, id.softwareVersion, 4);                      // bytes 14-17
    answer.push_back(0x00);                                         // byte 18
    answer.push_back(static_cast<uint8_t>(id.coding >> 16 & 0x0F)); // bytes 19-21
    answer.push_back(static_cast<uint8_t>(id.coding >> 8));
    answer.push_back(static_cast<uint8_t>(id.coding));
    answer.insert(answer.end(), {0x00, 0x00});                        // bytes 22-23
    answer.push_back(static_cast<uint8_t>(id.extraCode >> 7 & 0x07)); // byte 24
    answer.push_back(
        static_cast<uint8_t>((id.extraCode & 0x7F) << 1 | (id.workshopCode >> 16 & 1)));
    answer.push_back(static_cast<uint8_t>(id.workshopCode >> 8)); // bytes 26-27
    answer.push_back(static_cast<uint8_t>(id.workshopCode));
    AppendText(answer, id.componentText, 20); // bytes 28-47
    return answer;
}

Bytes Kwp2000Ecu::ReadDataByLocalId(const Bytes &request) const {
    if (request.size() != 2)
        return Negative(0x21, kKwpInvalidFormat);
    const auto local = std::find_if(profile_.localIds.begin(), profile_.localIds.end(),
                                    [&](const Kwp2000LocalId &l) { return l.id == request[1]; });
    if (local == profile_.localIds.end())
        return Negative(0x21, kKwpRequestOutOfRange);
    Bytes answer{0x61, request[1]};
    answer.insert(answer.end(), local->elements.begin(), local->elements.end());
    return answer;
}

// 31 B8 00 00 lists the capabilities; 31 B8/B9/BA 01 02 start, step and read the actuator test.
Bytes Kwp2000Ecu::StartRoutine(const Bytes &request) {
    if (request.size() != 4)
        return Negative(0x31, kKwpInvalidFormat);
    const uint8_t routine = request[1];
    const uint16_t function = static_cast<uint16_t>(request[2] << 8 | request[3]);
    if (routine == 0xB8 && function == 0x0000) {
        Bytes answer{0x71, 0xB8};
        for (uint16_t code : profile_.capabilities) {
            answer.push_back(static_cast<uint8_t>(code >> 8));
            answer.push_back(static_cast<uint8_t>(code));
        }
        return answer;
    }
    if ((routine == 0xB8 || routine == 0xB9 || routine == 0xBA) && function == 0x0102)
        return Actuator(routine);
    return Negative(0x31, kKwpRequestOutOfRange);
}

// The test selects each actuator, runs it on the next step and moves on on the one after; a
// step past the last actuator, or a step or read without a test, is refused.
Bytes Kwp2000Ecu::Actuator(uint8_t routine) {
    Bytes echo{0x71, routine, 0x01, 0x02};
    if (routine == 0xB8) {
        if (profile_.actuators.empty() ||
            (profile_.actuatorSession != 0 && session_ != profile_.actuatorSession))
            return Negative(0x31, kKwpConditionsNotCorrect);
        actuatorTest_ = true;
        actuatorIndex_ = 0;
        actuatorRunning_ = false;
        return echo;
    }
    if (!actuatorTest_ || actuatorIndex_ >= profile_.actuators.size())
        return Negative(0x31, kKwpConditionsNotCorrect);
    const auto &actuator = profile_.actuators[actuatorIndex_];
    if (routine == 0xB9) {
        if (actuatorRunning_)
            ++actuatorIndex_;
        actuatorRunning_ = !actuatorRunning_;
        return echo;
    }
    // 71 BA 01 02, a status byte (1 running, 0 selected), then the elements: while selected
    // one element (formula 16) carrying the actuator's function code.
    Bytes answer = echo;
    answer.push_back(actuatorRunning_ ? 0x01 : 0x00);
    if (actuatorRunning_)
        answer.insert(answer.end(), actuator.elements.begin(), actuator.elements.end());
    else
        answer.insert(answer.end(), {0x10, static_cast<uint8_t>(actuator.code >> 8),
                                     static_cast<uint8_t>(actuator.code)});
    return answer;
}

// ---- answers on the line ----------------------------------------------------------------------

// Answers longer than one message allows go out as several, each continuation led by the
// service id again, so that the tester joins them behind one service id (Part 5.1).
std::vector<Bytes> Kwp2000Ecu::Split(const Bytes &answer) const {
    const uint8_t kb1 = KeyBytes()[0];
    size_t limit = (kb1 & kKb1LengthByte) ? 255 : 63;
    if (profile_.maxMessageData > 1)
        limit = std::min(limit, static_cast<size_t>(profile_.maxMessageData));
    std::vector<Bytes> messages;
    size_t pos = std::min(limit, answer.size());
    messages.emplace_back(answer.begin(), answer.begin() + static_cast<ptrdiff_t>(pos));
    while (pos < answer.size()) {
        const size_t take = std::min(limit - 1, answer.size() - pos);
        Bytes next{answer[0]};
        next.insert(next.end(), answer.begin() + static_cast<ptrdiff_t>(pos),
                    answer.begin() + static_cast<ptrdiff_t>(pos + take));
        messages.push_back(std::move(next));
        pos += take;
    }
    return messages;
}

// Header as the key bytes say, the data, the checksum; with the message faults applied.
Bytes Kwp2000Ecu::Frame(const Bytes &data) {
    const int index = ++messages_;
    const uint8_t kb1 = KeyBytes()[0];
    const bool addressed = (kb1 & kKb1AddressHeader) != 0;
    const bool formatLength = data.size() <= 63 && (kb1 & kKb1FormatLength);
    size_t length = data.size();
    if (index == faults_.wrongSizeMessage)
        length = formatLength && length == 63 ? 62 : length + 1;
    uint8_t format = addressed ? 0x80 : 0x00;
    if (formatLength)
        format |= static_cast<uint8_t>(length);
    if (index == faults_.wrongAddressModeMessage)
        format = static_cast<uint8_t>((format & 0x3F) | 0x40);
    Bytes message{format};
    if (addressed) {
        const bool wrongTarget = index == faults_.wrongTargetMessage;
        message.push_back(wrongTarget ? static_cast<uint8_t>(testerAddress_ ^ 0x01)
                                      : testerAddress_);
        message.push_back(profile_.targetAddress);
    }
    if (!formatLength)
        message.push_back(static_cast<uint8_t>(length));
    message.insert(message.end(), data.begin(), data.end());
    uint8_t checksum = Checksum(message, message.size());
    if (index == faults_.badChecksumMessage)
        ++checksum;
    message.push_back(checksum);
    return message;
}

// Appends bytes to the output; the first starts `gap` after the end of what is queued already,
// or after `reference` when nothing is.
void Kwp2000Ecu::Queue(int64_t reference, int64_t gap, const Bytes &bytes, int64_t p1, After last) {
    if (out_.empty())
        lastEnd_ = std::max(lastEnd_, reference);
    for (size_t i = 0; i < bytes.size(); ++i)
        out_.push_back(
            {bytes[i], i == 0 ? gap : p1, i + 1 == bytes.size() ? last : After::Nothing});
}

void Kwp2000Ecu::SendDue(EcuBus &bus, int64_t at) {
    const OutByte byte = out_.front();
    out_.pop_front();
    lastEnd_ = bus.Send(std::max(at, lastEnd_ + byte.gap), byte.value);
    const auto &t = profile_.timing;
    switch (byte.after) {
    case After::Nothing: break;
    case After::AwaitInvertedKeyByte:
        deadline_ = lastEnd_ + Ms(bus, t.w4Max) + ByteTicks(bus);
        break;
    case After::StartSession:
        bus.Note(lastEnd_, "session started");
        phase_ = Phase::Session;
        rx_.clear();
        rxDiscard_ = false;
        break;
    case After::EndSession: Idle(bus, lastEnd_, "session ended by StopCommunication"); break;
    case After::DropLink: Idle(bus, lastEnd_, "fault: link dropped"); break;
    }
    if (phase_ == Phase::Session)
        deadline_ = t.p3Max > 0 ? lastEnd_ + Ms(bus, t.p3Max) : 0;
}

void Kwp2000Ecu::OnDeadline(EcuBus &bus, int64_t at) {
    if (phase_ == Phase::Address) {
        DecodeAddress(bus, at);
        return;
    }
    // Without the inverted key byte 2 the ECU offers its key bytes again (the tester of Part
    // 5.2 waits for a new synchronisation byte after a missing key byte or address answer).
    if (phase_ == Phase::KeyBytes && resyncs_ < profile_.timing.resyncs) {
        ++resyncs_;
        bus.Note(at, "no inverted key byte 2: key bytes offered again");
        SendKeyBytes(bus, deadline_, profile_.timing.resync);
        return;
    }
    switch (phase_) {
    case Phase::WakeUp: Idle(bus, at, "no StartCommunication after the wake-up"); break;
    case Phase::KeyBytes: Idle(bus, at, "no inverted key byte 2: initialisation given up"); break;
    case Phase::Session: Idle(bus, at, "P3max without a request: session ended"); break;
    case Phase::Idle:
    case Phase::Address: EndSession(); break;
    }
}

void Kwp2000Ecu::Idle(EcuBus &bus, int64_t at, std::string_view why) {
    if (!why.empty())
        bus.Note(at, why);
    EndSession();
}

void Kwp2000Ecu::EndSession() {
    phase_ = Phase::Idle;
    deadline_ = 0;
    rx_.clear();
    rxDiscard_ = false;
    session_ = 0x81;
    actuatorTest_ = false;
}

void Kwp2000Ecu::OnTimer(EcuBus &bus, int64_t at) {
    for (;;) {
        if (!out_.empty() && lastEnd_ + out_.front().gap <= at)
            SendDue(bus, at);
        else if (deadline_ != 0 && deadline_ <= at && out_.empty())
            OnDeadline(bus, at);
        else
            break;
    }
    Reschedule(bus);
}

void Kwp2000Ecu::Reschedule(EcuBus &bus) {
    int64_t next = std::numeric_limits<int64_t>::max();
    if (!out_.empty())
        next = lastEnd_ + out_.front().gap;
    else if (deadline_ != 0)
        next = deadline_;
    if (next == std::numeric_limits<int64_t>::max())
        bus.CancelTimer();
    else
        bus.SetTimer(next);
}

} // namespace

// ---- the engine profile -----------------------------------------------------------------------

Kwp2000Profile Kwp2000EngineProfile() {
    Kwp2000Profile p;
    p.name = "kwp2000-engine";
    p.moduleAddress = 0x01;
    p.targetAddress = 0x10;
    p.keyByte1 = 0xEF; // lengths in format or length byte, address header, extended timing
    p.keyByte2 = 0x8F;
    p.sessions = {0x81, 0x85, 0x86, 0x87, 0x89};
    p.identification = {"06A906032HN", "3561", 31, 12345, 0x155, "1.8L R4/5VT     G   "};
    p.dtcs = {
        {0x4066,
         0x24,
         true,
         {0x01, 0xC8, 0x14, 0x05, 0x0A, 0xB6, 0x0B, 0x0A, 0x96, 0x10, 0x5B, 0x40}},
        {0x412C, 0x23, false, {}},
        {0x4575, 0x28, true, {0x01, 0xC8, 0x0F, 0x05, 0x0A, 0x86}},
    };
    p.localIds = {
        // engine speed, coolant, lambda control, ignition angle
        {0x01, {0x01, 0xC8, 0x23, 0x05, 0x0A, 0xB6, 0x0B, 0x0A, 0x80, 0x10, 0x5B, 0x40}},
        // load, throttle angle, intake air temperature
        {0x02, {0x21, 0x55, 0x1A, 0x17, 0xFF, 0x0A, 0x05, 0x0A, 0x8A}},
        // counted text and a value: the operating state
        {0x03, {0x5F, 0x04, 'I', 'd', 'l', 'e', 0x01, 0xC8, 0x23}},
    };
    p.capabilities = {0x0106, 0x0102};
    p.actuators = {
        {1262, {0x01, 0x00, 0x00, 0x34, 0x0A, 0xAF, 0x12, 0x25, 0xFF, 0x02, 0x40, 0x50}},
        {1264, {0x01, 0x00, 0x00, 0x05, 0x0A, 0xB6}},
    };
    return p;
}

std::unique_ptr<EcuModel> MakeKwp2000Ecu(const Kwp2000Profile &profile) {
    return std::make_unique<Kwp2000Ecu>(profile);
}

std::unique_ptr<EcuModel> MakeKwp2000Engine() {
    return MakeKwp2000Ecu(Kwp2000EngineProfile());
}

} // namespace dv::bench
