// The emulated KW1281 ECU (see kw1281_ecu.h).
#include "bench/kw1281_ecu.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace dv::bench {
namespace {

constexpr uint8_t kSync = 0x55;
constexpr uint8_t kEndByte = 0x03;

// Block titles (Parts 3.2, 4.1-4.7).
constexpr uint8_t kReadIdentification = 0x00;
constexpr uint8_t kReadRam = 0x01;
constexpr uint8_t kReadEprom = 0x03;
constexpr uint8_t kActuatorStep = 0x04;
constexpr uint8_t kClearFaults = 0x05;
constexpr uint8_t kEndCommunication = 0x06;
constexpr uint8_t kReadFaults = 0x07;
constexpr uint8_t kReadChannel = 0x08;
constexpr uint8_t kAck = 0x09;
constexpr uint8_t kRefusal = 0x0A;
constexpr uint8_t kSetCoding = 0x10;
constexpr uint8_t kBasicZero = 0x11;
constexpr uint8_t kGroupZero = 0x12;
constexpr uint8_t kReadEeprom = 0x19;
constexpr uint8_t kAdaptRead = 0x21;
constexpr uint8_t kAdaptTest = 0x22;
constexpr uint8_t kBasicGroup = 0x28;
constexpr uint8_t kGroup = 0x29;
constexpr uint8_t kAdaptSave = 0x2A;
constexpr uint8_t kLogin = 0x2B;
constexpr uint8_t kCurveHeader = 0x02;
constexpr uint8_t kEepromData = 0xEF;
constexpr uint8_t kEpromData = 0xFD;
constexpr uint8_t kRamData = 0xFE;
constexpr uint8_t kAdaptAnswer = 0xE6;
constexpr uint8_t kGroupAnswer = 0xE7;
constexpr uint8_t kRawValues = 0xF4;
constexpr uint8_t kActuatorAnswer = 0xF5;
constexpr uint8_t kIdentText = 0xF6;
constexpr uint8_t kChannelAnswer = 0xFB;
constexpr uint8_t kFaultAnswer = 0xFC;

using Block = std::vector<uint8_t>;

std::deque<Block> One(Block block) {
    return std::deque<Block>{std::move(block)};
}
std::deque<Block> Refuse() {
    return One({kRefusal});
}

std::string Hex2(uint8_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", value);
    return text;
}

} // namespace

Kw1281Ecu::Kw1281Ecu(Kw1281Profile profile)
    : profile_(std::move(profile)), faultMemory_(profile_.faults), coding_(profile_.coding),
      workshopCode_(profile_.workshopCode) {
    for (const Kw1281Adaptation &channel : profile_.adaptations) {
        adaptation_.push_back(channel.value);
    }
}

uint16_t Kw1281Ecu::AdaptationValue(uint8_t channel) const {
    for (size_t i = 0; i < profile_.adaptations.size(); ++i) {
        if (profile_.adaptations[i].channel == channel) {
            return adaptation_[i];
        }
    }
    return 0;
}

// ---- 5-baud address --------------------------------------------------------------------------

void Kw1281Ecu::OnLineLevel(EcuBus &bus, int64_t at, bool high) {
    if (!high && phase_ != Phase::Address) {
        StartAddress(bus, at);
        return;
    }
    if (phase_ != Phase::Address) {
        return;
    }
    // Every edge of the frame must fall on a bit boundary, give or take the tolerance.
    const int64_t bit = Ms(bus, profile_.timing.bitTimeMs);
    const int64_t offset = at - addressStart_;
    const int64_t nearest = (offset + bit / 2) / bit * bit;
    if (std::llabs(offset - nearest) > Ms(bus, profile_.timing.bitToleranceMs) || nearest == 0) {
        bus.Note(at, "5-baud edge off the bit grid: frame ignored");
        bus.CancelTimer();
        phase_ = Phase::Idle;
        return;
    }
    edges_.emplace_back(at, high);
}

void Kw1281Ecu::StartAddress(EcuBus &bus, int64_t at) {
    if (LinkUp()) {
        DropLink(bus, at, "a break on the line");
    }
    phase_ = Phase::Address;
    addressStart_ = at;
    edges_.clear();
    // Decide in the middle of the stop bit.
    bus.SetTimer(at + Ms(bus, profile_.timing.bitTimeMs) * 19 / 2);
}

void Kw1281Ecu::DecodeAddress(EcuBus &bus, int64_t at) {
    const int64_t bit = Ms(bus, profile_.timing.bitTimeMs);
    auto level = [&](int index) {
        const int64_t t = addressStart_ + bit * index + bit / 2;
        bool high = false;
        for (const auto &[edgeAt, edgeHigh] : edges_) {
            if (edgeAt <= t) {
                high = edgeHigh;
            }
        }
        return high ? 1 : 0;
    };
    phase_ = Phase::Idle;
    if (level(0) != 0 || level(9) != 1) {
        bus.Note(at, "5-baud frame without start or stop bit: ignored");
        return;
    }
    uint8_t address = 0;
    int ones = 0;
    for (int i = 0; i < 7; ++i) {
        address = static_cast<uint8_t>(address | level(1 + i) << i);
        ones += level(1 + i);
    }
    ones += level(8);
    lastAddress_ = address;
    if (ones % 2 != 1) {
        bus.Note(at, "5-baud address " + Hex2(address) + " with a parity error: ignored");
        return;
    }
    if (address != profile_.address) {
        bus.Note(at, "5-baud address " + Hex2(address) + " is not mine");
        return;
    }
    bus.Note(at, "5-baud address " + Hex2(address) + " decoded");
    phase_ = Phase::Init;
    initStep_ = 0;
    initRepeatsLeft_ = profile_.timing.initRepeats;
    bus.SetTimer(at + Ms(bus, profile_.timing.syncDelayMs));
}

// ---- sync and keyword bytes ----------------------------------------------------------------

void Kw1281Ecu::InitStep(EcuBus &bus, int64_t at) {
    const Kw1281Timing &t = profile_.timing;
    switch (initStep_++) {
    case 0:
        bus.SetTimer(bus.Send(at, faults.syncByte.value_or(kSync)) + Ms(bus, t.keywordDelayMs));
        break;
    case 1:
        bus.SetTimer(bus.Send(at, faults.keyword1.value_or(profile_.keyword1)) +
                     Ms(bus, t.keywordGapMs));
        break;
    default:
        phase_ = Phase::KeyComplement;
        bus.SetTimer(bus.Send(at, faults.keyword2.value_or(profile_.keyword2)) +
                     Ms(bus, t.complementWaitMs));
        break;
    }
}

void Kw1281Ecu::InitFailed(EcuBus &bus, int64_t at) {
    if (initRepeatsLeft_ == 0) {
        bus.Note(at, "no complement of the keyword: back to waiting for an address");
        bus.CancelTimer();
        phase_ = Phase::Idle;
        return;
    }
    --initRepeatsLeft_;
    bus.Note(at, "no complement of the keyword: sync and keywords again");
    phase_ = Phase::Init;
    initStep_ = 0;
    bus.SetTimer(at + Ms(bus, profile_.timing.initRepeatDelayMs));
}

void Kw1281Ecu::LinkEstablished(EcuBus &bus, int64_t at) {
    bus.Note(at, "link established");
    ++linksUp_;
    counter_ = 0;
    loggedIn_ = false;
    headerGroup_ = -1;
    actuatorStep_ = 0;
    Queue(Identification(0), bus, at + Ms(bus, profile_.timing.firstBlockDelayMs));
}

void Kw1281Ecu::DropLink(EcuBus &bus, int64_t at, const char *why) {
    bus.Note(at, std::string("link dropped: ") + why);
    ++linksDropped_;
    bus.CancelTimer();
    pending_.clear();
    phase_ = Phase::Idle;
}

// ---- line events ------------------------------------------------------------------------------

void Kw1281Ecu::OnByte(EcuBus &bus, int64_t at, uint8_t byte) {
    switch (phase_) {
    case Phase::KeyComplement: {
        const uint8_t expected = static_cast<uint8_t>(~faults.keyword2.value_or(profile_.keyword2));
        if (byte == expected) {
            LinkEstablished(bus, at);
        } else {
            InitFailed(bus, at);
        }
        break;
    }
    case Phase::AwaitBlock:
    case Phase::ReceiveBlock: ReceiveByte(bus, at, byte); break;
    case Phase::SendBlock: ComplementReceived(bus, at, byte); break;
    case Phase::Idle:
    case Phase::Address:
    case Phase::Init:
    case Phase::Answer: break; // talking or not listening: the byte is lost
    }
}

void Kw1281Ecu::OnTimer(EcuBus &bus, int64_t at) {
    switch (phase_) {
    case Phase::Address: DecodeAddress(bus, at); break;
    case Phase::Init: InitStep(bus, at); break;
    case Phase::KeyComplement: InitFailed(bus, at); break;
    case Phase::AwaitBlock: DropLink(bus, at, "no block from the tester"); break;
    case Phase::ReceiveBlock:
        bus.Note(at, "tester block incomplete: discarded");
        AwaitBlock(bus, at);
        break;
    case Phase::Answer:
        phase_ = Phase::SendBlock;
        sendIndex_ = 0;
        SendNextByte(bus, at);
        break;
    case Phase::SendBlock: Resend(bus, at); break;
    case Phase::Idle: break;
    }
}

// ---- receiving a tester block -----------------------------------------------------------------

void Kw1281Ecu::AwaitBlock(EcuBus &bus, int64_t at) {
    phase_ = Phase::AwaitBlock;
    received_.clear();
    bus.SetTimer(at + Ms(bus, profile_.timing.blockTimeoutMs));
}

void Kw1281Ecu::ReceiveByte(EcuBus &bus, int64_t at, uint8_t byte) {
    const Kw1281Timing &t = profile_.timing;
    if (phase_ == Phase::AwaitBlock) {
        phase_ = Phase::ReceiveBlock;
        received_.clear();
    }
    const bool complete = !received_.empty() && received_.size() >= received_[0];
    if (complete) {
        // The end byte: no complement.
        if (byte != kEndByte) {
            bus.Note(at, "tester block with end byte " + Hex2(byte) + ": discarded");
            AwaitBlock(bus, at);
            return;
        }
        BlockReceived(bus, at);
        return;
    }
    received_.push_back(byte);
    uint8_t complement = static_cast<uint8_t>(~byte);
    if (++complementsSent_ == faults.wrongComplement) {
        complement = static_cast<uint8_t>(complement ^ faults.complementMask);
    }
    bus.Send(at + Ms(bus, t.complementDelayMs), complement);
    if (received_[0] < 3) {
        bus.Note(at, "tester block length " + Hex2(received_[0]) + ": discarded");
        AwaitBlock(bus, at);
        return;
    }
    bus.SetTimer(at + Ms(bus, t.byteTimeoutMs));
}

void Kw1281Ecu::BlockReceived(EcuBus &bus, int64_t at) {
    ++blocksReceived_;
    const uint8_t title = received_[2];
    titles_.push_back(title);
    counter_ = received_[1];
    const std::vector<uint8_t> data(received_.begin() + 3, received_.end());
    received_.clear();
    if (blocksReceived_ == faults.dropLinkAtBlock) {
        DropLink(bus, at, "fault injected");
        return;
    }
    if (title == kEndCommunication) {
        DropLink(bus, at, "end of communication");
        return;
    }
    if (blocksReceived_ == faults.silentBlock) {
        bus.Note(at, "block left unanswered (fault injected)");
        AwaitBlock(bus, at);
        return;
    }
    std::deque<Block> answer;
    if (title == kAck && !pending_.empty()) {
        answer = std::move(pending_);
    } else {
        answer = Serve(title, data);
    }
    int64_t delay = Ms(bus, profile_.timing.answerDelayMs);
    if (faults.slowMs != 0 && (faults.slowBlock == 0 || faults.slowBlock == blocksReceived_)) {
        delay += Ms(bus, faults.slowMs);
    }
    Queue(std::move(answer), bus, at + delay);
}

// ---- sending a block ------------------------------------------------------------------------

void Kw1281Ecu::Queue(std::deque<Block> blocks, EcuBus &bus, int64_t at) {
    pending_ = std::move(blocks);
    if (pending_.empty()) {
        AwaitBlock(bus, at);
        return;
    }
    const Block &block = pending_.front();
    ++counter_;
    ++blocksSent_;
    sending_.clear();
    sending_.push_back(static_cast<uint8_t>(block.size() + 2));
    sending_.push_back(blocksSent_ == faults.wrongCounterBlock ? static_cast<uint8_t>(counter_ + 1)
                                                               : counter_);
    sending_.insert(sending_.end(), block.begin(), block.end());
    sending_.push_back(blocksSent_ == faults.badEndByteBlock ? 0x00 : kEndByte);
    pending_.pop_front();
    resends_ = 0;
    phase_ = Phase::Answer;
    bus.SetTimer(at);
}

void Kw1281Ecu::SendNextByte(EcuBus &bus, int64_t at) {
    const uint8_t byte = sending_[sendIndex_];
    const int64_t end = bus.Send(at, byte);
    if (sendIndex_ + 1 == sending_.size()) {
        // The end byte is not complemented: the tester's turn.
        AwaitBlock(bus, end);
        return;
    }
    bus.SetTimer(end + Ms(bus, profile_.timing.byteTimeoutMs));
}

void Kw1281Ecu::ComplementReceived(EcuBus &bus, int64_t at, uint8_t byte) {
    const uint8_t expected = static_cast<uint8_t>(~sending_[sendIndex_]);
    if (byte != expected) {
        bus.Note(at, "complement " + Hex2(byte) + " instead of " + Hex2(expected));
        Resend(bus, at);
        return;
    }
    ++sendIndex_;
    SendNextByte(bus, at + Ms(bus, profile_.timing.byteGapMs));
}

void Kw1281Ecu::Resend(EcuBus &bus, int64_t at) {
    if (resends_ == profile_.timing.resendLimit) {
        DropLink(bus, at, "the tester does not complement");
        return;
    }
    ++resends_;
    bus.Note(at, "block sent again");
    phase_ = Phase::Answer;
    bus.SetTimer(at + Ms(bus, profile_.timing.resendDelayMs));
}

// ---- what the ECU answers -------------------------------------------------------------------

std::deque<Block> Kw1281Ecu::Serve(uint8_t title, const std::vector<uint8_t> &data) {
    switch (title) {
    case kAck: headerGroup_ = -1; return One({kAck});
    case kReadIdentification: return Identification(nextPass_);
    case kReadFaults: return FaultBlocks();
    case kClearFaults:
        std::erase_if(faultMemory_, [](const Kw1281FaultEntry &f) { return !f.stays; });
        return FaultBlocks();
    case kSetCoding: return Coding(data);
    case kLogin: {
        if (data.size() != 5 || !profile_.loginCode ||
            *profile_.loginCode != (data[0] << 8 | data[1])) {
            return Refuse();
        }
        loggedIn_ = true;
        return One({kAck});
    }
    case kActuatorStep:
        if (actuatorStep_ >= profile_.actuators.size()) {
            actuatorStep_ = 0;
            return One({kAck});
        } else {
            const uint16_t code = profile_.actuators[actuatorStep_++];
            return One(
                {kActuatorAnswer, static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)});
        }
    case kReadChannel:
        for (const Kw1281Channel &channel : profile_.channels) {
            if (data.size() == 1 && channel.number == data[0]) {
                return One({kChannelAnswer, static_cast<uint8_t>(channel.value >> 8),
                            static_cast<uint8_t>(channel.value)});
            }
        }
        return Refuse();
    case kGroup:
    case kBasicGroup:
    case kGroupZero:
    case kBasicZero: return Group(title, data);
    case kAdaptRead:
    case kAdaptTest:
    case kAdaptSave: return Adaptation(title, data);
    case kReadRam:
    case kReadEprom:
    case kReadEeprom: return Memory(title, data);
    default: return Refuse();
    }
}

std::deque<Block> Kw1281Ecu::Identification(size_t pass) {
    std::deque<Block> blocks;
    const auto &passes = profile_.identification;
    if (!passes.empty()) {
        pass %= passes.size();
        nextPass_ = (pass + 1) % passes.size();
        for (const std::string &text : passes[pass]) {
            Block block{kIdentText};
            block.insert(block.end(), text.begin(), text.end());
            blocks.push_back(std::move(block));
        }
    }
    if (pass == 0 && profile_.hasCoding) {
        if (profile_.shortCoding) {
            blocks.push_back(
                {kIdentText, 0x00, static_cast<uint8_t>(coding_ << 1 | (workshopCode_ >> 16 & 1)),
                 static_cast<uint8_t>(workshopCode_ >> 8), static_cast<uint8_t>(workshopCode_)});
        } else {
            const uint32_t v = static_cast<uint32_t>(coding_) << 17 | (workshopCode_ & 0x1FFFF);
            blocks.push_back({kIdentText, 0x00, static_cast<uint8_t>(v >> 24),
                              static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
                              static_cast<uint8_t>(v)});
        }
    }
    if (!blocks.empty() && pass + 1 < passes.size() && blocks.front().size() > 1) {
        blocks.front()[1] |= 0x80; // more identification follows
    }
    blocks.push_back({kAck});
    return blocks;
}

std::deque<Block> Kw1281Ecu::FaultBlocks() const {
    std::deque<Block> blocks;
    if (faultMemory_.empty()) {
        blocks.push_back({kFaultAnswer, 0xFF, 0xFF, 0x88});
    }
    const size_t perBlock = std::max<uint32_t>(1, profile_.faultsPerBlock);
    for (size_t i = 0; i < faultMemory_.size(); i += perBlock) {
        Block block{kFaultAnswer};
        for (size_t j = i; j < std::min(faultMemory_.size(), i + perBlock); ++j) {
            block.push_back(static_cast<uint8_t>(faultMemory_[j].code >> 8));
            block.push_back(static_cast<uint8_t>(faultMemory_[j].code));
            block.push_back(faultMemory_[j].status);
        }
        blocks.push_back(std::move(block));
    }
    blocks.push_back({kAck});
    return blocks;
}

std::deque<Block> Kw1281Ecu::Group(uint8_t title, const std::vector<uint8_t> &data) {
    if (title == kGroupZero || title == kBasicZero) {
        if (profile_.groupZero.empty()) {
            return Refuse();
        }
        Block block{kRawValues};
        block.insert(block.end(), profile_.groupZero.begin(), profile_.groupZero.end());
        return One(std::move(block));
    }
    if (data.size() != 1) {
        return Refuse();
    }
    for (const Kw1281Group &group : profile_.groups) {
        if (group.number != data[0]) {
            continue;
        }
        if (!group.header.empty() && headerGroup_ != group.number) {
            headerGroup_ = group.number;
            Block block{kCurveHeader};
            block.insert(block.end(), group.header.begin(), group.header.end());
            return One(std::move(block));
        }
        const bool basic = title == kBasicGroup && !group.basicValues.empty();
        const std::vector<uint8_t> &values = basic ? group.basicValues : group.values;
        Block block{group.header.empty() ? kGroupAnswer : kRawValues};
        block.insert(block.end(), values.begin(), values.end());
        return One(std::move(block));
    }
    return Refuse();
}

Block Kw1281Ecu::AdaptationAnswer(const Kw1281Adaptation &channel, uint16_t value) const {
    Block block{kAdaptAnswer, channel.channel, static_cast<uint8_t>(value >> 8),
                static_cast<uint8_t>(value)};
    if (channel.innerTitle != 0) {
        block.push_back(channel.innerTitle);
        block.insert(block.end(), channel.values.begin(), channel.values.end());
    }
    return block;
}

std::deque<Block> Kw1281Ecu::Adaptation(uint8_t title, const std::vector<uint8_t> &data) {
    const size_t size = title == kAdaptRead ? 1 : title == kAdaptTest ? 3 : 6;
    if (data.size() != size) {
        return Refuse();
    }
    if (title != kAdaptRead && profile_.loginForAdaptation && !loggedIn_) {
        return Refuse();
    }
    if (title == kAdaptSave && data[0] == 0) {
        // Channel 0: every adaptation back to its value as delivered.
        for (size_t i = 0; i < adaptation_.size(); ++i) {
            adaptation_[i] = profile_.adaptations[i].value;
        }
        return One({kAdaptAnswer, 0x00, 0x00, 0x00});
    }
    for (size_t i = 0; i < profile_.adaptations.size(); ++i) {
        const Kw1281Adaptation &channel = profile_.adaptations[i];
        if (channel.channel != data[0]) {
            continue;
        }
        if (title == kAdaptRead) {
            return One(AdaptationAnswer(channel, adaptation_[i]));
        }
        const auto value = static_cast<uint16_t>(
            std::clamp<int>(data[1] << 8 | data[2], channel.min, channel.max));
        if (title == kAdaptSave) {
            adaptation_[i] = value;
            workshopCode_ = static_cast<uint32_t>(data[3] << 16 | data[4] << 8 | data[5]) & 0x1FFFF;
        }
        return One(AdaptationAnswer(channel, value));
    }
    return Refuse();
}

std::deque<Block> Kw1281Ecu::Coding(const std::vector<uint8_t> &data) {
    const size_t size = profile_.shortCoding ? 3 : 4;
    if (data.size() != size || !profile_.hasCoding || (profile_.loginForCoding && !loggedIn_)) {
        return Refuse();
    }
    if (profile_.shortCoding) {
        coding_ = data[0] >> 1;
        workshopCode_ = static_cast<uint32_t>((data[0] & 1) << 16 | data[1] << 8 | data[2]);
    } else {
        const uint32_t v =
            static_cast<uint32_t>(data[0]) << 24 | data[1] << 16 | data[2] << 8 | data[3];
        coding_ = static_cast<uint16_t>(v >> 17);
        workshopCode_ = v & 0x1FFFF;
    }
    return Identification(0);
}

std::deque<Block> Kw1281Ecu::Memory(uint8_t title, const std::vector<uint8_t> &data) const {
    if (data.size() != 3) {
        return Refuse();
    }
    const std::vector<uint8_t> &memory = title == kReadRam     ? profile_.ram
                                         : title == kReadEprom ? profile_.eprom
                                                               : profile_.eeprom;
    if (title == kReadEeprom && profile_.loginForEeprom && !loggedIn_) {
        return Refuse();
    }
    const size_t address = static_cast<size_t>(data[1] << 8 | data[2]);
    if (address >= memory.size()) {
        return Refuse();
    }
    const size_t count = std::min<size_t>(data[0], memory.size() - address);
    Block block{title == kReadRam ? kRamData : title == kReadEprom ? kEpromData : kEepromData};
    block.insert(block.end(), memory.begin() + static_cast<std::ptrdiff_t>(address),
                 memory.begin() + static_cast<std::ptrdiff_t>(address + count));
    return One(std::move(block));
}

// ---- profiles ---------------------------------------------------------------------------------

namespace {

std::vector<uint8_t> Bytes(std::string_view text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

} // namespace

Kw1281Profile Kw1281EngineProfile() {
    Kw1281Profile p;
    p.address = 0x01;
    p.baud = 10400;
    p.keyword1 = 0x01;
    p.keyword2 = 0x8A;
    p.identification = {
        {"038906019FR ", "1,9l R4 EDC  ", "G000SG  2337"},
        {"WVWZZZ1JZXW0", "00001  VWZ7Z", "0X1234567"},
    };
    p.shortCoding = false;
    p.coding = 1503;
    p.workshopCode = 12345;
    p.loginCode = 12233;
    p.loginForAdaptation = true;
    p.faults = {{0x020A, 0x1E, false},
                {0x0206, 0x9B, false},
                {0x4411, 0x23, true},
                {0x0441, 0x1D, false},
                {0x01F4, 0x1B, false}};
    p.groups = {
        // Idle: engine speed, coolant, lambda control, basic settings status.
        {1,
         {0x01, 0xC8, 0x14, 0x05, 0x0A, 0x8C, 0x15, 0x64, 0x7F, 0x10, 0x01, 0x00},
         {0x01, 0xC8, 0x14, 0x05, 0x0A, 0x8C, 0x15, 0x64, 0x7F, 0x10, 0x01, 0x02},
         {}},
        // Injection: text value first.
        {2, {0x0A, 0x05, 0x06, 0x1D, 0x03, 0x04, 0x2C, 0x0C, 0x1E}, {}, {}},
        // Curve-coded (Digifant style): header entries formula, factor, n, data.
        {3, {0x28, 0x40, 0x01, 0xC8}, {}, {0x80, 0x28, 0x00, 0x8B, 0x01, 0x03, 0x00, 0x64,
                                           0xC8, 0x8D, 0x02, 0x07, 'A',  'U',  'S',  0x01,
                                           'E',  'I',  'N',  0x8E, 0x4B, 0x00}},
    };
    p.groupZero = {19, 15, 32, 85, 19, 252, 254, 5, 174, 2};
    p.channels = {{0, 800}, {1, 0x1234}};
    p.adaptations = {
        {1, 128, 88, 168, 0xE7, {0x01, 0xC8, 0x23, 0x05, 0x0A, 0x8C}},
        {2, 30000, 0, 65535, 0, {}},
        {3, 5, 0, 9, 0xF4, {0x11, 0x22}},
    };
    p.actuators = {0x0119, 0x04DF, 0x0202};
    p.ram = Bytes(std::string_view("Engine RAM data\0", 16));
    p.eprom = Bytes(std::string_view("Engine EPROM data 038906019FR\0", 30));
    p.eeprom = Bytes(std::string_view("Engine EEPROM\0", 14));
    return p;
}

Kw1281Profile Kw1281ClusterProfile() {
    Kw1281Profile p;
    p.address = 0x17;
    p.baud = 9600;
    p.keyword1 = 0x89;
    p.keyword2 = 0x80;
    p.identification = {{"1J0920826C  ", "KOMBI+WEGFAH", "RSP. VDO V50", "  0001"}};
    p.shortCoding = true;
    p.coding = 33;
    p.workshopCode = 65659;
    p.loginCode = 13861;
    p.loginForCoding = true;
    p.loginForAdaptation = true;
    p.loginForEeprom = true;
    p.faults = {};
    p.groups = {
        {1, {0x07, 0x01, 0x00, 0x01, 0x14, 0x00, 0x12, 0x02, 0x20, 0x05, 0x0A, 0x7A}, {}, {}},
        {2, {0x24, 0x00, 0x64, 0x13, 0x01, 0x28, 0x11, 'D', 'E', 0x2C, 0x0A, 0x1F}, {}, {}},
    };
    p.channels = {};
    p.adaptations = {
        {9, 1000, 0, 9999, 0xE7, {0x24, 0x00, 0x64}},
        {30, 85, 50, 150, 0, {}},
    };
    p.actuators = {0x0310, 0x0311, 0x0312, 0x0313};
    p.ram = Bytes(std::string_view("Cluster RAM\0", 12));
    p.eprom = {};
    p.eeprom = Bytes(std::string_view("WVWZZZ1JZXW000001 cluster EEPROM\0", 33));
    return p;
}

std::unique_ptr<EcuModel> MakeKw1281Engine() {
    return std::make_unique<Kw1281Ecu>(Kw1281EngineProfile());
}

std::unique_ptr<EcuModel> MakeKw1281Cluster() {
    return std::make_unique<Kw1281Ecu>(Kw1281ClusterProfile());
}

} // namespace dv::bench
