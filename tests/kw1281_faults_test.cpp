// Part 4.2 (fault memory): the blocks and records on the fake platform with a scripted ECU, the
// ECU's memory and lost links on the bench.
#include "kw1281_bench_support.h"
#include "kw1281_fake_ecu.h"
#include "serial/serial.h"

namespace dv {
namespace {

using bench::Fake;

std::vector<uint8_t> Block(uint8_t counter, uint8_t title, std::vector<uint8_t> data = {}) {
    std::vector<uint8_t> block = {static_cast<uint8_t>(data.size() + 3), counter, title};
    block.insert(block.end(), data.begin(), data.end());
    block.push_back(0x03);
    return block;
}

struct Fault {
    uint32_t intermittent;
    uint16_t code;
    uint8_t elaboration;
    bool operator==(const Fault &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Fault &f) {
    return out << "{" << f.intermittent << ", " << f.code << ", " << int{f.elaboration} << "}";
}

std::vector<Fault> Take(uint32_t count, FaultRecord *records) {
    std::vector<Fault> result;
    for (uint32_t i = 0; i < count; ++i) {
        result.push_back({records[i].intermittent, records[i].code, records[i].elaboration});
    }
    DvFree(records);
    return result;
}

class KwFaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        ASSERT_EQ(PortOpen(u"COM1", 10400, 256, 256), 0u);
        ecu_.Install();
        dvtest::LogCaptureReset();
    }
    void TearDown() override {
        PortClose();
        DvDestruct();
        bench::FakeUninstall();
    }
    void Answer(uint8_t title, std::vector<uint8_t> data = {}) {
        counter_ = static_cast<uint8_t>(counter_ + 2);
        ecu_.script.push_back({Block(counter_, title, std::move(data))});
    }
    uint32_t Read(std::vector<Fault> *faults) {
        uint32_t count = 0xFFFF;
        FaultRecord *records = nullptr;
        const uint32_t code = DvVagGetFaults(&count, &records);
        if (code == 0) {
            *faults = Take(count, records);
        } else {
            EXPECT_EQ(records, nullptr);
            EXPECT_EQ(count, 0xFFFFu);
        }
        return code;
    }

    dvtest::FakeKwEcu ecu_;
    uint8_t counter_ = 0;
};

TEST_F(KwFaultsTest, ABlockOfLengthTwelveGivesThreeRecords) {
    Answer(0xFC, {0x02, 0x0A, 0x1E, 0x02, 0x06, 0x9B, 0xFF, 0xFF, 0x88});
    Answer(0x09);
    std::vector<Fault> faults;
    EXPECT_EQ(Read(&faults), 0u);
    EXPECT_EQ(faults, (std::vector<Fault>{{0, 522, 30}, {1, 518, 27}, {1, 0xFFFF, 8}}));
    ASSERT_EQ(ecu_.testerBlocks.size(), 2u);
    EXPECT_EQ(ecu_.testerBlocks[0], (std::vector<uint8_t>{0x03, 0x01, 0x07, 0x03}));
    EXPECT_EQ(ecu_.testerBlocks[1], (std::vector<uint8_t>{0x03, 0x03, 0x09, 0x03}));
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwFaultsTest, ABlockOfLengthThreeGivesNoRecord) {
    Answer(0xFC);
    Answer(0x09);
    std::vector<Fault> faults = {{9, 9, 9}};
    EXPECT_EQ(Read(&faults), 0u);
    EXPECT_TRUE(faults.empty());
}

TEST_F(KwFaultsTest, ARemainderOfTheDataIsIgnored) {
    Answer(0xFC, {0x02, 0x0A, 0x1E, 0x44, 0x11});
    Answer(0x09);
    std::vector<Fault> faults;
    EXPECT_EQ(Read(&faults), 0u);
    EXPECT_EQ(faults, (std::vector<Fault>{{0, 522, 30}}));
}

TEST_F(KwFaultsTest, NineFaultsInTwoBlocksGrowTheArrayFromEightToSixteen) {
    std::vector<uint8_t> first;
    std::vector<Fault> expected;
    for (uint8_t i = 0; i < 8; ++i) {
        first.insert(first.end(), {0x01, i, static_cast<uint8_t>(0x80 | i)});
        expected.push_back({1, static_cast<uint16_t>(0x0100 | i), i});
    }
    Answer(0xFC, first);
    Answer(0xFC, {0x44, 0x11, 0x23});
    expected.push_back({0, 0x4411, 0x23});
    Answer(0x09);
    std::vector<Fault> faults;
    EXPECT_EQ(Read(&faults), 0u);
    EXPECT_EQ(faults, expected);
    EXPECT_EQ(KwFaultCapacity(8, 8), 8u);
    EXPECT_EQ(KwFaultCapacity(8, 9), 16u);
    EXPECT_EQ(KwFaultCapacity(16, 17), 24u);
    EXPECT_EQ(KwFaultCapacity(8, 16), 24u);
}

TEST_F(KwFaultsTest, AnAcknowledgeAloneGivesAnEmptyList) {
    Answer(0x09);
    std::vector<Fault> faults = {{9, 9, 9}};
    EXPECT_EQ(Read(&faults), 0u);
    EXPECT_TRUE(faults.empty());
}

TEST_F(KwFaultsTest, RefusalYields256AndFreesTheArray) {
    Answer(0xFC, {0x02, 0x0A, 0x1E});
    Answer(0x0A);
    std::vector<Fault> faults;
    EXPECT_EQ(Read(&faults), 256u);
}

TEST_F(KwFaultsTest, UnexpectedTitleYields13) {
    Answer(0xF6, {'A'});
    std::vector<Fault> faults;
    EXPECT_EQ(Read(&faults), 13u);
    EXPECT_TRUE(dvtest::LogHasInOrder({"Bad block type id: 'F6' vs 'FC'\r\n"}));
}

TEST_F(KwFaultsTest, ClearSendsItsRequestAndDiscardsRemainingFaults) {
    Answer(0xFC, {0x44, 0x11, 0x23});
    Answer(0x09);
    EXPECT_EQ(DvVagClearFaults(), 0u);
    ASSERT_EQ(ecu_.testerBlocks.size(), 2u);
    EXPECT_EQ(ecu_.testerBlocks[0], (std::vector<uint8_t>{0x03, 0x01, 0x05, 0x03}));
    EXPECT_EQ(ecu_.testerBlocks[1], (std::vector<uint8_t>{0x03, 0x03, 0x09, 0x03}));
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwFaultsTest, ClearRefusedYields256) {
    Answer(0x0A);
    EXPECT_EQ(DvVagClearFaults(), 256u);
}

TEST_F(KwFaultsTest, ClearWithAnUnexpectedTitleYields13) {
    Answer(0xF5, {0x01, 0x19});
    EXPECT_EQ(DvVagClearFaults(), 13u);
    EXPECT_TRUE(dvtest::LogHasInOrder({"Bad block type id: 'F5' vs 'FC'\r\n"}));
}

TEST_F(KwFaultsTest, NullOutputsDropTheRecords) {
    Answer(0xFC, {0x02, 0x0A, 0x1E});
    Answer(0x09);
    EXPECT_EQ(DvVagGetFaults(nullptr, nullptr), 0u);
    EXPECT_EQ(ecu_.testerBlocks.size(), 2u);
}

// ---- the ECU's memory and lost links on the bench -----------------------------------------------

class KwFaultsBenchTest : public dvtest::KwBenchTest {
protected:
    std::vector<Fault> ReadFaults() {
        uint32_t count = 0;
        FaultRecord *records = nullptr;
        EXPECT_EQ(DvVagGetFaults(&count, &records), 0u);
        return Take(count, records);
    }
};

const std::vector<Fault> kEngineFaults = {
    {0, 0x020A, 0x1E}, {1, 0x0206, 0x1B}, {0, 0x4411, 0x23}, {0, 0x0441, 0x1D}, {0, 0x01F4, 0x1B}};

TEST_F(KwFaultsBenchTest, TheEnginesFaultsInTwoBlocks) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(ReadFaults(), kEngineFaults);
}

TEST_F(KwFaultsBenchTest, ClearLeavesOnlyThePresentFault) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(DvVagClearFaults(), 0u);
    EXPECT_EQ(ReadFaults(), (std::vector<Fault>{{0, 0x4411, 0x23}}));
}

TEST_F(KwFaultsBenchTest, AnEmptyMemoryIsPassedOnUnchanged) {
    InstallCluster();
    ASSERT_EQ(ConnectCluster(), 0u);
    EXPECT_EQ(ReadFaults(), (std::vector<Fault>{{1, 0xFFFF, 8}}));
}

TEST_F(KwFaultsBenchTest, ALinkLostAtTheAcknowledgeRestartsFromTheRequest) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    // The request, then the acknowledge of the first fault block: the ECU drops there.
    ecu_->faults.dropLinkAtBlock = ecu_->BlocksReceived() + 2;
    EXPECT_EQ(ReadFaults(), kEngineFaults);
    EXPECT_EQ(KwStatistics().reestablishments, 1u);
    EXPECT_TRUE(dvtest::LogHasInOrder({"\r\nReestablishing connection\r\n"}));
}

TEST_F(KwFaultsBenchTest, AWrongComplementIsResentWithinTheBlock) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    ecu_->faults.wrongComplement = 3 * ecu_->BlocksReceived() + 2;
    EXPECT_EQ(ReadFaults(), kEngineFaults);
    EXPECT_TRUE(dvtest::LogHasInOrder({"\r\nResending block\r\n\r\n"}));
    EXPECT_EQ(KwStatistics().breaks, 1u);
    EXPECT_EQ(KwStatistics().reestablishments, 0u);
}

TEST_F(KwFaultsBenchTest, AnotherBlockCounterIsLoggedAndTheAnswerUsed) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    ecu_->faults.wrongCounterBlock = ecu_->BlocksSent() + 1;
    const uint8_t expected = static_cast<uint8_t>(KwCounter() + 2);
    EXPECT_EQ(ReadFaults(), kEngineFaults);
    char line[64];
    std::snprintf(line, sizeof line, "Bad block index: '%02X' vs '%02X'\r\n", expected + 1,
                  expected);
    EXPECT_TRUE(dvtest::LogHasInOrder({line}));
    EXPECT_EQ(dvtest::LogCount("Bad block index"), 1);
}

TEST_F(KwFaultsBenchTest, ABadEndByteIsARefusal) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    ecu_->faults.badEndByteBlock = ecu_->BlocksSent() + 1;
    uint32_t count = 0;
    FaultRecord *records = nullptr;
    EXPECT_EQ(DvVagGetFaults(&count, &records), 256u);
    EXPECT_EQ(records, nullptr);
    EXPECT_TRUE(dvtest::LogHasInOrder({"Bad end of block byte: '00' vs '03'\r\n"}));
    EXPECT_EQ(KwStatistics().blocksReceived, 10u);
}

} // namespace
} // namespace dv
