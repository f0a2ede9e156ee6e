// Part 6.2: the manufacturer's DTC services, on the fake platform with a scripted ECU.
#include "kwp2000_service_fixture.h"

namespace kwptest {
namespace {

using dv::IsoLinkState;

class VagIsoDtc : public KwpFakeTest {};

// ---- reading by status
// ------------------------------------------------------------------------------

TEST_F(VagIsoDtc, ExtendedAllGroupsSends1803FF00) {
    Start();
    ecu.AnswerAlways({0x58, 0x00});
    uint32_t count = 9;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(0, 0, &count, &entries), 0u);
    EXPECT_EQ(Written(), (Bytes{0x84, 0x10, 0xF1, 0x18, 0x03, 0xFF, 0x00, 0x9F}));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(entries, nullptr);
}

TEST_F(VagIsoDtc, Answer5801020A3AGivesOneEntry) {
    Start();
    ecu.AnswerAlways({0x58, 0x01, 0x02, 0x0A, 0x3A});
    uint32_t count = 0;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x18, 0x03, 0x9E}));
    ASSERT_EQ(count, 1u);
    ASSERT_NE(entries, nullptr);
    EXPECT_EQ(entries[0].index, 0u);
    EXPECT_EQ(entries[0].code, 0x020A);
    EXPECT_EQ(entries[0].status, 0x0A);
    DvFree(entries);
}

TEST_F(VagIsoDtc, StatusSelectorsAndGroupsOnTheLine) {
    Start();
    ecu.AnswerAlways({0x58, 0x00});
    uint32_t count = 0;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatus(1, &count, &entries), 0u);
    EXPECT_EQ(DvVagIsoReadDtcByStatus(2, &count, &entries), 0u);
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0x145, &count, &entries), 0u);
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(1, 0x020A, &count, &entries), 0u);
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(2, 0x10206, &count, &entries), 0u);
    EXPECT_EQ(ecu.requests, (std::vector<Bytes>{{0x18, 0x02},
                                                {0x18, 0x11},
                                                {0x18, 0x45},
                                                {0x18, 0x02, 0x02, 0x0A},
                                                {0x18, 0x11, 0x02, 0x06}}));
}

TEST_F(VagIsoDtc, SeveralEntriesTakeTheLowStatusBits) {
    Start();
    ecu.AnswerAlways({0x58, 0x03, 0x01, 0x02, 0xF3, 0x45, 0x67, 0x28, 0xFF, 0xFE, 0x0F});
    uint32_t count = 0;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(0, 0x4567, &count, &entries), 0u);
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(entries[0].code, 0x0102);
    EXPECT_EQ(entries[0].status, 0x03);
    EXPECT_EQ(entries[1].code, 0x4567);
    EXPECT_EQ(entries[1].status, 0x08);
    EXPECT_EQ(entries[2].code, 0xFFFE);
    EXPECT_EQ(entries[2].status, 0x0F);
    for (uint32_t i = 0; i < count; ++i) {
        EXPECT_EQ(entries[i].index, 0u);
    }
    DvFree(entries);
}

TEST_F(VagIsoDtc, EntriesKeepToTheAnswer) {
    Start();
    // n says 3; the answer holds one whole entry and two bytes of another.
    ecu.AnswerAlways({0x58, 0x03, 0x01, 0x02, 0x03, 0x04, 0x05});
    uint32_t count = 0;
    DtcEntry *entries = nullptr;
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0u);
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(entries[0].code, 0x0102);
    DvFree(entries);
    ecu.AnswerAlways({0x58});
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(entries, nullptr);
}

TEST_F(VagIsoDtc, ReadingFailurePaths) {
    Start();
    uint32_t count = 9;
    DtcEntry *entries = nullptr;
    ecu.AnswerAlways({0x7F, 0x18, 0x22});
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 0x122u);
    ecu.AnswerAlways({0x59, 0x00});
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(0, 0, &count, &entries), 13u);
    EXPECT_TRUE(Logged("Bad service id : '59' vs '58'\r\n"));
    EXPECT_EQ(count, 9u);
    EXPECT_EQ(entries, nullptr);
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, nullptr, &entries), 1u);
    EXPECT_EQ(DvVagIsoReadDtcByStatusExtended(0, 0, &count, nullptr), 1u);
    ecu.respond = [](const Bytes &) { return std::vector<Bytes>{}; };
    EXPECT_EQ(DvVagIsoReadDtcByStatus(0, &count, &entries), 8u);
    EXPECT_EQ(ecu.Count(0x18), 2 + 6);
    EXPECT_EQ(IsoLinkState().connected, 2u);
}

// ---- clearing by group
// ------------------------------------------------------------------------------

TEST_F(VagIsoDtc, ClearGroupEchoed) {
    Start();
    ecu.respond = [](const Bytes &request) {
        return std::vector<Bytes>{Answer({0x54, request.at(1), request.at(2)})};
    };
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x020A), 0u);
    EXPECT_EQ(Written(), (Bytes{0x83, 0x10, 0xF1, 0x14, 0x02, 0x0A, 0xA4}));
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0), 0u);
    EXPECT_EQ(ecu.requests.back(), (Bytes{0x14, 0xFF, 0x00}));
}

TEST_F(VagIsoDtc, ClearGroupWrongEchoPrintsLowByteFirst) {
    Start();
    ecu.AnswerAlways({0x54, 0x0A, 0x02});
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x020A), 7u);
    EXPECT_TRUE(Logged("Bad DTC group code : '020A' vs '0A02'\r\n"));
    ecu.AnswerAlways({0x54, 0xFF});
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0), 7u);
    EXPECT_TRUE(Logged("Bad DTC group code : '00FF' vs '00FF'\r\n"));
}

TEST_F(VagIsoDtc, ClearGroupFailurePaths) {
    Start();
    ecu.AnswerAlways({0x7F, 0x14, 0x22});
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x0206), 0x122u);
    ecu.AnswerAlways({0x50, 0x02, 0x06});
    EXPECT_EQ(DvVagIsoClearDiagnosticInformationExtended(0x0206), 13u);
    EXPECT_TRUE(Logged("Bad service id : '50' vs '54'\r\n"));
}

// ---- freeze frames
// ----------------------------------------------------------------------------------

TEST_F(VagIsoDtc, FreezeFrameDecodesTheElementsBeforeTheLastThreeBytes) {
    Start();
    // (1, 2, 3): 2*3*2 = 12; (5, 4, 5): (5 - 100) * 4 = -380; then three bytes left out.
    ecu.AnswerAlways({0x52, 0x00, 0x01, 0x02, 0x03, 0x05, 0x04, 0x05, 0x10, 0x01, 0x02});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 0u);
    EXPECT_EQ(Written(), (Bytes{0x85, 0x10, 0xF1, 0x12, 0x00, 0x04, 0x02, 0x06, 0xA4}));
    ASSERT_EQ(count, 2u);
    ASSERT_NE(values, nullptr);
    EXPECT_EQ(values[0].kind, 1);
    EXPECT_EQ(values[0].value, 12);
    EXPECT_EQ(values[0].text, nullptr);
    EXPECT_EQ(values[1].kind, 5);
    EXPECT_EQ(values[1].value, -380);
    DvFree(values);
}

TEST_F(VagIsoDtc, FreezeFrameWithCountedText) {
    Start();
    ecu.AnswerAlways({0x52, 0x00, 0x5F, 0x02, 'A', 'B', 0x01, 0x02, 0x03, 0xEE, 0xEE, 0xEE});
    uint32_t count = 0;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x1234, &count, &values), 0u);
    EXPECT_EQ(ecu.requests.back(), (Bytes{0x12, 0x00, 0x04, 0x12, 0x34}));
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(values[0].kind, 0x5F);
    ASSERT_NE(values[0].text, nullptr);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(values[0].text)), u"AB");
    EXPECT_EQ(values[1].value, 12);
    DvFree(values[0].text);
    DvFree(values);
}

TEST_F(VagIsoDtc, FreezeFrameWithoutElementsGivesNullArray) {
    Start();
    for (const Bytes &answer :
         {Bytes{0x52, 0x00, 0x01, 0x02, 0x03}, Bytes{0x52, 0x00, 0x01}, Bytes{0x52, 0x00}}) {
        ecu.AnswerAlways(answer);
        uint32_t count = 9;
        MeasuringValue *values = reinterpret_cast<MeasuringValue *>(&count);
        EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 0u);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(values, nullptr);
    }
}

TEST_F(VagIsoDtc, FreezeFrameWrongIndexGives7) {
    Start();
    ecu.AnswerAlways({0x52, 0x01, 0x01, 0x02, 0x03, 0x00, 0x00, 0x00});
    uint32_t count = 9;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 7u);
    EXPECT_TRUE(Logged("Bad freeze frame index : '01' vs '00'\r\n"));
    EXPECT_EQ(count, 9u);
    EXPECT_EQ(values, nullptr);
    ecu.AnswerAlways({0x52});
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 7u);
    EXPECT_TRUE(Logged("Bad freeze frame index : '00' vs '00'\r\n"));
}

TEST_F(VagIsoDtc, FreezeFrameConversionFailureHandsNothingOver) {
    Start();
    ecu.AnswerAlways({0x52, 0x00, 0x01, 0x02, 0x03, 0x5F, 0x02, 'A', 'B', 0, 0, 0});
    Fake().Fail(FakeCall::AnsiToWide, Fake().CallCount(FakeCall::AnsiToWide) + 1, 0x459);
    uint32_t count = 9;
    MeasuringValue *values = nullptr;
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 1u);
    EXPECT_TRUE(Logged("Could not convert to Unicode (0x00000459)\r\n"));
    EXPECT_EQ(count, 9u);
    EXPECT_EQ(values, nullptr);
}

TEST_F(VagIsoDtc, FreezeFrameFailurePaths) {
    Start();
    uint32_t count = 9;
    MeasuringValue *values = nullptr;
    ecu.AnswerAlways({0x7F, 0x12, 0x31});
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 0x131u);
    ecu.AnswerAlways({0x62, 0x00});
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, &values), 13u);
    EXPECT_TRUE(Logged("Bad service id : '62' vs '52'\r\n"));
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, nullptr, &values), 1u);
    EXPECT_EQ(DvVagIsoReadFreezeFrameDataByDtc(0x0206, &count, nullptr), 1u);
    EXPECT_EQ(count, 9u);
}

} // namespace
} // namespace kwptest
