// A whole KW1281 session on the bench for each KW1281 profile: connect, identification, faults,
// clear, login, coding, keep-alive and disconnect with the statistics report.
#include "kw1281_bench_support.h"

namespace dv {
namespace {

using namespace dv::bench;

struct SessionCase {
    const char *name;
    Kw1281Profile (*profile)();
    uint8_t address;
    uint32_t baud;
    uint16_t keyword;
    uint16_t loginCode;
    uint32_t coding;
    uint32_t workshopCode;
    std::vector<std::string> descriptions;
    size_t faultsBefore;
    size_t faultsAfter;
};

class KwSessionTest : public dvtest::KwBenchTest,
                      public ::testing::WithParamInterface<SessionCase> {};

TEST_P(KwSessionTest, WholeSession) {
    const SessionCase &c = GetParam();
    Install(c.profile());
    ASSERT_EQ(Connect(c.address, c.baud), 0u);
    EXPECT_EQ(Descriptions(), c.descriptions);
    EXPECT_EQ(KwConnection().keyword, c.keyword);

    EXPECT_EQ(DvVagGetDescriptions(&descriptions_), 0u);
    EXPECT_EQ(Descriptions(), c.descriptions);

    uint32_t count = 0;
    FaultRecord *faults = nullptr;
    ASSERT_EQ(DvVagGetFaults(&count, &faults), 0u);
    EXPECT_EQ(count, c.faultsBefore);
    DvFree(faults);
    EXPECT_EQ(DvVagClearFaults(), 0u);
    ASSERT_EQ(DvVagGetFaults(&count, &faults), 0u);
    EXPECT_EQ(count, c.faultsAfter);
    DvFree(faults);

    EXPECT_EQ(DvVagLogin(c.workshopCode, c.loginCode), 0u);
    EXPECT_TRUE(ecu_->LoggedIn());
    EXPECT_EQ(DvVagSetCoding(c.workshopCode, c.coding, &descriptions_), 0u);
    EXPECT_EQ(ecu_->Coding(), c.coding);
    EXPECT_EQ(ecu_->WorkshopCode(), c.workshopCode);
    const std::vector<std::string> coded = Descriptions();
    ASSERT_GE(coded.size(), 2u);
    char sc[16];
    char wc[16];
    std::snprintf(sc, sizeof sc, "$SC:%05u", static_cast<unsigned>(c.coding));
    std::snprintf(wc, sizeof wc, "$WC:%05u", static_cast<unsigned>(c.workshopCode));
    EXPECT_NE(std::find(coded.begin(), coded.end(), sc), coded.end());
    EXPECT_NE(std::find(coded.begin(), coded.end(), wc), coded.end());

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(DvVagIdle(), 0u);
    }
    EXPECT_EQ(KwConnection().state, KwLinkState::Connected);

    dvtest::LogCaptureReset();
    DvVagDisconnect();
    EXPECT_EQ(ecu_->TitlesReceived().back(), 0x06);
    EXPECT_EQ(KwConnection().state, KwLinkState::NotConnected);
    EXPECT_EQ(ecu_->LinksUp(), 1);
    const KwLinkStatistics &s = KwStatistics();
    EXPECT_EQ(s.blocksSent, static_cast<uint32_t>(ecu_->BlocksReceived()));
    EXPECT_EQ(s.blocksReceived, static_cast<uint32_t>(ecu_->BlocksSent()));
    EXPECT_EQ(s.breaks, 0u);
    EXPECT_EQ(s.resets, 0u);
    EXPECT_EQ(s.reestablishments, 0u);
    const std::string report =
        "\r\nConnection duration - " + std::to_string((s.endTick - s.startTick) / 1000) +
        " sec\r\nBlocks sent - " + std::to_string(s.blocksSent) +
        ", breaks - 0 (0 %)\r\nBlocks received - " + std::to_string(s.blocksReceived) +
        ", resets - 0 (0 %)\r\nReestablishments - 0\r\n";
    EXPECT_EQ(dvtest::LogCalls(),
              (std::vector<std::string>{"\r\n\r\nDisconnecting from ECU\r\n",
                                        "\r\n\r\nDisconnected\r\n", "\r\n" + report}));
    // The whole session ran on the virtual clock: several seconds of it.
    EXPECT_GE(s.endTick - s.startTick, 2000u);
}

INSTANTIATE_TEST_SUITE_P(
    Profiles, KwSessionTest,
    ::testing::Values(SessionCase{"engine", Kw1281EngineProfile, 0x01, 10400, 0x8A01, 12233, 4001,
                                  54321, dvtest::kEngineDescriptions, 5, 1},
                      SessionCase{"cluster", Kw1281ClusterProfile, 0x17, 9600, 0x8089, 13861, 32,
                                  65659, dvtest::kClusterDescriptions, 1, 1}),
    [](const ::testing::TestParamInfo<SessionCase> &info) { return std::string(info.param.name); });

} // namespace
} // namespace dv
