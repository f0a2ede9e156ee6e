// Part 4.5: the formula table entry by entry, text elements, the KWP2000 counted text, the curve
// formulas, text lists and the conversion failure rule.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/fake_platform.h"
#include "dravelin/dravelin.h"
#include "kw1281/measuring_values.h"
#include "support/log_capture.h"

namespace {

using dv::bench::Fake;
using dv::bench::FakeCall;

std::u16string Text(const MeasuringValue &record) {
    return record.text == nullptr ? std::u16string()
                                  : std::u16string(reinterpret_cast<const char16_t *>(record.text));
}

// Records with a sentinel kind, so that a record the decoder did not write stands out.
std::vector<MeasuringValue> Records(size_t count) {
    return std::vector<MeasuringValue>(count, MeasuringValue{0xEE, 0x5A5A, nullptr});
}

void FreeTexts(std::vector<MeasuringValue> &records) {
    for (MeasuringValue &record : records) {
        if (record.kind != 0xEE) {
            std::free(record.text);
            record.text = nullptr;
        }
    }
}

struct CurveSpec {
    uint8_t formula;
    uint8_t factor;
    std::vector<uint8_t> data;
};

void SetCurves(const std::vector<CurveSpec> &specs) {
    auto *entries = static_cast<dv::MeasurementCurve *>(
        std::malloc(specs.size() * sizeof(dv::MeasurementCurve)));
    for (size_t i = 0; i < specs.size(); ++i) {
        const CurveSpec &spec = specs[i];
        uint8_t *data = nullptr;
        if (!spec.data.empty()) {
            data = static_cast<uint8_t *>(std::malloc(spec.data.size()));
            std::memcpy(data, spec.data.data(), spec.data.size());
        }
        entries[i] = {spec.formula, spec.factor, static_cast<uint8_t>(spec.data.size()), data};
    }
    dv::SetMeasurementCurveTable(entries, static_cast<uint32_t>(specs.size()));
}

class MeasuringValues : public ::testing::Test {
protected:
    void SetUp() override {
        dv::bench::FakeInstall();
        ASSERT_EQ(dvtest::ConstructLibrary(2), 0u);
        dvtest::LogCaptureReset();
    }
    void TearDown() override {
        dv::FreeMeasurementCurveTable();
        DvDestruct();
        dv::bench::FakeUninstall();
    }

    // Counts (KW1281 form) and decodes; the records, the decoder's result in *result.
    std::vector<MeasuringValue> DecodeKw(const std::vector<uint8_t> &data, uint32_t *result,
                                         uint32_t extra = 0) {
        uint32_t count = 0xDEAD;
        EXPECT_EQ(dv::CountMeasuringValues(static_cast<uint32_t>(data.size()), data.data(), &count),
                  0u);
        std::vector<MeasuringValue> records = Records(count + extra);
        *result = dv::DecodeMeasuringValues(count, records.data(),
                                            static_cast<uint32_t>(data.size()), data.data());
        records.resize(count + extra);
        return records;
    }

    std::vector<MeasuringValue> DecodeKwp(const std::vector<uint8_t> &data, uint32_t *result) {
        const uint32_t count =
            dv::CountLocalIdValues(static_cast<uint32_t>(data.size()), data.data());
        std::vector<MeasuringValue> records = Records(count + 1);
        *result = dv::DecodeLocalIdValues(count, records.data(), static_cast<uint32_t>(data.size()),
                                          data.data());
        return records;
    }

    // One element (f, a, b) decoded alone.
    MeasuringValue One(uint8_t f, uint8_t a, uint8_t b) {
        uint32_t result = 9;
        std::vector<MeasuringValue> records = DecodeKw({f, a, b}, &result);
        EXPECT_EQ(result, 0u);
        EXPECT_EQ(records.size(), 1u);
        return records.empty() ? MeasuringValue{} : records[0];
    }

    std::vector<MeasuringValue> Curves(const std::vector<uint8_t> &bytes, uint32_t *result) {
        std::vector<MeasuringValue> records = Records(bytes.size() + 1);
        *result = dv::DecodeCurveValues(static_cast<uint32_t>(bytes.size()), records.data(),
                                        bytes.data());
        return records;
    }
};

struct FormulaCase {
    int f, a, b;
    uint8_t kind;
    int32_t value;
    const char16_t *text;
};

// Expected values worked out from the table of Part 4.5 for A, B = (7, 200) and (200, 7), with
// the zero-divisor and signed cases added.
const FormulaCase kFormulaCases[] = {
    {0, 7, 200, 0, 0, nullptr},          {0, 200, 7, 0, 0, nullptr},
    {1, 7, 200, 1, 2800, nullptr},       {1, 200, 7, 1, 2800, nullptr},
    {2, 7, 200, 2, 280, nullptr},        {2, 200, 7, 2, 280, nullptr},
    {3, 7, 200, 3, 280, nullptr},        {3, 200, 7, 3, 280, nullptr},
    {4, 7, 200, 4, 511, nullptr},        {4, 200, 7, 4, -24000, nullptr},
    {5, 7, 200, 5, 700, nullptr},        {5, 200, 7, 5, -18600, nullptr},
    {6, 7, 200, 6, 1400, nullptr},       {6, 200, 7, 6, 1400, nullptr},
    {7, 7, 200, 7, 1400, nullptr},       {7, 200, 7, 7, 1400, nullptr},
    {8, 7, 200, 8, 1400, nullptr},       {8, 200, 7, 8, 1400, nullptr},
    {9, 7, 200, 9, 1022, nullptr},       {9, 200, 7, 9, -48000, nullptr},
    {10, 7, 200, 10, 0, u"WARM"},        {10, 200, 7, 10, 0, u"COLD"},
    {11, 7, 200, 11, 1050, nullptr},     {11, 200, 7, 11, -1420, nullptr},
    {12, 7, 200, 12, 1400, nullptr},     {12, 200, 7, 12, 1400, nullptr},
    {13, 7, 200, 13, 511, nullptr},      {13, 200, 7, 13, -24000, nullptr},
    {14, 7, 200, 14, 700, nullptr},      {14, 200, 7, 14, 700, nullptr},
    {15, 7, 200, 15, 1400, nullptr},     {15, 200, 7, 15, 1400, nullptr},
    {16, 7, 200, 16, 1992, nullptr},     {16, 200, 7, 16, 51207, nullptr},
    {18, 7, 200, 18, 560, nullptr},      {18, 200, 7, 18, 560, nullptr},
    {19, 7, 200, 19, 1400, nullptr},     {19, 200, 7, 19, 1400, nullptr},
    {20, 7, 200, 20, 393, nullptr},      {20, 200, 7, 20, -18906, nullptr},
    {21, 7, 200, 21, 1400, nullptr},     {21, 200, 7, 21, 1400, nullptr},
    {22, 7, 200, 22, 1400, nullptr},     {22, 200, 7, 22, 1400, nullptr},
    {23, 7, 200, 23, 546, nullptr},      {23, 200, 7, 23, 546, nullptr},
    {24, 7, 200, 24, 1400, nullptr},     {24, 200, 7, 24, 1400, nullptr},
    {25, 7, 200, 25, 28447, nullptr},    {25, 200, 7, 25, 1106, nullptr},
    {26, 7, 200, 26, 193, nullptr},      {26, 200, 7, 26, -193, nullptr},
    {27, 7, 200, 27, 504, nullptr},      {27, 200, 7, 27, -24200, nullptr},
    {28, 7, 200, 28, 193, nullptr},      {28, 200, 7, 28, -193, nullptr},
    {29, 7, 200, 29, 0, u"2.Kennfeld"},  {29, 200, 7, 29, 0, u"1.Kennfeld"},
    {30, 7, 200, 30, 1166, nullptr},     {30, 200, 7, 30, 1166, nullptr},
    {31, 7, 200, 31, 546, nullptr},      {31, 200, 7, 31, 546, nullptr},
    {32, 7, 200, 32, -56, nullptr},      {32, 200, 7, 32, 7, nullptr},
    {32, 1, 128, 32, 128, nullptr},      {32, 1, 129, 32, -127, nullptr},
    {33, 7, 200, 33, 2857, nullptr},     {33, 200, 7, 33, 3, nullptr},
    {33, 0, 90, 0, 0, nullptr},          {34, 7, 200, 34, 504, nullptr},
    {34, 200, 7, 34, -24200, nullptr},   {35, 7, 200, 35, 1400, nullptr},
    {35, 200, 7, 35, 1400, nullptr},     {36, 7, 200, 36, 19920, nullptr},
    {36, 200, 7, 36, 512070, nullptr},   {37, 7, 200, 37, 1992, nullptr},
    {37, 200, 7, 37, 51207, nullptr},    {38, 7, 200, 38, 504, nullptr},
    {38, 200, 7, 38, -24200, nullptr},   {39, 7, 200, 39, 549, nullptr},
    {39, 200, 7, 39, 549, nullptr},      {40, 7, 200, 40, -2015, nullptr},
    {40, 200, 7, 40, 47007, nullptr},    {41, 7, 200, 41, 1985, nullptr},
    {41, 200, 7, 41, 51007, nullptr},    {42, 7, 200, 42, -2015, nullptr},
    {42, 200, 7, 42, 47007, nullptr},    {43, 7, 200, 43, 1985, nullptr},
    {43, 200, 7, 43, 51007, nullptr},    {44, 7, 200, 44, 0, u"07:200"},
    {44, 200, 7, 44, 0, u"200:07"},      {45, 7, 200, 45, 1400, nullptr},
    {45, 200, 7, 45, 1400, nullptr},     {46, 7, 200, 46, -84634, nullptr},
    {46, 200, 7, 46, 50707, nullptr},    {47, 7, 200, 47, 504, nullptr},
    {47, 200, 7, 47, -24200, nullptr},   {48, 7, 200, 48, 1985, nullptr},
    {48, 200, 7, 48, 51007, nullptr},    {49, 7, 200, 49, 350, nullptr},
    {49, 200, 7, 49, 350, nullptr},      {50, 7, 200, 50, 1028, nullptr},
    {50, 200, 7, 50, -60, nullptr},      {50, 0, 90, 50, -3800, nullptr},
    {51, 7, 200, 51, 197, nullptr},      {51, 200, 7, 51, -9490, nullptr},
    {52, 7, 200, 52, 210, nullptr},      {52, 200, 7, 52, -1720, nullptr},
    {53, 7, 200, 53, 10243, nullptr},    {53, 200, 7, 53, -17097, nullptr},
    {54, 7, 200, 54, 1992, nullptr},     {54, 200, 7, 54, 51207, nullptr},
    {55, 7, 200, 55, 700, nullptr},      {55, 200, 7, 55, 700, nullptr},
    {56, 7, 200, 56, 1992, nullptr},     {56, 200, 7, 56, 51207, nullptr},
    {57, 7, 200, 57, 67528, nullptr},    {57, 200, 7, 57, 116743, nullptr},
    {58, 7, 200, 58, 20460, nullptr},    {58, 200, 7, 58, 716, nullptr},
    {59, 7, 200, 59, 60, nullptr},       {59, 200, 7, 59, 1562, nullptr},
    {60, 7, 200, 60, 1992, nullptr},     {60, 200, 7, 60, 51207, nullptr},
    {61, 7, 200, 61, 1028, nullptr},     {61, 200, 7, 61, -60, nullptr},
    {61, 0, 90, 0, 0, nullptr},          {62, 7, 200, 62, 358, nullptr},
    {62, 200, 7, 62, 358, nullptr},      {64, 7, 200, 64, 207, nullptr},
    {64, 200, 7, 64, 207, nullptr},      {65, 7, 200, 65, 511, nullptr},
    {65, 200, 7, 65, -24000, nullptr},   {66, 7, 200, 66, 273, nullptr},
    {66, 200, 7, 66, 273, nullptr},      {67, 7, 200, 67, 24200, nullptr},
    {67, 200, 7, 67, -25425, nullptr},   {68, 7, 200, 68, 13145, nullptr},
    {68, 200, 7, 68, -13810, nullptr},   {69, 7, 200, 69, 31508, nullptr},
    {69, 200, 7, 69, -33103, nullptr},   {70, 7, 200, 70, 18585, nullptr},
    {70, 200, 7, 70, -19526, nullptr},   {71, 7, 200, 0, 0, nullptr},
    {71, 200, 7, 0, 0, nullptr},         {72, 7, 200, 0, 0, nullptr},
    {72, 200, 7, 0, 0, nullptr},         {73, 7, 200, 0, 0, nullptr},
    {73, 200, 7, 0, 0, nullptr},         {74, 7, 200, 0, 0, nullptr},
    {74, 200, 7, 0, 0, nullptr},         {75, 7, 200, 0, 0, nullptr},
    {75, 200, 7, 0, 0, nullptr},         {76, 7, 200, 0, 0, nullptr},
    {76, 200, 7, 0, 0, nullptr},         {77, 7, 200, 0, 0, nullptr},
    {77, 200, 7, 0, 0, nullptr},         {78, 7, 200, 0, 0, nullptr},
    {78, 200, 7, 0, 0, nullptr},         {79, 7, 200, 0, 0, nullptr},
    {79, 200, 7, 0, 0, nullptr},         {80, 7, 200, 0, 0, nullptr},
    {80, 200, 7, 0, 0, nullptr},         {81, 7, 200, 81, 871, nullptr},
    {81, 200, 7, 81, -6268, nullptr},    {82, 7, 200, 82, 1953, nullptr},
    {82, 200, 7, 82, -14056, nullptr},   {83, 7, 200, 83, 1992, nullptr},
    {83, 200, 7, 83, -14329, nullptr},   {84, 7, 200, 0, 0, nullptr},
    {84, 200, 7, 0, 0, nullptr},         {85, 7, 200, 85, 5713, nullptr},
    {85, 200, 7, 85, -41050, nullptr},   {86, 7, 200, 0, 0, nullptr},
    {86, 200, 7, 0, 0, nullptr},         {87, 7, 200, 0, 0, nullptr},
    {87, 200, 7, 0, 0, nullptr},         {88, 7, 200, 0, 0, nullptr},
    {88, 200, 7, 0, 0, nullptr},         {89, 7, 200, 0, 0, nullptr},
    {89, 200, 7, 0, 0, nullptr},         {90, 7, 200, 0, 0, nullptr},
    {90, 200, 7, 0, 0, nullptr},         {91, 7, 200, 0, 0, nullptr},
    {91, 200, 7, 0, 0, nullptr},         {92, 7, 200, 0, 0, nullptr},
    {92, 200, 7, 0, 0, nullptr},         {93, 7, 200, 0, 0, nullptr},
    {93, 200, 7, 0, 0, nullptr},         {94, 7, 200, 0, 0, nullptr},
    {94, 200, 7, 0, 0, nullptr},         {95, 7, 200, 0, 0, nullptr},
    {95, 200, 7, 0, 0, nullptr},         {96, 7, 200, 0, 0, nullptr},
    {96, 200, 7, 0, 0, nullptr},         {97, 7, 200, 0, 0, nullptr},
    {97, 200, 7, 0, 0, nullptr},         {98, 7, 200, 0, 0, nullptr},
    {98, 200, 7, 0, 0, nullptr},         {99, 7, 200, 0, 0, nullptr},
    {99, 200, 7, 0, 0, nullptr},         {100, 7, 200, 0, 0, nullptr},
    {100, 200, 7, 0, 0, nullptr},        {101, 7, 200, 0, 0, nullptr},
    {101, 200, 7, 0, 0, nullptr},        {102, 7, 200, 0, 0, nullptr},
    {102, 200, 7, 0, 0, nullptr},        {103, 7, 200, 0, 0, nullptr},
    {103, 200, 7, 0, 0, nullptr},        {104, 7, 200, 0, 0, nullptr},
    {104, 200, 7, 0, 0, nullptr},        {105, 7, 200, 0, 0, nullptr},
    {105, 200, 7, 0, 0, nullptr},        {106, 7, 200, 0, 0, nullptr},
    {106, 200, 7, 0, 0, nullptr},        {107, 7, 200, 0, 0, nullptr},
    {107, 200, 7, 0, 0, nullptr},        {108, 7, 200, 0, 0, nullptr},
    {108, 200, 7, 0, 0, nullptr},        {109, 7, 200, 0, 0, nullptr},
    {109, 200, 7, 0, 0, nullptr},        {110, 7, 200, 0, 0, nullptr},
    {110, 200, 7, 0, 0, nullptr},        {111, 7, 200, 0, 0, nullptr},
    {111, 200, 7, 0, 0, nullptr},        {112, 7, 200, 0, 0, nullptr},
    {112, 200, 7, 0, 0, nullptr},        {113, 7, 200, 0, 0, nullptr},
    {113, 200, 7, 0, 0, nullptr},        {114, 7, 200, 0, 0, nullptr},
    {114, 200, 7, 0, 0, nullptr},        {115, 7, 200, 0, 0, nullptr},
    {115, 200, 7, 0, 0, nullptr},        {116, 7, 200, 0, 0, nullptr},
    {116, 200, 7, 0, 0, nullptr},        {117, 7, 200, 0, 0, nullptr},
    {117, 200, 7, 0, 0, nullptr},        {118, 7, 200, 0, 0, nullptr},
    {118, 200, 7, 0, 0, nullptr},        {119, 7, 200, 0, 0, nullptr},
    {119, 200, 7, 0, 0, nullptr},        {120, 7, 200, 0, 0, nullptr},
    {120, 200, 7, 0, 0, nullptr},        {121, 7, 200, 0, 0, nullptr},
    {121, 200, 7, 0, 0, nullptr},        {122, 7, 200, 0, 0, nullptr},
    {122, 200, 7, 0, 0, nullptr},        {123, 7, 200, 0, 0, nullptr},
    {123, 200, 7, 0, 0, nullptr},        {124, 7, 200, 0, 0, nullptr},
    {124, 200, 7, 0, 0, nullptr},        {125, 7, 200, 0, 0, nullptr},
    {125, 200, 7, 0, 0, nullptr},        {126, 7, 200, 0, 0, nullptr},
    {126, 200, 7, 0, 0, nullptr},        {127, 7, 200, 0, 0, nullptr},
    {127, 200, 7, 0, 0, nullptr},        {128, 7, 200, 0, 0, nullptr},
    {128, 200, 7, 0, 0, nullptr},        {129, 7, 200, 0, 0, nullptr},
    {129, 200, 7, 0, 0, nullptr},        {130, 7, 200, 0, 0, nullptr},
    {130, 200, 7, 0, 0, nullptr},        {131, 7, 200, 0, 0, nullptr},
    {131, 200, 7, 0, 0, nullptr},        {132, 7, 200, 0, 0, nullptr},
    {132, 200, 7, 0, 0, nullptr},        {133, 7, 200, 0, 0, nullptr},
    {133, 200, 7, 0, 0, nullptr},        {134, 7, 200, 0, 0, nullptr},
    {134, 200, 7, 0, 0, nullptr},        {135, 7, 200, 0, 0, nullptr},
    {135, 200, 7, 0, 0, nullptr},        {136, 7, 200, 0, 0, nullptr},
    {136, 200, 7, 0, 0, nullptr},        {137, 7, 200, 0, 0, nullptr},
    {137, 200, 7, 0, 0, nullptr},        {138, 7, 200, 0, 0, nullptr},
    {138, 200, 7, 0, 0, nullptr},        {139, 7, 200, 0, 0, nullptr},
    {139, 200, 7, 0, 0, nullptr},        {140, 7, 200, 0, 0, nullptr},
    {140, 200, 7, 0, 0, nullptr},        {141, 7, 200, 0, 0, nullptr},
    {141, 200, 7, 0, 0, nullptr},        {142, 7, 200, 0, 0, nullptr},
    {142, 200, 7, 0, 0, nullptr},        {143, 7, 200, 0, 0, nullptr},
    {143, 200, 7, 0, 0, nullptr},        {144, 7, 200, 0, 0, nullptr},
    {144, 200, 7, 0, 0, nullptr},        {145, 7, 200, 0, 0, nullptr},
    {145, 200, 7, 0, 0, nullptr},        {146, 7, 200, 0, 0, nullptr},
    {146, 200, 7, 0, 0, nullptr},        {147, 7, 200, 0, 0, nullptr},
    {147, 200, 7, 0, 0, nullptr},        {148, 7, 200, 0, 0, nullptr},
    {148, 200, 7, 0, 0, nullptr},        {149, 7, 200, 0, 0, nullptr},
    {149, 200, 7, 0, 0, nullptr},        {150, 7, 200, 0, 0, nullptr},
    {150, 200, 7, 0, 0, nullptr},        {151, 7, 200, 0, 0, nullptr},
    {151, 200, 7, 0, 0, nullptr},        {152, 7, 200, 0, 0, nullptr},
    {152, 200, 7, 0, 0, nullptr},        {153, 7, 200, 0, 0, nullptr},
    {153, 200, 7, 0, 0, nullptr},        {154, 7, 200, 0, 0, nullptr},
    {154, 200, 7, 0, 0, nullptr},        {155, 7, 200, 0, 0, nullptr},
    {155, 200, 7, 0, 0, nullptr},        {156, 7, 200, 0, 0, nullptr},
    {156, 200, 7, 0, 0, nullptr},        {157, 7, 200, 0, 0, nullptr},
    {157, 200, 7, 0, 0, nullptr},        {158, 7, 200, 0, 0, nullptr},
    {158, 200, 7, 0, 0, nullptr},        {159, 7, 200, 0, 0, nullptr},
    {159, 200, 7, 0, 0, nullptr},        {160, 7, 200, 0, 0, nullptr},
    {160, 200, 7, 0, 0, nullptr},        {161, 7, 200, 0, 0, nullptr},
    {161, 200, 7, 0, 0, nullptr},        {162, 7, 200, 0, 0, nullptr},
    {162, 200, 7, 0, 0, nullptr},        {163, 7, 200, 0, 0, nullptr},
    {163, 200, 7, 0, 0, nullptr},        {164, 7, 200, 0, 0, nullptr},
    {164, 200, 7, 0, 0, nullptr},        {165, 7, 200, 0, 0, nullptr},
    {165, 200, 7, 0, 0, nullptr},        {166, 7, 200, 0, 0, nullptr},
    {166, 200, 7, 0, 0, nullptr},        {167, 7, 200, 0, 0, nullptr},
    {167, 200, 7, 0, 0, nullptr},        {168, 7, 200, 0, 0, nullptr},
    {168, 200, 7, 0, 0, nullptr},        {169, 7, 200, 0, 0, nullptr},
    {169, 200, 7, 0, 0, nullptr},        {170, 7, 200, 0, 0, nullptr},
    {170, 200, 7, 0, 0, nullptr},        {171, 7, 200, 0, 0, nullptr},
    {171, 200, 7, 0, 0, nullptr},        {172, 7, 200, 0, 0, nullptr},
    {172, 200, 7, 0, 0, nullptr},        {173, 7, 200, 0, 0, nullptr},
    {173, 200, 7, 0, 0, nullptr},        {174, 7, 200, 0, 0, nullptr},
    {174, 200, 7, 0, 0, nullptr},        {175, 7, 200, 0, 0, nullptr},
    {175, 200, 7, 0, 0, nullptr},        {176, 7, 200, 0, 0, nullptr},
    {176, 200, 7, 0, 0, nullptr},        {177, 7, 200, 0, 0, nullptr},
    {177, 200, 7, 0, 0, nullptr},        {178, 7, 200, 0, 0, nullptr},
    {178, 200, 7, 0, 0, nullptr},        {179, 7, 200, 0, 0, nullptr},
    {179, 200, 7, 0, 0, nullptr},        {180, 7, 200, 0, 0, nullptr},
    {180, 200, 7, 0, 0, nullptr},        {181, 7, 200, 0, 0, nullptr},
    {181, 200, 7, 0, 0, nullptr},        {182, 7, 200, 0, 0, nullptr},
    {182, 200, 7, 0, 0, nullptr},        {183, 7, 200, 0, 0, nullptr},
    {183, 200, 7, 0, 0, nullptr},        {184, 7, 200, 0, 0, nullptr},
    {184, 200, 7, 0, 0, nullptr},        {185, 7, 200, 0, 0, nullptr},
    {185, 200, 7, 0, 0, nullptr},        {186, 7, 200, 0, 0, nullptr},
    {186, 200, 7, 0, 0, nullptr},        {187, 7, 200, 0, 0, nullptr},
    {187, 200, 7, 0, 0, nullptr},        {188, 7, 200, 0, 0, nullptr},
    {188, 200, 7, 0, 0, nullptr},        {189, 7, 200, 0, 0, nullptr},
    {189, 200, 7, 0, 0, nullptr},        {190, 7, 200, 0, 0, nullptr},
    {190, 200, 7, 0, 0, nullptr},        {191, 7, 200, 0, 0, nullptr},
    {191, 200, 7, 0, 0, nullptr},        {192, 7, 200, 0, 0, nullptr},
    {192, 200, 7, 0, 0, nullptr},        {193, 7, 200, 0, 0, nullptr},
    {193, 200, 7, 0, 0, nullptr},        {194, 7, 200, 0, 0, nullptr},
    {194, 200, 7, 0, 0, nullptr},        {195, 7, 200, 0, 0, nullptr},
    {195, 200, 7, 0, 0, nullptr},        {196, 7, 200, 0, 0, nullptr},
    {196, 200, 7, 0, 0, nullptr},        {197, 7, 200, 0, 0, nullptr},
    {197, 200, 7, 0, 0, nullptr},        {198, 7, 200, 0, 0, nullptr},
    {198, 200, 7, 0, 0, nullptr},        {199, 7, 200, 0, 0, nullptr},
    {199, 200, 7, 0, 0, nullptr},        {200, 7, 200, 0, 0, nullptr},
    {200, 200, 7, 0, 0, nullptr},        {201, 7, 200, 0, 0, nullptr},
    {201, 200, 7, 0, 0, nullptr},        {202, 7, 200, 0, 0, nullptr},
    {202, 200, 7, 0, 0, nullptr},        {203, 7, 200, 0, 0, nullptr},
    {203, 200, 7, 0, 0, nullptr},        {204, 7, 200, 0, 0, nullptr},
    {204, 200, 7, 0, 0, nullptr},        {205, 7, 200, 0, 0, nullptr},
    {205, 200, 7, 0, 0, nullptr},        {206, 7, 200, 0, 0, nullptr},
    {206, 200, 7, 0, 0, nullptr},        {207, 7, 200, 0, 0, nullptr},
    {207, 200, 7, 0, 0, nullptr},        {208, 7, 200, 0, 0, nullptr},
    {208, 200, 7, 0, 0, nullptr},        {209, 7, 200, 0, 0, nullptr},
    {209, 200, 7, 0, 0, nullptr},        {210, 7, 200, 0, 0, nullptr},
    {210, 200, 7, 0, 0, nullptr},        {211, 7, 200, 0, 0, nullptr},
    {211, 200, 7, 0, 0, nullptr},        {212, 7, 200, 0, 0, nullptr},
    {212, 200, 7, 0, 0, nullptr},        {213, 7, 200, 0, 0, nullptr},
    {213, 200, 7, 0, 0, nullptr},        {214, 7, 200, 0, 0, nullptr},
    {214, 200, 7, 0, 0, nullptr},        {215, 7, 200, 0, 0, nullptr},
    {215, 200, 7, 0, 0, nullptr},        {216, 7, 200, 0, 0, nullptr},
    {216, 200, 7, 0, 0, nullptr},        {217, 7, 200, 0, 0, nullptr},
    {217, 200, 7, 0, 0, nullptr},        {218, 7, 200, 0, 0, nullptr},
    {218, 200, 7, 0, 0, nullptr},        {219, 7, 200, 0, 0, nullptr},
    {219, 200, 7, 0, 0, nullptr},        {220, 7, 200, 0, 0, nullptr},
    {220, 200, 7, 0, 0, nullptr},        {221, 7, 200, 0, 0, nullptr},
    {221, 200, 7, 0, 0, nullptr},        {222, 7, 200, 0, 0, nullptr},
    {222, 200, 7, 0, 0, nullptr},        {223, 7, 200, 0, 0, nullptr},
    {223, 200, 7, 0, 0, nullptr},        {224, 7, 200, 0, 0, nullptr},
    {224, 200, 7, 0, 0, nullptr},        {225, 7, 200, 0, 0, nullptr},
    {225, 200, 7, 0, 0, nullptr},        {226, 7, 200, 0, 0, nullptr},
    {226, 200, 7, 0, 0, nullptr},        {227, 7, 200, 0, 0, nullptr},
    {227, 200, 7, 0, 0, nullptr},        {228, 7, 200, 0, 0, nullptr},
    {228, 200, 7, 0, 0, nullptr},        {229, 7, 200, 0, 0, nullptr},
    {229, 200, 7, 0, 0, nullptr},        {230, 7, 200, 0, 0, nullptr},
    {230, 200, 7, 0, 0, nullptr},        {231, 7, 200, 0, 0, nullptr},
    {231, 200, 7, 0, 0, nullptr},        {232, 7, 200, 0, 0, nullptr},
    {232, 200, 7, 0, 0, nullptr},        {233, 7, 200, 0, 0, nullptr},
    {233, 200, 7, 0, 0, nullptr},        {234, 7, 200, 0, 0, nullptr},
    {234, 200, 7, 0, 0, nullptr},        {235, 7, 200, 0, 0, nullptr},
    {235, 200, 7, 0, 0, nullptr},        {236, 7, 200, 0, 0, nullptr},
    {236, 200, 7, 0, 0, nullptr},        {237, 7, 200, 0, 0, nullptr},
    {237, 200, 7, 0, 0, nullptr},        {238, 7, 200, 0, 0, nullptr},
    {238, 200, 7, 0, 0, nullptr},        {239, 7, 200, 0, 0, nullptr},
    {239, 200, 7, 0, 0, nullptr},        {240, 7, 200, 0, 0, nullptr},
    {240, 200, 7, 0, 0, nullptr},        {241, 7, 200, 0, 0, nullptr},
    {241, 200, 7, 0, 0, nullptr},        {242, 7, 200, 0, 0, nullptr},
    {242, 200, 7, 0, 0, nullptr},        {243, 7, 200, 0, 0, nullptr},
    {243, 200, 7, 0, 0, nullptr},        {244, 7, 200, 0, 0, nullptr},
    {244, 200, 7, 0, 0, nullptr},        {245, 7, 200, 0, 0, nullptr},
    {245, 200, 7, 0, 0, nullptr},        {246, 7, 200, 0, 0, nullptr},
    {246, 200, 7, 0, 0, nullptr},        {247, 7, 200, 0, 0, nullptr},
    {247, 200, 7, 0, 0, nullptr},        {248, 7, 200, 0, 0, nullptr},
    {248, 200, 7, 0, 0, nullptr},        {249, 7, 200, 0, 0, nullptr},
    {249, 200, 7, 0, 0, nullptr},        {250, 7, 200, 0, 0, nullptr},
    {250, 200, 7, 0, 0, nullptr},        {251, 7, 200, 0, 0, nullptr},
    {251, 200, 7, 0, 0, nullptr},        {252, 7, 200, 0, 0, nullptr},
    {252, 200, 7, 0, 0, nullptr},        {253, 7, 200, 0, 0, nullptr},
    {253, 200, 7, 0, 0, nullptr},        {254, 7, 200, 0, 0, nullptr},
    {254, 200, 7, 0, 0, nullptr},        {255, 7, 200, 0, 0, nullptr},
    {255, 200, 7, 0, 0, nullptr},        {17, 0x41, 0x42, 17, 0, u"AB"},
    {17, 0x80, 0x7A, 17, 0, u"\u20ACz"},
};

TEST_F(MeasuringValues, EveryFormulaOfTheTable) {
    bool covered[256] = {};
    for (const FormulaCase &c : kFormulaCases) {
        SCOPED_TRACE(testing::Message() << "F=" << c.f << " A=" << c.a << " B=" << c.b);
        MeasuringValue record =
            One(static_cast<uint8_t>(c.f), static_cast<uint8_t>(c.a), static_cast<uint8_t>(c.b));
        EXPECT_EQ(record.kind, c.kind);
        EXPECT_EQ(record.value, c.value);
        if (c.text == nullptr) {
            EXPECT_EQ(record.text, nullptr);
        } else {
            EXPECT_EQ(Text(record), std::u16string(c.text));
        }
        std::free(record.text);
        covered[c.f] = true;
    }
    covered[0x3F] = true; // the text element, tested below
    for (int f = 0; f < 256; ++f) {
        EXPECT_TRUE(covered[f]) << "no expectation for F=" << f;
    }
}

// ---- Edge cases worth testing (Part 4.5)
// ----------------------------------------------------------

TEST_F(MeasuringValues, EmptyDataCountsZeroAndDecodesNothing) {
    uint32_t count = 77;
    EXPECT_EQ(dv::CountMeasuringValues(0, nullptr, &count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(dv::CountLocalIdValues(0, nullptr), 0u);
    std::vector<MeasuringValue> records = Records(1);
    EXPECT_EQ(dv::DecodeMeasuringValues(0, records.data(), 0, nullptr), 0u);
    EXPECT_EQ(dv::DecodeLocalIdValues(0, records.data(), 0, nullptr), 0u);
    EXPECT_EQ(records[0].kind, 0xEE);
    EXPECT_EQ(records[0].value, 0x5A5A);
}

TEST_F(MeasuringValues, FiveBytesCountAsTwoElements) {
    const uint8_t data[] = {0x01, 2, 3, 0x05, 4};
    uint32_t count = 0;
    EXPECT_EQ(dv::CountMeasuringValues(5, data, &count), 0u);
    EXPECT_EQ(count, 2u);
    // The partial element reads its missing B as 0 (docs/deviations.md): (4 - 100) * 0... A = 4.
    std::vector<MeasuringValue> records = Records(2);
    EXPECT_EQ(dv::DecodeMeasuringValues(2, records.data(), 5, data), 0u);
    EXPECT_EQ(records[0].kind, 1);
    EXPECT_EQ(records[0].value, 12);
    EXPECT_EQ(records[1].kind, 5);
    EXPECT_EQ(records[1].value, (0 - 100) * 4);
}

TEST_F(MeasuringValues, Formula33ZeroDivisorGivesKindZeroAndFormula50KeepsItsKind) {
    MeasuringValue zero = One(0x21, 0, 0x40);
    EXPECT_EQ(zero.kind, 0);
    EXPECT_EQ(zero.value, 0);
    MeasuringValue fifty = One(0x32, 0, 0x90);
    EXPECT_EQ(fifty.kind, 50);
    EXPECT_EQ(fifty.value, 1600);
}

TEST_F(MeasuringValues, Formula32KeepsPlus128AndTurns129Negative) {
    EXPECT_EQ(One(0x20, 0x55, 0x80).value, 128);
    EXPECT_EQ(One(0x20, 0x55, 0x81).value, -127);
}

TEST_F(MeasuringValues, Formula40UsesFactor255) {
    EXPECT_EQ(One(0x28, 1, 0).value, -3745);
}

TEST_F(MeasuringValues, Formula57AddsTheHighWord) {
    EXPECT_EQ(One(0x39, 0, 0).value, 65536);
}

TEST_F(MeasuringValues, TextFormulasWarmKennfeldAndClock) {
    MeasuringValue warm = One(0x0A, 5, 5);
    MeasuringValue kennfeld = One(0x1D, 5, 5);
    MeasuringValue clock = One(0x2C, 7, 5);
    EXPECT_EQ(warm.kind, 10);
    EXPECT_EQ(Text(warm), u"WARM");
    EXPECT_EQ(kennfeld.kind, 29);
    EXPECT_EQ(Text(kennfeld), u"2.Kennfeld");
    EXPECT_EQ(clock.kind, 44);
    EXPECT_EQ(clock.value, 0);
    EXPECT_EQ(Text(clock), u"07:05");
    std::free(warm.text);
    std::free(kennfeld.text);
    std::free(clock.text);
}

TEST_F(MeasuringValues, FixedTextsAreSeparateBlocks) {
    uint32_t result = 9;
    std::vector<MeasuringValue> records = DecodeKw({0x0A, 1, 2, 0x0A, 3, 4}, &result);
    ASSERT_EQ(result, 0u);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_NE(records[0].text, records[1].text);
    EXPECT_EQ(Text(records[0]), u"WARM");
    EXPECT_EQ(Text(records[1]), u"WARM");
    FreeTexts(records);
}

TEST_F(MeasuringValues, Formula67NegativeHighPart) {
    MeasuringValue record = One(0x43, 0x83, 0);
    EXPECT_EQ(record.kind, 67);
    EXPECT_EQ(record.value, -6400);
}

TEST_F(MeasuringValues, Formula81SignedA) {
    MeasuringValue record = One(0x51, 0xFF, 0);
    EXPECT_EQ(record.kind, 81);
    EXPECT_EQ(record.value, -112);
}

TEST_F(MeasuringValues, KwpCountedTextThenValue) {
    uint32_t result = 9;
    std::vector<MeasuringValue> records = DecodeKwp({0x5F, 2, 'A', 'B', 0x01, 2, 3}, &result);
    ASSERT_EQ(result, 0u);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].kind, 0x5F);
    EXPECT_EQ(records[0].value, 0);
    EXPECT_EQ(Text(records[0]), u"AB");
    EXPECT_EQ(records[1].kind, 1);
    EXPECT_EQ(records[1].value, 12);
    EXPECT_EQ(records[1].text, nullptr);
    EXPECT_EQ(records[2].kind, 0xEE); // the count was 2
    FreeTexts(records);
}

TEST_F(MeasuringValues, CurveTableShorterThanTheValuesGivesRawRecords) {
    SetCurves({{128, 2, {}}, {132, 1, {}}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({10, 20, 0xAB}, &result);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(records[0].kind, 128);
    EXPECT_EQ(records[0].value, 20);
    EXPECT_EQ(records[1].kind, 132);
    EXPECT_EQ(records[1].value, 100);
    EXPECT_EQ(records[2].kind, 0xFF);
    EXPECT_EQ(records[2].value, 0xAB);
    EXPECT_EQ(records[2].text, nullptr);
    EXPECT_EQ(records[3].kind, 0xEE);
}

TEST_F(MeasuringValues, Curve139ThreePoints) {
    SetCurves({{139, 1, {0, 100, 200}}, {139, 1, {0, 100, 200}}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({64, 200}, &result);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(records[0].kind, 139);
    EXPECT_EQ(records[0].value, 50);
    EXPECT_EQ(records[1].kind, 139);
    EXPECT_EQ(records[1].value, 156);
}

TEST_F(MeasuringValues, TextList141) {
    const std::vector<uint8_t> list = {'A', 'B', 0x01, 'C', 'D'};
    SetCurves({{141, 2, list}, {141, 2, list}, {141, 2, list}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({1, 2, 0}, &result);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(records[0].kind, 141);
    EXPECT_EQ(records[0].value, 0);
    EXPECT_EQ(Text(records[0]), u"CD");
    EXPECT_EQ(records[1].kind, 0);
    EXPECT_EQ(records[1].value, 0);
    EXPECT_EQ(records[1].text, nullptr);
    EXPECT_EQ(Text(records[2]), u"AB");
    FreeTexts(records);
}

// ---- text elements
// --------------------------------------------------------------------------------

TEST_F(MeasuringValues, QuestionMarkTextEndsTheDecoding) {
    uint32_t result = 9;
    std::vector<MeasuringValue> records = DecodeKw({'?', 'H', 0xE4, 'l', 'l', 'o'}, &result, 1);
    ASSERT_EQ(result, 0u);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].kind, 0x3F);
    EXPECT_EQ(records[0].value, 0);
    EXPECT_EQ(Text(records[0]), u"H\u00E4llo");
    EXPECT_EQ(records[1].kind, 0xEE);
    FreeTexts(records);
}

TEST_F(MeasuringValues, QuestionMarkAfterValuesIsCountedAndCutAtTheEndOfTheData) {
    // The Part converts length - 1 bytes wherever "?" stands; Dravelin stops at the end.
    uint32_t result = 9;
    std::vector<MeasuringValue> records = DecodeKw({0x01, 2, 3, '?', 'X', 'Y'}, &result);
    ASSERT_EQ(result, 0u);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].value, 12);
    EXPECT_EQ(records[1].kind, 0x3F);
    EXPECT_EQ(Text(records[1]), u"XY");
    FreeTexts(records);
}

TEST_F(MeasuringValues, QuestionMarkInTheKwpVariantEndsCountAndDecoding) {
    uint32_t result = 9;
    std::vector<MeasuringValue> records =
        DecodeKwp({0x5F, 1, 'Z', '?', 'O', 'K', 0x01, 1, 1}, &result);
    ASSERT_EQ(result, 0u);
    EXPECT_EQ(Text(records[0]), u"Z");
    EXPECT_EQ(records[1].kind, 0x3F);
    EXPECT_EQ(Text(records[1]), u"OK\x01\x01\x01");
    EXPECT_EQ(records[2].kind, 0xEE);
    FreeTexts(records);
}

TEST_F(MeasuringValues, UnderscoreIsAnUnknownFormulaOnTheKw1281Side) {
    MeasuringValue record = One(0x5F, 2, 'A');
    EXPECT_EQ(record.kind, 0);
    EXPECT_EQ(record.value, 0);
}

TEST_F(MeasuringValues, CountedTextRunningPastTheDataIsCut) {
    uint32_t result = 9;
    std::vector<MeasuringValue> records = DecodeKwp({0x01, 1, 1, 0x5F, 9, 'A', 'B'}, &result);
    ASSERT_EQ(result, 0u);
    EXPECT_EQ(records[0].value, 2);
    EXPECT_EQ(records[1].kind, 0x5F);
    EXPECT_EQ(Text(records[1]), u"AB");
    EXPECT_EQ(records[2].kind, 0xEE);
    FreeTexts(records);
}

TEST_F(MeasuringValues, CountLocalIdValuesStepsOverCountedTexts) {
    const uint8_t data[] = {0x5F, 0, 0x5F, 3, 1, 2, 3, 0x01, 1, 1, 0x02};
    EXPECT_EQ(dv::CountLocalIdValues(sizeof data, data), 4u);
    const uint8_t trailing[] = {0x01, 1, 1, 0x5F};
    EXPECT_EQ(dv::CountLocalIdValues(sizeof trailing, trailing), 2u);
}

TEST_F(MeasuringValues, CountAndDecodeAgree) {
    const struct {
        std::vector<uint8_t> data;
        uint32_t count;
    } inputs[] = {
        {{0x01, 1, 1}, 1},
        {{0x01, 1, 1, 0x02}, 2},
        {{0x01, 1, 1, 0x02, 5}, 2},
        {{0x01, 1, 1, 0x02, 5, 5}, 2},
        {{0x01, 1, 1, 0x02, 5, 5, 0x10, 1, 2, 0x20, 0, 0x81}, 4},
        {{0x3F, 'a'}, 1},
        {{0x07, 3, 3, 0x3F, 'a', 'b', 0x07, 3, 3}, 2},
    };
    for (const auto &input : inputs) {
        uint32_t result = 9;
        std::vector<MeasuringValue> records = DecodeKw(input.data, &result, 1);
        ASSERT_EQ(result, 0u);
        ASSERT_EQ(records.size(), input.count + 1);
        for (uint32_t i = 0; i < input.count; ++i) {
            EXPECT_NE(records[i].kind, 0xEE) << "record " << i << " not written";
        }
        EXPECT_EQ(records[input.count].kind, 0xEE);
        FreeTexts(records);
    }
}

// ---- conversion failures
// ----------------------------------------------------------------------------

TEST_F(MeasuringValues, LoneQuestionMarkFailsTheConversion) {
    Fake().lastError = 0x57;
    uint32_t result = 0;
    std::vector<MeasuringValue> records = DecodeKw({0x3F}, &result);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].kind, 0xEE);
    EXPECT_NE(dvtest::LogText().find("Could not convert to Unicode (0x"), std::string::npos);
}

TEST_F(MeasuringValues, EmptyCountedTextFailsTheConversion) {
    Fake().Fail(FakeCall::AnsiToWide, 1, 0x57);
    uint32_t result = 0;
    std::vector<MeasuringValue> records = DecodeKwp({0x0A, 1, 2, 0x5F, 0, 0x01, 1, 1}, &result);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(Fake().CallCount(FakeCall::AnsiToWide), 1);
    EXPECT_EQ(records[1].kind, 0xEE);
    // The WARM text of record 0 was freed; the pointer stays (freeing it again would be a
    // double free under the sanitizers).
    EXPECT_NE(records[0].text, nullptr);
    EXPECT_EQ(dvtest::LogText(), "\r\nCould not convert to Unicode (0x00000057)\r\n");
}

TEST_F(MeasuringValues, FailedCharacterOfFormula17FreesTheEarlierTexts) {
    // Calls: 'a' and 'b' of record 0, none for the clock text, then 'c' and 'd': the 4th fails.
    Fake().Fail(FakeCall::AnsiToWide, 4, 0x0000007A);
    const uint8_t data[] = {0x11, 'a', 'b', 0x2C, 1, 2, 0x11, 'c', 'd', 0x01, 1, 1};
    std::vector<MeasuringValue> records = Records(4);
    EXPECT_EQ(dv::DecodeMeasuringValues(4, records.data(), sizeof data, data), 1u);
    EXPECT_EQ(Fake().CallCount(FakeCall::AnsiToWide), 4);
    EXPECT_EQ(records[0].kind, 17);
    EXPECT_EQ(records[1].kind, 44);
    EXPECT_EQ(records[3].kind, 0xEE);
    EXPECT_EQ(dvtest::LogText(), "\r\nCould not convert to Unicode (0x0000007A)\r\n");
}

TEST_F(MeasuringValues, FailedTextListConversionFreesTheEarlierTexts) {
    SetCurves({{142, 'K', {}}, {141, 3, {'A', 'B', 0x00, 'C'}}});
    Fake().Fail(FakeCall::AnsiToWide, 4, 0x0000000D);
    uint32_t result = 0;
    std::vector<MeasuringValue> records = Curves({'X', 1}, &result);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(Fake().CallCount(FakeCall::AnsiToWide), 4);
    EXPECT_EQ(records[1].kind, 0xEE);
    EXPECT_EQ(dvtest::LogText(), "\r\nCould not convert to Unicode (0x0000000D)\r\n");
}

TEST_F(MeasuringValues, FailedTwoCharacterCurveText) {
    SetCurves({{142, 'K', {}}});
    Fake().Fail(FakeCall::AnsiToWide, 1, 0x00000001);
    uint32_t result = 0;
    std::vector<MeasuringValue> records = Curves({'X'}, &result);
    EXPECT_EQ(result, 1u);
    EXPECT_EQ(records[0].kind, 0xEE);
    EXPECT_EQ(dvtest::LogText(), "\r\nCould not convert to Unicode (0x00000001)\r\n");
}

// ---- curve formulas
// ---------------------------------------------------------------------------------

struct CurveCase {
    int f, k, x;
    uint8_t kind;
    int32_t value;
};

// Expected values from the curve table of Part 4.5 with D = (10, 250, 30, 90) for the curves.
const CurveCase kCurveCases[] = {
    {0, 3, 200, 0, 0},         {0, 200, 3, 0, 0},          {1, 3, 200, 0, 0},
    {1, 200, 3, 0, 0},         {2, 3, 200, 0, 0},          {2, 200, 3, 0, 0},
    {3, 3, 200, 0, 0},         {3, 200, 3, 0, 0},          {4, 3, 200, 0, 0},
    {4, 200, 3, 0, 0},         {5, 3, 200, 0, 0},          {5, 200, 3, 0, 0},
    {6, 3, 200, 0, 0},         {6, 200, 3, 0, 0},          {7, 3, 200, 0, 0},
    {7, 200, 3, 0, 0},         {8, 3, 200, 0, 0},          {8, 200, 3, 0, 0},
    {9, 3, 200, 0, 0},         {9, 200, 3, 0, 0},          {10, 3, 200, 0, 0},
    {10, 200, 3, 0, 0},        {11, 3, 200, 0, 0},         {11, 200, 3, 0, 0},
    {12, 3, 200, 0, 0},        {12, 200, 3, 0, 0},         {13, 3, 200, 0, 0},
    {13, 200, 3, 0, 0},        {14, 3, 200, 0, 0},         {14, 200, 3, 0, 0},
    {15, 3, 200, 0, 0},        {15, 200, 3, 0, 0},         {16, 3, 200, 0, 0},
    {16, 200, 3, 0, 0},        {17, 3, 200, 0, 0},         {17, 200, 3, 0, 0},
    {18, 3, 200, 0, 0},        {18, 200, 3, 0, 0},         {19, 3, 200, 0, 0},
    {19, 200, 3, 0, 0},        {20, 3, 200, 0, 0},         {20, 200, 3, 0, 0},
    {21, 3, 200, 0, 0},        {21, 200, 3, 0, 0},         {22, 3, 200, 0, 0},
    {22, 200, 3, 0, 0},        {23, 3, 200, 0, 0},         {23, 200, 3, 0, 0},
    {24, 3, 200, 0, 0},        {24, 200, 3, 0, 0},         {25, 3, 200, 0, 0},
    {25, 200, 3, 0, 0},        {26, 3, 200, 0, 0},         {26, 200, 3, 0, 0},
    {27, 3, 200, 0, 0},        {27, 200, 3, 0, 0},         {28, 3, 200, 0, 0},
    {28, 200, 3, 0, 0},        {29, 3, 200, 0, 0},         {29, 200, 3, 0, 0},
    {30, 3, 200, 0, 0},        {30, 200, 3, 0, 0},         {31, 3, 200, 0, 0},
    {31, 200, 3, 0, 0},        {32, 3, 200, 0, 0},         {32, 200, 3, 0, 0},
    {33, 3, 200, 0, 0},        {33, 200, 3, 0, 0},         {34, 3, 200, 0, 0},
    {34, 200, 3, 0, 0},        {35, 3, 200, 0, 0},         {35, 200, 3, 0, 0},
    {36, 3, 200, 0, 0},        {36, 200, 3, 0, 0},         {37, 3, 200, 0, 0},
    {37, 200, 3, 0, 0},        {38, 3, 200, 0, 0},         {38, 200, 3, 0, 0},
    {39, 3, 200, 0, 0},        {39, 200, 3, 0, 0},         {40, 3, 200, 0, 0},
    {40, 200, 3, 0, 0},        {41, 3, 200, 0, 0},         {41, 200, 3, 0, 0},
    {42, 3, 200, 0, 0},        {42, 200, 3, 0, 0},         {43, 3, 200, 0, 0},
    {43, 200, 3, 0, 0},        {44, 3, 200, 0, 0},         {44, 200, 3, 0, 0},
    {45, 3, 200, 0, 0},        {45, 200, 3, 0, 0},         {46, 3, 200, 0, 0},
    {46, 200, 3, 0, 0},        {47, 3, 200, 0, 0},         {47, 200, 3, 0, 0},
    {48, 3, 200, 0, 0},        {48, 200, 3, 0, 0},         {49, 3, 200, 0, 0},
    {49, 200, 3, 0, 0},        {50, 3, 200, 0, 0},         {50, 200, 3, 0, 0},
    {51, 3, 200, 0, 0},        {51, 200, 3, 0, 0},         {52, 3, 200, 0, 0},
    {52, 200, 3, 0, 0},        {53, 3, 200, 0, 0},         {53, 200, 3, 0, 0},
    {54, 3, 200, 0, 0},        {54, 200, 3, 0, 0},         {55, 3, 200, 0, 0},
    {55, 200, 3, 0, 0},        {56, 3, 200, 0, 0},         {56, 200, 3, 0, 0},
    {57, 3, 200, 0, 0},        {57, 200, 3, 0, 0},         {58, 3, 200, 0, 0},
    {58, 200, 3, 0, 0},        {59, 3, 200, 0, 0},         {59, 200, 3, 0, 0},
    {60, 3, 200, 0, 0},        {60, 200, 3, 0, 0},         {61, 3, 200, 0, 0},
    {61, 200, 3, 0, 0},        {62, 3, 200, 0, 0},         {62, 200, 3, 0, 0},
    {63, 3, 200, 0, 0},        {63, 200, 3, 0, 0},         {64, 3, 200, 0, 0},
    {64, 200, 3, 0, 0},        {65, 3, 200, 0, 0},         {65, 200, 3, 0, 0},
    {66, 3, 200, 0, 0},        {66, 200, 3, 0, 0},         {67, 3, 200, 0, 0},
    {67, 200, 3, 0, 0},        {68, 3, 200, 0, 0},         {68, 200, 3, 0, 0},
    {69, 3, 200, 0, 0},        {69, 200, 3, 0, 0},         {70, 3, 200, 0, 0},
    {70, 200, 3, 0, 0},        {71, 3, 200, 0, 0},         {71, 200, 3, 0, 0},
    {72, 3, 200, 0, 0},        {72, 200, 3, 0, 0},         {73, 3, 200, 0, 0},
    {73, 200, 3, 0, 0},        {74, 3, 200, 0, 0},         {74, 200, 3, 0, 0},
    {75, 3, 200, 0, 0},        {75, 200, 3, 0, 0},         {76, 3, 200, 0, 0},
    {76, 200, 3, 0, 0},        {77, 3, 200, 0, 0},         {77, 200, 3, 0, 0},
    {78, 3, 200, 0, 0},        {78, 200, 3, 0, 0},         {79, 3, 200, 0, 0},
    {79, 200, 3, 0, 0},        {80, 3, 200, 0, 0},         {80, 200, 3, 0, 0},
    {81, 3, 200, 0, 0},        {81, 200, 3, 0, 0},         {82, 3, 200, 0, 0},
    {82, 200, 3, 0, 0},        {83, 3, 200, 0, 0},         {83, 200, 3, 0, 0},
    {84, 3, 200, 0, 0},        {84, 200, 3, 0, 0},         {85, 3, 200, 0, 0},
    {85, 200, 3, 0, 0},        {86, 3, 200, 0, 0},         {86, 200, 3, 0, 0},
    {87, 3, 200, 0, 0},        {87, 200, 3, 0, 0},         {88, 3, 200, 0, 0},
    {88, 200, 3, 0, 0},        {89, 3, 200, 0, 0},         {89, 200, 3, 0, 0},
    {90, 3, 200, 0, 0},        {90, 200, 3, 0, 0},         {91, 3, 200, 0, 0},
    {91, 200, 3, 0, 0},        {92, 3, 200, 0, 0},         {92, 200, 3, 0, 0},
    {93, 3, 200, 0, 0},        {93, 200, 3, 0, 0},         {94, 3, 200, 0, 0},
    {94, 200, 3, 0, 0},        {95, 3, 200, 0, 0},         {95, 200, 3, 0, 0},
    {96, 3, 200, 0, 0},        {96, 200, 3, 0, 0},         {97, 3, 200, 0, 0},
    {97, 200, 3, 0, 0},        {98, 3, 200, 0, 0},         {98, 200, 3, 0, 0},
    {99, 3, 200, 0, 0},        {99, 200, 3, 0, 0},         {100, 3, 200, 0, 0},
    {100, 200, 3, 0, 0},       {101, 3, 200, 0, 0},        {101, 200, 3, 0, 0},
    {102, 3, 200, 0, 0},       {102, 200, 3, 0, 0},        {103, 3, 200, 0, 0},
    {103, 200, 3, 0, 0},       {104, 3, 200, 0, 0},        {104, 200, 3, 0, 0},
    {105, 3, 200, 0, 0},       {105, 200, 3, 0, 0},        {106, 3, 200, 0, 0},
    {106, 200, 3, 0, 0},       {107, 3, 200, 0, 0},        {107, 200, 3, 0, 0},
    {108, 3, 200, 0, 0},       {108, 200, 3, 0, 0},        {109, 3, 200, 0, 0},
    {109, 200, 3, 0, 0},       {110, 3, 200, 0, 0},        {110, 200, 3, 0, 0},
    {111, 3, 200, 0, 0},       {111, 200, 3, 0, 0},        {112, 3, 200, 0, 0},
    {112, 200, 3, 0, 0},       {113, 3, 200, 0, 0},        {113, 200, 3, 0, 0},
    {114, 3, 200, 0, 0},       {114, 200, 3, 0, 0},        {115, 3, 200, 0, 0},
    {115, 200, 3, 0, 0},       {116, 3, 200, 0, 0},        {116, 200, 3, 0, 0},
    {117, 3, 200, 0, 0},       {117, 200, 3, 0, 0},        {118, 3, 200, 0, 0},
    {118, 200, 3, 0, 0},       {119, 3, 200, 0, 0},        {119, 200, 3, 0, 0},
    {120, 3, 200, 0, 0},       {120, 200, 3, 0, 0},        {121, 3, 200, 0, 0},
    {121, 200, 3, 0, 0},       {122, 3, 200, 0, 0},        {122, 200, 3, 0, 0},
    {123, 3, 200, 0, 0},       {123, 200, 3, 0, 0},        {124, 3, 200, 0, 0},
    {124, 200, 3, 0, 0},       {125, 3, 200, 0, 0},        {125, 200, 3, 0, 0},
    {126, 3, 200, 0, 0},       {126, 200, 3, 0, 0},        {127, 3, 200, 0, 0},
    {127, 200, 3, 0, 0},       {128, 3, 200, 128, 600},    {128, 200, 3, 128, 600},
    {129, 3, 200, 129, 234},   {129, 200, 3, 129, 234},    {130, 3, 200, 130, 234},
    {130, 200, 3, 130, 234},   {131, 3, 200, 0, 0},        {131, 200, 3, 0, 0},
    {132, 3, 200, 132, 3000},  {132, 200, 3, 132, 3000},   {133, 3, 200, 133, 234},
    {133, 200, 3, 133, 234},   {134, 3, 200, 134, 600},    {134, 200, 3, 134, 600},
    {135, 3, 200, 135, 600},   {135, 200, 3, 135, 600},    {136, 3, 200, 136, 968},
    {136, 200, 3, 136, 51203}, {137, 3, 200, 137, 600},    {137, 200, 3, 137, 600},
    {138, 3, 200, 138, 600},   {138, 200, 3, 138, 600},    {139, 3, 200, 139, 154},
    {139, 200, 3, 139, 3694},  {140, 3, 200, 140, 48},     {140, 200, 3, 140, -182},
    {143, 3, 200, 143, 216},   {143, 200, 3, 143, -25000}, {144, 3, 200, 144, 600},
    {144, 200, 3, 144, 600},   {145, 3, 200, 145, 600},    {145, 200, 3, 145, 600},
    {146, 3, 200, 146, 1021},  {146, 200, 3, 146, -1500},  {147, 3, 200, 0, 0},
    {147, 200, 3, 0, 0},       {148, 3, 200, 148, 540},    {148, 200, 3, 148, -62500},
    {149, 3, 200, 149, 300},   {149, 200, 3, 149, -19400}, {150, 3, 200, 150, 28446},
    {150, 200, 3, 150, 538},   {151, 3, 200, 151, 216},    {151, 200, 3, 151, -25000},
    {152, 3, 200, 152, 150},   {152, 200, 3, 152, 150},    {153, 3, 200, 153, 84},
    {153, 200, 3, 153, -9803}, {154, 3, 200, 0, 0},        {154, 200, 3, 0, 0},
    {155, 3, 200, 0, 0},       {155, 200, 3, 0, 0},        {156, 3, 200, 0, 0},
    {156, 200, 3, 0, 0},       {157, 3, 200, 0, 0},        {157, 200, 3, 0, 0},
    {158, 3, 200, 0, 0},       {158, 200, 3, 0, 0},        {159, 3, 200, 0, 0},
    {159, 200, 3, 0, 0},       {160, 3, 200, 0, 0},        {160, 200, 3, 0, 0},
    {161, 3, 200, 0, 0},       {161, 200, 3, 0, 0},        {162, 3, 200, 0, 0},
    {162, 200, 3, 0, 0},       {163, 3, 200, 0, 0},        {163, 200, 3, 0, 0},
    {164, 3, 200, 0, 0},       {164, 200, 3, 0, 0},        {165, 3, 200, 0, 0},
    {165, 200, 3, 0, 0},       {166, 3, 200, 0, 0},        {166, 200, 3, 0, 0},
    {167, 3, 200, 0, 0},       {167, 200, 3, 0, 0},        {168, 3, 200, 0, 0},
    {168, 200, 3, 0, 0},       {169, 3, 200, 0, 0},        {169, 200, 3, 0, 0},
    {170, 3, 200, 0, 0},       {170, 200, 3, 0, 0},        {171, 3, 200, 0, 0},
    {171, 200, 3, 0, 0},       {172, 3, 200, 0, 0},        {172, 200, 3, 0, 0},
    {173, 3, 200, 0, 0},       {173, 200, 3, 0, 0},        {174, 3, 200, 0, 0},
    {174, 200, 3, 0, 0},       {175, 3, 200, 0, 0},        {175, 200, 3, 0, 0},
    {176, 3, 200, 0, 0},       {176, 200, 3, 0, 0},        {177, 3, 200, 0, 0},
    {177, 200, 3, 0, 0},       {178, 3, 200, 0, 0},        {178, 200, 3, 0, 0},
    {179, 3, 200, 0, 0},       {179, 200, 3, 0, 0},        {180, 3, 200, 0, 0},
    {180, 200, 3, 0, 0},       {181, 3, 200, 0, 0},        {181, 200, 3, 0, 0},
    {182, 3, 200, 0, 0},       {182, 200, 3, 0, 0},        {183, 3, 200, 0, 0},
    {183, 200, 3, 0, 0},       {184, 3, 200, 0, 0},        {184, 200, 3, 0, 0},
    {185, 3, 200, 0, 0},       {185, 200, 3, 0, 0},        {186, 3, 200, 0, 0},
    {186, 200, 3, 0, 0},       {187, 3, 200, 0, 0},        {187, 200, 3, 0, 0},
    {188, 3, 200, 0, 0},       {188, 200, 3, 0, 0},        {189, 3, 200, 0, 0},
    {189, 200, 3, 0, 0},       {190, 3, 200, 0, 0},        {190, 200, 3, 0, 0},
    {191, 3, 200, 0, 0},       {191, 200, 3, 0, 0},        {192, 3, 200, 0, 0},
    {192, 200, 3, 0, 0},       {193, 3, 200, 0, 0},        {193, 200, 3, 0, 0},
    {194, 3, 200, 0, 0},       {194, 200, 3, 0, 0},        {195, 3, 200, 0, 0},
    {195, 200, 3, 0, 0},       {196, 3, 200, 0, 0},        {196, 200, 3, 0, 0},
    {197, 3, 200, 0, 0},       {197, 200, 3, 0, 0},        {198, 3, 200, 0, 0},
    {198, 200, 3, 0, 0},       {199, 3, 200, 0, 0},        {199, 200, 3, 0, 0},
    {200, 3, 200, 0, 0},       {200, 200, 3, 0, 0},        {201, 3, 200, 0, 0},
    {201, 200, 3, 0, 0},       {202, 3, 200, 0, 0},        {202, 200, 3, 0, 0},
    {203, 3, 200, 0, 0},       {203, 200, 3, 0, 0},        {204, 3, 200, 0, 0},
    {204, 200, 3, 0, 0},       {205, 3, 200, 0, 0},        {205, 200, 3, 0, 0},
    {206, 3, 200, 0, 0},       {206, 200, 3, 0, 0},        {207, 3, 200, 0, 0},
    {207, 200, 3, 0, 0},       {208, 3, 200, 0, 0},        {208, 200, 3, 0, 0},
    {209, 3, 200, 0, 0},       {209, 200, 3, 0, 0},        {210, 3, 200, 0, 0},
    {210, 200, 3, 0, 0},       {211, 3, 200, 0, 0},        {211, 200, 3, 0, 0},
    {212, 3, 200, 0, 0},       {212, 200, 3, 0, 0},        {213, 3, 200, 0, 0},
    {213, 200, 3, 0, 0},       {214, 3, 200, 0, 0},        {214, 200, 3, 0, 0},
    {215, 3, 200, 0, 0},       {215, 200, 3, 0, 0},        {216, 3, 200, 0, 0},
    {216, 200, 3, 0, 0},       {217, 3, 200, 0, 0},        {217, 200, 3, 0, 0},
    {218, 3, 200, 0, 0},       {218, 200, 3, 0, 0},        {219, 3, 200, 0, 0},
    {219, 200, 3, 0, 0},       {220, 3, 200, 0, 0},        {220, 200, 3, 0, 0},
    {221, 3, 200, 0, 0},       {221, 200, 3, 0, 0},        {222, 3, 200, 0, 0},
    {222, 200, 3, 0, 0},       {223, 3, 200, 0, 0},        {223, 200, 3, 0, 0},
    {224, 3, 200, 0, 0},       {224, 200, 3, 0, 0},        {225, 3, 200, 0, 0},
    {225, 200, 3, 0, 0},       {226, 3, 200, 0, 0},        {226, 200, 3, 0, 0},
    {227, 3, 200, 0, 0},       {227, 200, 3, 0, 0},        {228, 3, 200, 0, 0},
    {228, 200, 3, 0, 0},       {229, 3, 200, 0, 0},        {229, 200, 3, 0, 0},
    {230, 3, 200, 0, 0},       {230, 200, 3, 0, 0},        {231, 3, 200, 0, 0},
    {231, 200, 3, 0, 0},       {232, 3, 200, 0, 0},        {232, 200, 3, 0, 0},
    {233, 3, 200, 0, 0},       {233, 200, 3, 0, 0},        {234, 3, 200, 0, 0},
    {234, 200, 3, 0, 0},       {235, 3, 200, 0, 0},        {235, 200, 3, 0, 0},
    {236, 3, 200, 0, 0},       {236, 200, 3, 0, 0},        {237, 3, 200, 0, 0},
    {237, 200, 3, 0, 0},       {238, 3, 200, 0, 0},        {238, 200, 3, 0, 0},
    {239, 3, 200, 0, 0},       {239, 200, 3, 0, 0},        {240, 3, 200, 0, 0},
    {240, 200, 3, 0, 0},       {241, 3, 200, 0, 0},        {241, 200, 3, 0, 0},
    {242, 3, 200, 0, 0},       {242, 200, 3, 0, 0},        {243, 3, 200, 0, 0},
    {243, 200, 3, 0, 0},       {244, 3, 200, 0, 0},        {244, 200, 3, 0, 0},
    {245, 3, 200, 0, 0},       {245, 200, 3, 0, 0},        {246, 3, 200, 0, 0},
    {246, 200, 3, 0, 0},       {247, 3, 200, 0, 0},        {247, 200, 3, 0, 0},
    {248, 3, 200, 0, 0},       {248, 200, 3, 0, 0},        {249, 3, 200, 0, 0},
    {249, 200, 3, 0, 0},       {250, 3, 200, 0, 0},        {250, 200, 3, 0, 0},
    {251, 3, 200, 0, 0},       {251, 200, 3, 0, 0},        {252, 3, 200, 0, 0},
    {252, 200, 3, 0, 0},       {253, 3, 200, 0, 0},        {253, 200, 3, 0, 0},
    {254, 3, 200, 0, 0},       {254, 200, 3, 0, 0},        {255, 3, 200, 0, 0},
    {255, 200, 3, 0, 0}};

TEST_F(MeasuringValues, EveryCurveFormula) {
    bool covered[256] = {};
    for (const CurveCase &c : kCurveCases) {
        SCOPED_TRACE(testing::Message() << "F=" << c.f << " K=" << c.k << " X=" << c.x);
        SetCurves({{static_cast<uint8_t>(c.f), static_cast<uint8_t>(c.k), {10, 250, 30, 90}}});
        uint32_t result = 9;
        std::vector<MeasuringValue> records = Curves({static_cast<uint8_t>(c.x)}, &result);
        EXPECT_EQ(result, 0u);
        EXPECT_EQ(records[0].kind, c.kind);
        EXPECT_EQ(records[0].value, c.value);
        EXPECT_EQ(records[0].text, nullptr);
        covered[c.f] = true;
    }
    covered[141] = covered[142] = true; // the text formulas, below
    for (int f = 0; f < 256; ++f) {
        EXPECT_TRUE(covered[f]) << "no expectation for curve formula " << f;
    }
}

TEST_F(MeasuringValues, Curve142TwoCharacters) {
    SetCurves({{142, 'K', {}}, {142, 0x80, {}}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({'7', 'a'}, &result);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(records[0].kind, 142);
    EXPECT_EQ(records[0].value, 0);
    EXPECT_EQ(Text(records[0]), u"K7");
    EXPECT_EQ(Text(records[1]), u"\u20ACa");
    FreeTexts(records);
}

TEST_F(MeasuringValues, Curve140WithOffset) {
    SetCurves({{140, 5, {0, 100, 200}}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({200}, &result);
    EXPECT_EQ(records[0].kind, 140);
    EXPECT_EQ(records[0].value, 100 + (72 * 100) / 127 - 5);
}

TEST_F(MeasuringValues, CurveWithTwoPointsUsesTheLastSegmentDivisor) {
    // n = 2: S = 256, i = 0 = n - 2, Q = 255.
    SetCurves({{139, 2, {0, 255}}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({255}, &result);
    EXPECT_EQ(records[0].value, 2 * 0 + (255 * 255 * 2) / 255);
}

TEST_F(MeasuringValues, CurveReadsNeverPastItsPoints) {
    // n = 4: S = 85; X = 255 gives i = 3 in the Part, which would read D[4]. Dravelin stays on
    // the last segment (i = 2, Q = 84): 30 + (255 - 170) * 60 / 84 = 90.
    SetCurves({{140, 0, {10, 250, 30, 90}}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({255}, &result);
    EXPECT_EQ(records[0].kind, 140);
    EXPECT_EQ(records[0].value, 30 + (85 * 60) / 84);
}

TEST_F(MeasuringValues, CurvesWithoutTwoPointsOrWithAZeroDivisorGiveKindZero) {
    std::vector<uint8_t> many(200, 7);
    SetCurves({{139, 1, {}}, {140, 1, {5}}, {139, 1, many}, {139, 1, many}});
    uint32_t result = 9;
    // n = 200: S = 1, last segment i = 198 has Q = 0; X = 10 is on an ordinary segment.
    std::vector<MeasuringValue> records = Curves({10, 10, 250, 10}, &result);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(records[0].kind, 0);
    EXPECT_EQ(records[1].kind, 0);
    EXPECT_EQ(records[2].kind, 0);
    EXPECT_EQ(records[2].value, 0);
    EXPECT_EQ(records[3].kind, 139);
    EXPECT_EQ(records[3].value, 7);
}

TEST_F(MeasuringValues, TextListSeparatorsAndLimits) {
    // 0x80 and above separate texts too; an empty text between two separators counts.
    const std::vector<uint8_t> list = {'O', 'N', 0x80, 0x1F, 'O', 'F', 'F', 0xFF};
    SetCurves({{141, 4, list},
               {141, 4, list},
               {141, 4, list},
               {141, 4, list},
               {141, 0, list},
               {141, 9, list}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({0, 1, 2, 3, 0, 4}, &result);
    EXPECT_EQ(result, 0u);
    EXPECT_EQ(Text(records[0]), u"ON");
    EXPECT_EQ(records[1].kind, 141);
    EXPECT_EQ(Text(records[1]), u"");
    EXPECT_EQ(Text(records[2]), u"OFF");
    EXPECT_EQ(records[3].kind, 141); // the empty text after the last separator
    EXPECT_EQ(Text(records[3]), u"");
    EXPECT_EQ(records[4].kind, 0); // K = 0
    EXPECT_EQ(records[4].text, nullptr);
    EXPECT_EQ(records[5].kind, 0); // the list has only four texts, K says nine
    EXPECT_EQ(records[5].text, nullptr);
    FreeTexts(records);
}

TEST_F(MeasuringValues, TextListBufferGrowsBeyond32Units) {
    std::vector<uint8_t> list(40, 'x');
    list.push_back(0);
    for (int i = 0; i < 70; ++i) {
        list.push_back(static_cast<uint8_t>('A' + i % 26));
    }
    SetCurves({{141, 2, list}});
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({1}, &result);
    ASSERT_EQ(result, 0u);
    std::u16string expected;
    for (int i = 0; i < 70; ++i) {
        expected.push_back(static_cast<char16_t>(u'A' + i % 26));
    }
    EXPECT_EQ(Text(records[0]), expected);
    FreeTexts(records);
}

TEST_F(MeasuringValues, CurveTableIsReplacedAndFreed) {
    SetCurves({{128, 1, {1, 2}}, {128, 1, {}}});
    EXPECT_EQ(dv::MeasurementCurveCount(), 2u);
    SetCurves({{132, 1, {}}});
    EXPECT_EQ(dv::MeasurementCurveCount(), 1u);
    dv::SetMeasurementCurveTable(nullptr, 0);
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    SetCurves({{128, 1, {3, 4, 5}}});
    dv::FreeMeasurementCurveTable();
    EXPECT_EQ(dv::MeasurementCurveCount(), 0u);
    uint32_t result = 9;
    std::vector<MeasuringValue> records = Curves({9}, &result);
    EXPECT_EQ(records[0].kind, 0xFF);
    EXPECT_EQ(records[0].value, 9);
}

} // namespace
