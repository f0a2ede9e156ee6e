// Part 6.1: the manufacturer's session, general identification and capabilities, on the fake
// platform with a scripted ECU.
#include "kwp2000_service_fixture.h"

#include <string>

namespace kwptest {
namespace {

using dv::IsoLinkState;

class VagIsoIdentification : public KwpFakeTest {
protected:
    // An identification answer of `length` bytes (from the service id): part number
    // "06A906032HS ", coding bytes 00 0F A1, bytes 24 to 27 = 05 6B 12 34, component text
    // "1.8l R4/5VT     G   " from byte 28, and bytes 'X' past byte 47.
    static Bytes Identification(size_t length) {
        Bytes answer{0x5A, 0x9B};
        const std::string part = "06A906032HS ";
        answer.insert(answer.end(), part.begin(), part.end());
        answer.insert(answer.end(), {'3', '5', '4', '0', 0x03});
        answer.insert(answer.end(), {0x00, 0x0F, 0xA1, 0x11, 0x22, 0x05, 0x6B, 0x12, 0x34});
        const std::string component = "1.8l R4/5VT     G   ";
        answer.insert(answer.end(), component.begin(), component.end());
        answer.insert(answer.end(), {'X', 'X', 'X', 'X'});
        answer.resize(length);
        return answer;
    }

    static std::u16string Text(const DvChar *text) {
        return text == nullptr ? u"(null)"
                               : std::u16string(reinterpret_cast<const char16_t *>(text));
    }

    static void Release(EcuIdentification &record) {
        DvFree(record.partNumber);
        DvFree(record.componentText);
    }
};

// ---- session
// --------------------------------------------------------------------------------------

TEST_F(VagIsoIdentification, SessionMode1Sends1089AndMode0Sends1081) {
    Start();
    ecu.respond = [](const Bytes &request) {
        return std::vector<Bytes>{Answer({0x50, request.at(1)})};
    };
    EXPECT_EQ(DvVagIsoStartDiagnosticSession(1), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x10, 0x89, 0x1C}));
    EXPECT_EQ(IsoLinkState().sessionMode, 0x89);
    Forget();
    EXPECT_EQ(DvVagIsoStartDiagnosticSession(0), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x10, 0x81, 0x14}));
    EXPECT_EQ(IsoLinkState().sessionMode, 0x81);
}

TEST_F(VagIsoIdentification, SessionModes2And4AndOthersGoToTheStandardMapping) {
    Start();
    ecu.respond = [](const Bytes &request) {
        return std::vector<Bytes>{Answer({0x50, request.at(1)})};
    };
    EXPECT_EQ(DvVagIsoStartDiagnosticSession(2), 0u);
    EXPECT_EQ(DvVagIsoStartDiagnosticSession(4), 0u);
    EXPECT_EQ(DvVagIsoStartDiagnosticSession(0x89), 0u);
    EXPECT_EQ(ecu.requests, (std::vector<Bytes>{{0x10, 0x85}, {0x10, 0x87}, {0x10, 0x89}}));
}

TEST_F(VagIsoIdentification, SessionMode1WrongEchoGives7) {
    Start();
    ecu.AnswerAlways({0x50, 0x81});
    EXPECT_EQ(DvVagIsoStartDiagnosticSession(1), 7u);
    EXPECT_TRUE(Logged("Bad diagnostic session mode : '81' vs '89'\r\n"));
    EXPECT_EQ(IsoLinkState().sessionMode, 0);
}

TEST_F(VagIsoIdentification, SessionMode1IsRestoredAfterARestart) {
    Start();
    ecu.AnswerAlways({0x50, 0x89});
    ASSERT_EQ(DvVagIsoStartDiagnosticSession(1), 0u);
    Forget();
    int capabilityRequests = 0;
    ecu.respond = [&capabilityRequests](const Bytes &request) {
        if (request == Bytes{0x10, 0x89}) {
            return std::vector<Bytes>{Answer({0x50, 0x89})};
        }
        if (++capabilityRequests <= 3) {
            return std::vector<Bytes>{};
        }
        return std::vector<Bytes>{Answer({0x71, 0xB8, 0x01, 0x01})};
    };
    uint32_t mask = 0;
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 0u);
    EXPECT_EQ(mask, 0x02u);
    const Bytes capabilities{0x31, 0xB8, 0x00, 0x00};
    EXPECT_EQ(ecu.requests,
              (std::vector<Bytes>{
                  capabilities, capabilities, capabilities, {0x81}, {0x10, 0x89}, capabilities}));
}

// ---- identification
// -------------------------------------------------------------------------------

TEST_F(VagIsoIdentification, IdentificationBytes19To21Give4001) {
    Start();
    ecu.AnswerAlways(Identification(48));
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 0u);
    EXPECT_EQ(Written(), (Bytes{0x82, 0x10, 0xF1, 0x1A, 0x9B, 0x38}));
    EXPECT_EQ(Text(record.partNumber), u"06A906032HS ");
    EXPECT_EQ(Text(record.componentText), u"1.8l R4/5VT     G   ");
    EXPECT_EQ(record.coding, 4001u);
    // ((0x6B & 1) << 16) | 0x1234 and ((0x05 & 7) << 7) | (0x6B >> 1).
    EXPECT_EQ(record.workshopCode, 0x11234u);
    EXPECT_EQ(record.extraCode, 640u + 53u);
    Release(record);
}

TEST_F(VagIsoIdentification, IdentificationComponentTextStopsAtByte47) {
    Start();
    ecu.AnswerAlways(Identification(52));
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 0u);
    EXPECT_EQ(Text(record.componentText), u"1.8l R4/5VT     G   ");
    Release(record);
}

TEST_F(VagIsoIdentification, IdentificationShortComponentText) {
    Start();
    ecu.AnswerAlways(Identification(31));
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 0u);
    EXPECT_EQ(Text(record.componentText), u"1.8");
    EXPECT_EQ(record.coding, 4001u);
    Release(record);
}

TEST_F(VagIsoIdentification, IdentificationWithoutComponentTextFailsTheConversion) {
    Start();
    // 28 bytes: the component text has no byte, and converting zero bytes fails.
    ecu.AnswerAlways(Identification(28));
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 1u);
    EXPECT_TRUE(LogHas("Could not convert to Unicode (0x"));
    EXPECT_EQ(record.partNumber, nullptr);
    EXPECT_EQ(record.componentText, nullptr);
}

TEST_F(VagIsoIdentification, IdentificationTooShortForThePartNumberFailsTheConversion) {
    Start();
    ecu.AnswerAlways({0x5A, 0x9B});
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 1u);
    EXPECT_TRUE(LogHas("Could not convert to Unicode (0x"));
    EXPECT_EQ(record.partNumber, nullptr);
}

TEST_F(VagIsoIdentification, IdentificationPartNumberConversionFailure) {
    Start();
    ecu.AnswerAlways(Identification(48));
    Fake().Fail(FakeCall::AnsiToWide, Fake().CallCount(FakeCall::AnsiToWide) + 1, 0x459);
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 1u);
    EXPECT_TRUE(Logged("Could not convert to Unicode (0x00000459)\r\n"));
    EXPECT_EQ(record.partNumber, nullptr);
}

TEST_F(VagIsoIdentification, IdentificationComponentTextConversionFailureFreesBoth) {
    Start();
    ecu.AnswerAlways(Identification(48));
    Fake().Fail(FakeCall::AnsiToWide, Fake().CallCount(FakeCall::AnsiToWide) + 2, 0x459);
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 1u);
    EXPECT_TRUE(Logged("Could not convert to Unicode (0x00000459)\r\n"));
    EXPECT_EQ(record.partNumber, nullptr);
    EXPECT_EQ(record.componentText, nullptr);
}

TEST_F(VagIsoIdentification, IdentificationWrongOptionGives7) {
    Start();
    Bytes answer = Identification(48);
    answer[1] = 0x9A;
    ecu.AnswerAlways(answer);
    EcuIdentification record{};
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 7u);
    EXPECT_TRUE(Logged("Bad identification option : '9A' vs '9B'\r\n"));
    EXPECT_EQ(record.partNumber, nullptr);
}

TEST_F(VagIsoIdentification, IdentificationFailurePaths) {
    Start();
    EcuIdentification record{};
    ecu.AnswerAlways({0x7F, 0x1A, 0x31});
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 0x131u);
    ecu.AnswerAlways({0x5B, 0x9B});
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 13u);
    EXPECT_TRUE(Logged("Bad service id : '5B' vs '5A'\r\n"));
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(nullptr), 1u);
    ecu.respond = [](const Bytes &) { return std::vector<Bytes>{}; };
    EXPECT_EQ(DvVagIsoReadEcuIdentificationGeneral(&record), 8u);
    EXPECT_EQ(IsoLinkState().connected, 2u);
    EXPECT_EQ(record.partNumber, nullptr);
}

// ---- capabilities
// ---------------------------------------------------------------------------------

TEST_F(VagIsoIdentification, CapabilityAnswer0106And0102GivesMask5) {
    Start();
    ecu.AnswerAlways({0x71, 0xB8, 0x01, 0x06, 0x01, 0x02});
    uint32_t mask = 99;
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 0u);
    EXPECT_EQ(Written(), (Bytes{0x84, 0x10, 0xF1, 0x31, 0xB8, 0x00, 0x00, 0x6E}));
    EXPECT_EQ(mask, 5u);
}

TEST_F(VagIsoIdentification, CapabilityAnswerWithoutCodesGivesMask0) {
    Start();
    ecu.AnswerAlways({0x71, 0xB8});
    uint32_t mask = 99;
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 0u);
    EXPECT_EQ(mask, 0u);
}

TEST_F(VagIsoIdentification, CapabilityCodesSetTheirBitsAndOthersAreIgnored) {
    Start();
    ecu.AnswerAlways(
        {0x71, 0xB8, 0x01, 0x01, 0x01, 0x03, 0x02, 0x01, 0x01, 0x04, 0x01, 0x05, 0x01, 0x07, 0x01});
    uint32_t mask = 0;
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 0u);
    // 0x0101, 0x0103, 0x0104, 0x0105; 0x0201 and 0x0107 are ignored, the odd last byte too.
    EXPECT_EQ(mask, 0x02u | 0x08u | 0x10u | 0x20u);
}

TEST_F(VagIsoIdentification, CapabilityWrongRoutineLocalIdGives7) {
    Start();
    ecu.AnswerAlways({0x71, 0xB9, 0x01, 0x06});
    uint32_t mask = 99;
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 7u);
    EXPECT_TRUE(Logged("Bad routine local id : 'B9' vs 'B8'\r\n"));
    EXPECT_EQ(mask, 99u);
    ecu.AnswerAlways({0x71});
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 7u);
    EXPECT_TRUE(Logged("Bad routine local id : '00' vs 'B8'\r\n"));
}

TEST_F(VagIsoIdentification, CapabilityFailurePaths) {
    Start();
    uint32_t mask = 99;
    ecu.AnswerAlways({0x7F, 0x31, 0x12});
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 0x112u);
    ecu.AnswerAlways({0x72, 0xB8});
    EXPECT_EQ(DvVagIsoReadCapabilities(&mask), 13u);
    EXPECT_TRUE(Logged("Bad service id : '72' vs '71'\r\n"));
    EXPECT_EQ(DvVagIsoReadCapabilities(nullptr), 1u);
    EXPECT_EQ(mask, 99u);
}

} // namespace
} // namespace kwptest
