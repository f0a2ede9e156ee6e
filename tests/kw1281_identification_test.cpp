// Part 4.1 (service pattern and ECU identification): the word rules and coding blocks on the
// fake platform with a scripted ECU, the lost-link paths on the bench.
#include "kw1281_bench_support.h"
#include "kw1281_fake_ecu.h"
#include "serial/serial.h"

namespace dv {
namespace {

using bench::Fake;
using dvtest::FakeEcuBlock;

std::vector<uint8_t> Block(uint8_t counter, uint8_t title, std::vector<uint8_t> data = {}) {
    // Built in `data` itself: GCC 12 warns falsely (array-bounds) on an insert into a three-byte
    // vector at -O2.
    data.insert(data.begin(), {static_cast<uint8_t>(data.size() + 3), counter, title});
    data.push_back(0x03);
    return data;
}

std::vector<uint8_t> Text(std::string_view text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

// A scripted ECU answering the identification request (counter 1) with counters 2, 4, ...
class KwIdentificationTest : public ::testing::Test {
protected:
    void SetUp() override {
        bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        ASSERT_EQ(PortOpen(u"COM1", 10400, 256, 256), 0u);
        ecu_.Install();
        dvtest::LogCaptureReset();
    }
    void TearDown() override {
        dvtest::TakeDescriptions(descriptions_);
        PortClose();
        DvDestruct();
        bench::FakeUninstall();
    }
    // Scripts ECU blocks with the counters the tester expects.
    void Answer(uint8_t title, std::vector<uint8_t> data = {}) {
        counter_ = static_cast<uint8_t>(counter_ + 2);
        ecu_.script.push_back({Block(counter_, title, std::move(data))});
    }
    // Identification text blocks, then the ECU's acknowledge.
    void AnswerTexts(const std::vector<std::vector<uint8_t>> &blocks) {
        for (const auto &data : blocks) {
            Answer(0xF6, data);
        }
        Answer(0x09);
    }
    uint32_t Read() { return DvVagGetDescriptions(&descriptions_); }
    std::vector<std::string> Descriptions() {
        std::vector<std::string> result = dvtest::TakeDescriptions(descriptions_);
        descriptions_ = nullptr;
        return result;
    }

    dvtest::FakeKwEcu ecu_;
    uint8_t counter_ = 0;
    DvChar **descriptions_ = nullptr;
};

TEST_F(KwIdentificationTest, RequestIsABlockOfLengthThreeAndEveryTextBlockIsAcknowledged) {
    AnswerTexts({Text("8D0923512S")});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"8D0923512S"}));
    ASSERT_EQ(ecu_.testerBlocks.size(), 2u);
    EXPECT_EQ(ecu_.testerBlocks[0], (std::vector<uint8_t>{0x03, 0x01, 0x00, 0x03}));
    EXPECT_EQ(ecu_.testerBlocks[1], (std::vector<uint8_t>{0x03, 0x03, 0x09, 0x03}));
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
    EXPECT_EQ(KwBuffer().bytes[0], 0);
}

TEST_F(KwIdentificationTest, TwoSpacesEndAWordAndASingleSpaceStaysInside) {
    AnswerTexts({Text("8D0923512S  MOTOR 1.8T")});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"8D0923512S", "MOTOR 1.8T"}));
}

TEST_F(KwIdentificationTest, AnElevenCharacterFirstWordEndsAtASingleSpace) {
    AnswerTexts({Text("038906019FR 1,9l R4")});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"038906019FR", "1,9l R4"}));
}

TEST_F(KwIdentificationTest, TheElevenCharacterRuleHoldsOnlyForTheFirstWord) {
    AnswerTexts({Text("AB  CDEFGHIJKLM N")});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"AB", "CDEFGHIJKLM N"}));
}

TEST_F(KwIdentificationTest, ShortCodingBlockGivesFiveDigitTexts) {
    AnswerTexts({Text("1J0920826C"), {0x00, 0x41, 0x00, 0x7B}});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"1J0920826C", "$SC:00032", "$WC:65659"}));
    EXPECT_EQ(KwConnection().shortCoding, 1);
}

TEST_F(KwIdentificationTest, LongCodingBlockTakesFourBigEndianBytes) {
    KwConnection().shortCoding = 1;
    AnswerTexts({{0x00, 0x1F, 0x42, 0x30, 0x39}});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"$SC:04001", "$WC:12345"}));
    EXPECT_EQ(KwConnection().shortCoding, 0);
}

TEST_F(KwIdentificationTest, CodingBlockStoresTheOpenWordFirst) {
    AnswerTexts({Text("ABC"), {0x00, 0x00, 0x02, 0x00, 0x01}});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"ABC", "$SC:00001", "$WC:00001"}));
}

TEST_F(KwIdentificationTest, ShortCodingDataReadsMissingBytesAsZero) {
    AnswerTexts({{0x00, 0x80}});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"$SC:16384", "$WC:00000"}));
}

TEST_F(KwIdentificationTest, ATextBlockWithoutDataAddsNothing) {
    AnswerTexts({{}});
    EXPECT_EQ(Read(), 0u);
    ASSERT_NE(descriptions_, nullptr);
    EXPECT_EQ(descriptions_[0], nullptr);
    EXPECT_TRUE(Descriptions().empty());
    EXPECT_EQ(ecu_.testerBlocks.size(), 2u); // it was acknowledged all the same
}

TEST_F(KwIdentificationTest, AWordContinuesInTheNextBlock) {
    AnswerTexts({Text("WVWZZZ1JZXW0"), Text("00001  VWZ7Z")});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"WVWZZZ1JZXW000001", "VWZ7Z"}));
}

TEST_F(KwIdentificationTest, AControlByteEndsTheTextOfItsBlock) {
    AnswerTexts({{'A', 'B', 0x01, 'C', 'D'}, {0x80 | 'E', 'F'}, Text("GH")});
    EXPECT_EQ(Read(), 0u);
    // 0xC5 in a block that is not the first of its pass ends that block's text too.
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"AB", "GH"}));
}

TEST_F(KwIdentificationTest, LongWordsGrowBeyondThirtyTwoCharacters) {
    const std::string word(45, 'X');
    AnswerTexts({Text(word)});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{word}));
}

TEST_F(KwIdentificationTest, TheMoreFlagAsksForTheNextPass) {
    Answer(0xF6, {0x80 | '1', 'J', '0'});
    Answer(0x09);
    AnswerTexts({Text("KOMBI")});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"1J0", "KOMBI"}));
    ASSERT_EQ(ecu_.testerBlocks.size(), 4u);
    EXPECT_EQ(ecu_.testerBlocks[2], (std::vector<uint8_t>{0x03, 0x05, 0x00, 0x03}));
}

TEST_F(KwIdentificationTest, TooManyDescriptionsWithMoreToComeYields7) {
    std::vector<uint8_t> first = {0x80 | 'A'};
    for (int i = 0; i < 31; ++i) {
        first.insert(first.end(), {' ', ' ', 'B'});
    }
    Answer(0xF6, first); // 32 words
    Answer(0x09);
    EXPECT_EQ(Read(), 7u);
    EXPECT_EQ(descriptions_, nullptr);
    EXPECT_TRUE(dvtest::LogHasInOrder({"Too many ECU descriptions\r\n"}));
}

TEST_F(KwIdentificationTest, ThirtyOneDescriptionsMayAskForMore) {
    std::vector<uint8_t> first = {0x80 | 'A'};
    for (int i = 0; i < 30; ++i) {
        first.insert(first.end(), {' ', ' ', 'B'});
    }
    Answer(0xF6, first); // 31 words
    Answer(0x09);
    AnswerTexts({Text("C")});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions().size(), 32u);
}

TEST_F(KwIdentificationTest, RefusalYields256AndReturnsNothing) {
    Answer(0xF6, Text("ABC"));
    Answer(0x0A);
    EXPECT_EQ(Read(), 256u);
    EXPECT_EQ(descriptions_, nullptr);
}

TEST_F(KwIdentificationTest, UnexpectedTitleYields13) {
    Answer(0xFC, {0xFF, 0xFF, 0x88});
    EXPECT_EQ(Read(), 13u);
    EXPECT_EQ(descriptions_, nullptr);
    EXPECT_TRUE(dvtest::LogHasInOrder({"Bad block type id: 'FC' vs 'F6'\r\n"}));
    EXPECT_EQ(KwBuffer().bytes[0], 0);
}

TEST_F(KwIdentificationTest, ConversionFailureYields1) {
    Fake().Fail(bench::FakeCall::AnsiToWide, 2, 1113);
    AnswerTexts({Text("ABC")});
    EXPECT_EQ(Read(), 1u);
    EXPECT_EQ(descriptions_, nullptr);
    EXPECT_TRUE(dvtest::LogHasInOrder({"Could not convert to Unicode (0x00000459)\r\n"}));
}

TEST_F(KwIdentificationTest, ExchangeSectionFailureIsReturnedAsIs) {
    Fake().Fail(bench::FakeCall::GetPriority, 1, 0);
    EXPECT_EQ(Read(), 1u);
    EXPECT_TRUE(ecu_.testerBlocks.empty());
}

TEST_F(KwIdentificationTest, AnotherCounterIsLoggedAndTaken) {
    ecu_.script.push_back({Block(0x07, 0xF6, Text("AB"))});
    ecu_.script.push_back({Block(0x09, 0x09)});
    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"AB"}));
    EXPECT_TRUE(dvtest::LogHasInOrder({"Bad block index: '07' vs '02'\r\n"}));
    EXPECT_EQ(KwCounter(), 0x09);
}

// ---- lost links on the bench --------------------------------------------------------------------

class KwIdentificationBenchTest : public dvtest::KwBenchTest {};

TEST_F(KwIdentificationBenchTest, DescriptionsAreReadAgainAfterALostLink) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    Descriptions();
    DropLinkAtNextBlock();
    EXPECT_EQ(DvVagGetDescriptions(&descriptions_), 0u);
    EXPECT_EQ(Descriptions(), dvtest::kEngineDescriptions);
    EXPECT_EQ(KwStatistics().reestablishments, 1u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwIdentificationBenchTest, ComplementErrorsInTheIdentificationAreRetried) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    Settings([](DvSettings &s) { s.blockSendRetries = 1; });
    // The ECU's first complement of the first acknowledge of the identification is wrong.
    ecu_->faults.wrongComplement = 3 * ecu_->BlocksReceived() + 4;
    Descriptions();
    EXPECT_EQ(DvVagGetDescriptions(&descriptions_), 0u);
    EXPECT_TRUE(dvtest::LogHasInOrder(
        {"Bad ECU echo", "\r\nReestablishing connection\r\n", "\r\nReconnected successfully\r\n"}));
    EXPECT_EQ(Descriptions(), dvtest::kEngineDescriptions);
}

TEST_F(KwIdentificationBenchTest, AttemptsUsedUpGive8AndABrokenLink) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    ecu_->faults.silentBlock = ecu_->BlocksReceived() + 1;
    Settings([](DvSettings &s) { s.serviceRetries = 1; });
    DvChar **descriptions = nullptr;
    EXPECT_EQ(DvVagGetDescriptions(&descriptions), 8u);
    EXPECT_EQ(descriptions, nullptr);
    EXPECT_EQ(KwConnection().state, KwLinkState::Broken);
}

} // namespace
} // namespace dv
