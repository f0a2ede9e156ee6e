// An emulated KW1281 ECU: the other end of Parts 3.1-3.3 and 4.1-4.7.
//
// It decodes its 5-baud address from the break edges, sends the sync byte and the keyword
// bytes, waits for the complement of the second keyword byte and then speaks the block
// protocol: it complements every tester byte but the end byte, expects the tester's
// complement of every byte it sends but its end byte, keeps its own block counter, and drops
// the link when the tester is silent past its byte or block timeout. Its contents (what it
// answers) and its timing are a Kw1281Profile; its state (fault memory, coding, adaptation,
// login, actuator step) changes as a real ECU's would.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/ecu_model.h"

namespace dv::bench {

// Timing of a KW1281 ECU, in ms.
struct Kw1281Timing {
    uint32_t bitTimeMs = 200;        // 5-baud bit time
    uint32_t bitToleranceMs = 20;    // an edge may be this far from its bit boundary
    uint32_t syncDelayMs = 30;       // W1: from the middle of the stop bit to the sync byte
    uint32_t keywordDelayMs = 10;    // W2: from the sync byte to the first keyword byte
    uint32_t keywordGapMs = 5;       // W3: between the keyword bytes
    uint32_t complementWaitMs = 200; // W4 limit: for the complement of the second keyword byte
    uint32_t firstBlockDelayMs = 40; // W5: from that complement to the first block
    uint32_t initRepeats = 2;        // sync and keywords sent again when the complement fails
    uint32_t initRepeatDelayMs = 300;
    uint32_t complementDelayMs = 1; // turnaround before the ECU's complement of a tester byte
    uint32_t byteGapMs = 1;         // after the tester's complement, before the next ECU byte
    uint32_t answerDelayMs = 15;    // after the tester's end byte, before the answer block
    uint32_t byteTimeoutMs = 50;    // for the tester's next byte or complement in a block
    uint32_t blockTimeoutMs = 1100; // for the tester's next block: then the link is dropped
    uint32_t resendDelayMs = 100;   // after a missing or wrong complement, before resending
    uint32_t resendLimit = 3;       // resends of one block before the link is dropped
};

struct Kw1281FaultEntry {
    uint16_t code;
    uint8_t status;
    bool stays = false; // the fault is present: clearing does not remove it
};

// A measuring group: 0xE7 triples (formula, A, B), or a curve-coded group (0x02 header of
// curve entries on the first request, 0xF4 value bytes on the following ones).
struct Kw1281Group {
    uint8_t number;
    std::vector<uint8_t> values;      // 0xE7 triples, or the 0xF4 bytes of a curve group
    std::vector<uint8_t> basicValues; // 0xE7 triples in basic settings; empty: as `values`
    std::vector<uint8_t> header;      // curve group: the 0x02 answer's data; empty: 0xE7 group
};

struct Kw1281Channel { // 0x08 channel reading
    uint8_t number;
    uint16_t value;
};

struct Kw1281Adaptation {
    uint8_t channel;
    uint16_t value; // as stored at start and after clearing
    uint16_t min;
    uint16_t max;
    uint8_t innerTitle = 0;      // 0: the 0xE6 answer has no measuring values; 0xE7 or 0xF4
    std::vector<uint8_t> values; // the measuring values after the inner title
};

struct Kw1281Profile {
    uint8_t address = 0x01;
    uint32_t baud = 10400;
    uint8_t keyword1 = 0x01; // keyword 0x8A01 is sent as 0x01, 0x8A
    uint8_t keyword2 = 0x8A;
    Kw1281Timing timing;
    // Identification passes: the text blocks of each pass (the first block of every pass but
    // the last carries the more-flag); the coding block closes the first pass.
    std::vector<std::vector<std::string>> identification;
    bool hasCoding = true;
    bool shortCoding = false; // coding block of length 7 (7-bit coding) instead of 8
    uint16_t coding = 0;
    uint32_t workshopCode = 0;
    std::optional<uint16_t> loginCode; // none: login refused
    bool loginForCoding = false;
    bool loginForAdaptation = false; // test, save and clear
    bool loginForEeprom = false;
    std::vector<Kw1281FaultEntry> faults;
    uint32_t faultsPerBlock = 4;
    std::vector<Kw1281Group> groups;
    std::vector<uint8_t> groupZero; // 0xF4 bytes of the group-less reading; empty: refused
    std::vector<Kw1281Channel> channels;
    std::vector<Kw1281Adaptation> adaptations;
    std::vector<uint16_t> actuators; // actuator codes in test order
    std::vector<uint8_t> ram, eprom, eeprom;
};

// Faults of the protocol. Blocks are counted over every block the ECU received from the tester
// since it was made (acknowledges included; see BlocksReceived), complements over every
// complement it sent, sent blocks over every block it sent.
struct Kw1281Faults {
    std::optional<uint8_t> syncByte; // sent instead of 0x55
    std::optional<uint8_t> keyword1; // sent instead of the profile's keyword bytes
    std::optional<uint8_t> keyword2;
    int wrongComplement = 0; // the Nth complement is XORed with complementMask
    uint8_t complementMask = 0x01;
    int silentBlock = 0;       // the Nth block gets no answer
    int dropLinkAtBlock = 0;   // at the Nth block the ECU drops the link, silent
    int slowBlock = 0;         // the Nth block's answer comes slowMs later (0: every
    uint32_t slowMs = 0;       //   block's, when slowMs is not 0)
    int wrongCounterBlock = 0; // the Nth block sent carries its counter + 1
    int badEndByteBlock = 0;   // the Nth block sent ends with 0x00, not 0x03
};

class Kw1281Ecu final : public EcuModel {
public:
    explicit Kw1281Ecu(Kw1281Profile profile);

    void OnLineLevel(EcuBus &bus, int64_t at, bool high) override;
    void OnByte(EcuBus &bus, int64_t at, uint8_t byte) override;
    void OnTimer(EcuBus &bus, int64_t at) override;
    uint32_t Baud() const override { return profile_.baud; }

    enum class Phase {
        Idle,          // waiting for a 5-baud address
        Address,       // decoding one
        Init,          // sending sync and keyword bytes
        KeyComplement, // waiting for the complement of the second keyword byte
        AwaitBlock,    // the tester's turn
        ReceiveBlock,  // in the middle of a tester block
        Answer,        // about to send a block
        SendBlock,     // sending a block, waiting for each complement
    };

    Kw1281Faults faults;

    Phase CurrentPhase() const { return phase_; }
    bool LinkUp() const { return phase_ >= Phase::AwaitBlock; }
    const Kw1281Profile &Profile() const { return profile_; }
    // The ECU's state as it stands (changed by clearing, coding, saving, login).
    const std::vector<Kw1281FaultEntry> &Faults() const { return faultMemory_; }
    uint16_t Coding() const { return coding_; }
    uint32_t WorkshopCode() const { return workshopCode_; }
    bool LoggedIn() const { return loggedIn_; }
    uint16_t AdaptationValue(uint8_t channel) const;
    // Counts since the ECU was made.
    int BlocksReceived() const { return blocksReceived_; }
    int BlocksSent() const { return blocksSent_; }
    int ComplementsSent() const { return complementsSent_; }
    int LinksUp() const { return linksUp_; }
    int LinksDropped() const { return linksDropped_; }
    uint8_t LastAddress() const { return lastAddress_; } // the last address decoded
    // The titles of the tester's blocks, in order.
    const std::vector<uint8_t> &TitlesReceived() const { return titles_; }

private:
    using Block = std::vector<uint8_t>; // title, then data

    void StartAddress(EcuBus &bus, int64_t at);
    void DecodeAddress(EcuBus &bus, int64_t at);
    void InitStep(EcuBus &bus, int64_t at);
    void InitFailed(EcuBus &bus, int64_t at);
    void LinkEstablished(EcuBus &bus, int64_t at);
    void DropLink(EcuBus &bus, int64_t at, const char *why);
    void AwaitBlock(EcuBus &bus, int64_t at);
    void ReceiveByte(EcuBus &bus, int64_t at, uint8_t byte);
    void BlockReceived(EcuBus &bus, int64_t at);
    void SendNextByte(EcuBus &bus, int64_t at);
    void ComplementReceived(EcuBus &bus, int64_t at, uint8_t byte);
    void Resend(EcuBus &bus, int64_t at);
    void Queue(std::deque<Block> blocks, EcuBus &bus, int64_t at);
    int64_t Ms(const EcuBus &bus, uint32_t ms) const { return bus.TicksPerMs() * ms; }

    std::deque<Block> Serve(uint8_t title, const std::vector<uint8_t> &data);
    std::deque<Block> Identification(size_t pass);
    std::deque<Block> FaultBlocks() const;
    std::deque<Block> Group(uint8_t title, const std::vector<uint8_t> &data);
    std::deque<Block> Adaptation(uint8_t title, const std::vector<uint8_t> &data);
    std::deque<Block> Coding(const std::vector<uint8_t> &data);
    std::deque<Block> Memory(uint8_t title, const std::vector<uint8_t> &data) const;
    Block AdaptationAnswer(const Kw1281Adaptation &channel, uint16_t value) const;

    Kw1281Profile profile_;
    Phase phase_ = Phase::Idle;

    // 5-baud decoding: the start edge and the edges since.
    int64_t addressStart_ = 0;
    std::vector<std::pair<int64_t, bool>> edges_;
    uint8_t lastAddress_ = 0;

    // Initialisation.
    int initStep_ = 0;
    uint32_t initRepeatsLeft_ = 0;

    // Blocks.
    uint8_t counter_ = 0;
    Block received_;               // length, counter, title, data as received
    std::vector<uint8_t> sending_; // length, counter, title, data, end byte
    size_t sendIndex_ = 0;
    uint32_t resends_ = 0;
    std::deque<Block> pending_; // answer blocks still to send (front: the one being sent)
    int64_t slowExtra_ = 0;

    // State of the ECU.
    std::vector<Kw1281FaultEntry> faultMemory_;
    uint16_t coding_ = 0;
    uint32_t workshopCode_ = 0;
    bool loggedIn_ = false;
    std::vector<uint16_t> adaptation_;
    size_t nextPass_ = 0;
    size_t actuatorStep_ = 0;
    int headerGroup_ = -1; // the curve group whose header was sent

    int blocksReceived_ = 0;
    int blocksSent_ = 0;
    int complementsSent_ = 0;
    int linksUp_ = 0;
    int linksDropped_ = 0;
    std::vector<uint8_t> titles_;
};

// The profiles of the table (profiles.h) and their factories.
Kw1281Profile Kw1281EngineProfile();
Kw1281Profile Kw1281ClusterProfile();
std::unique_ptr<EcuModel> MakeKw1281Engine();
std::unique_ptr<EcuModel> MakeKw1281Cluster();

} // namespace dv::bench
