// Part 4.3 (coding and login): the blocks on the fake platform with a scripted ECU, the ECUs'
// answers and state on the bench.
#include "kw1281_bench_support.h"
#include "kw1281_fake_ecu.h"
#include "serial/serial.h"

namespace dv {
namespace {

std::vector<uint8_t> Block(uint8_t counter, uint8_t title, std::vector<uint8_t> data = {}) {
    std::vector<uint8_t> block = {static_cast<uint8_t>(data.size() + 3), counter, title};
    block.insert(block.end(), data.begin(), data.end());
    block.push_back(0x03);
    return block;
}

class KwCodingLoginTest : public ::testing::Test {
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
    void Answer(uint8_t title, std::vector<uint8_t> data = {}) {
        counter_ = static_cast<uint8_t>(counter_ + 2);
        ecu_.script.push_back({Block(counter_, title, std::move(data))});
    }
    // The tester's first block without length, counter and end byte.
    std::vector<uint8_t> Request() const {
        const std::vector<uint8_t> &block = ecu_.testerBlocks.at(0);
        return std::vector<uint8_t>(block.begin() + 2, block.end() - 1);
    }

    dvtest::FakeKwEcu ecu_;
    uint8_t counter_ = 0;
    DvChar **descriptions_ = nullptr;
};

TEST_F(KwCodingLoginTest, LoginBlockCarriesTheCodesBigEndian) {
    Answer(0x09);
    EXPECT_EQ(DvVagLogin(0x1E240, 0x1234), 0u);
    EXPECT_EQ(ecu_.testerBlocks.at(0)[0], 0x08);
    EXPECT_EQ(Request(), (std::vector<uint8_t>{0x2B, 0x12, 0x34, 0x01, 0xE2, 0x40}));
    EXPECT_EQ(KwConnection().loggedIn, 1);
    EXPECT_EQ(KwConnection().loginCode, 0x1234);
    EXPECT_EQ(KwConnection().workshopCode, 0x1E240u);
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwCodingLoginTest, RefusedLoginLeavesTheStoredCodesAndFlag) {
    Answer(0x09);
    ASSERT_EQ(DvVagLogin(100, 12233), 0u);
    Answer(0x0A);
    EXPECT_EQ(DvVagLogin(200, 1), 256u);
    EXPECT_EQ(KwConnection().loggedIn, 1);
    EXPECT_EQ(KwConnection().loginCode, 12233);
    EXPECT_EQ(KwConnection().workshopCode, 100u);
}

TEST_F(KwCodingLoginTest, RefusedFirstLoginLeavesTheFlagClear) {
    Answer(0x0A);
    EXPECT_EQ(DvVagLogin(200, 1), 256u);
    EXPECT_EQ(KwConnection().loggedIn, 0);
    EXPECT_EQ(KwConnection().loginCode, 0);
}

TEST_F(KwCodingLoginTest, LoginAnsweredWithAnotherTitleYields13) {
    Answer(0xF6, {'A'});
    EXPECT_EQ(DvVagLogin(200, 1), 13u);
    EXPECT_TRUE(dvtest::LogHasInOrder({"Bad block type id: 'F6' vs '09'\r\n"}));
    EXPECT_EQ(KwConnection().loggedIn, 0);
}

TEST_F(KwCodingLoginTest, ShortFormCarriesSevenBitsOfCoding) {
    KwConnection().shortCoding = 1;
    Answer(0xF6, {'1', 'J', '0'});
    Answer(0xF6, {0x00, 0x41, 0x00, 0x7B});
    Answer(0x09);
    EXPECT_EQ(DvVagSetCoding(65659, 32, &descriptions_), 0u);
    EXPECT_EQ(ecu_.testerBlocks.at(0)[0], 0x06);
    EXPECT_EQ(Request(), (std::vector<uint8_t>{0x10, 0x41, 0x00, 0x7B}));
    EXPECT_EQ(dvtest::TakeDescriptions(descriptions_),
              (std::vector<std::string>{"1J0", "$SC:00032", "$WC:65659"}));
    descriptions_ = nullptr;
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);
}

TEST_F(KwCodingLoginTest, ShortFormCutsTheCodingByTheShift) {
    KwConnection().shortCoding = 1;
    Answer(0x09);
    EXPECT_EQ(DvVagSetCoding(0, 0x1FF, &descriptions_), 0u);
    EXPECT_EQ(Request(), (std::vector<uint8_t>{0x10, 0xFE, 0x00, 0x00}));
}

TEST_F(KwCodingLoginTest, LongFormCarriesTheCodingShiftedBySeventeen) {
    Answer(0x09);
    EXPECT_EQ(DvVagSetCoding(0, 4001, &descriptions_), 0u);
    EXPECT_EQ(ecu_.testerBlocks.at(0)[0], 0x07);
    EXPECT_EQ(Request(), (std::vector<uint8_t>{0x10, 0x1F, 0x42, 0x00, 0x00}));
}

TEST_F(KwCodingLoginTest, LongFormKeepsSeventeenBitsOfTheWorkshopCode) {
    Answer(0x09);
    EXPECT_EQ(DvVagSetCoding(0x3FFFF, 1, &descriptions_), 0u);
    EXPECT_EQ(Request(), (std::vector<uint8_t>{0x10, 0x00, 0x03, 0xFF, 0xFF}));
}

TEST_F(KwCodingLoginTest, RefusedCodingYields256AndNoDescriptions) {
    Answer(0x0A);
    EXPECT_EQ(DvVagSetCoding(0, 4001, &descriptions_), 256u);
    EXPECT_EQ(descriptions_, nullptr);
}

// ---- the ECUs on the bench ---------------------------------------------------------------------

class KwCodingLoginBenchTest : public dvtest::KwBenchTest {};

TEST_F(KwCodingLoginBenchTest, EngineTakesItsLoginCodeAndRefusesOthers) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    EXPECT_EQ(DvVagLogin(12345, 1111), 256u);
    EXPECT_FALSE(ecu_->LoggedIn());
    EXPECT_EQ(DvVagLogin(12345, 12233), 0u);
    EXPECT_TRUE(ecu_->LoggedIn());
    EXPECT_EQ(KwConnection().loginCode, 12233);
}

TEST_F(KwCodingLoginBenchTest, EngineLongCodingIsStoredAndReportedBack) {
    InstallEngine();
    ASSERT_EQ(ConnectEngine(), 0u);
    Descriptions();
    EXPECT_EQ(DvVagSetCoding(0, 4001, &descriptions_), 0u);
    EXPECT_EQ(ecu_->Coding(), 4001);
    EXPECT_EQ(ecu_->WorkshopCode(), 0u);
    const std::vector<std::string> texts = Descriptions();
    ASSERT_EQ(texts.size(), 8u);
    EXPECT_EQ(texts[4], "$SC:04001");
    EXPECT_EQ(texts[5], "$WC:00000");
}

TEST_F(KwCodingLoginBenchTest, ClusterShortCodingNeedsTheLogin) {
    InstallCluster();
    ASSERT_EQ(ConnectCluster(), 0u);
    Descriptions();
    EXPECT_EQ(DvVagSetCoding(65659, 32, &descriptions_), 256u);
    EXPECT_EQ(descriptions_, nullptr);
    ASSERT_EQ(DvVagLogin(65659, 13861), 0u);
    EXPECT_EQ(DvVagSetCoding(65659, 32, &descriptions_), 0u);
    EXPECT_EQ(ecu_->Coding(), 32);
    EXPECT_EQ(ecu_->WorkshopCode(), 65659u);
    EXPECT_EQ(Descriptions(), (std::vector<std::string>{"1J0920826C", "KOMBI+WEGFAHRSP. VDO V50",
                                                        "0001", "$SC:00032", "$WC:65659"}));
}

} // namespace
} // namespace dv
