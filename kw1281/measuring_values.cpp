// Measuring value decoding (Part 4.5).
//
// ECU data is read only inside its length: a byte the spec would read past the end of the data
// counts as 0 here (docs/deviations.md, Part 4.5).
#include "kw1281/measuring_values.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "frame/frame.h"
#include "platform/platform.h"

namespace dv {
namespace {

constexpr uint8_t kTextElement = 0x3F;    // "?"
constexpr uint8_t kCountedElement = 0x5F; // "_", KWP2000 only
constexpr uint8_t kRawKind = 0xFF;

// ---- texts ------------------------------------------------------------------------------------

char16_t *AllocateText(size_t units) {
    return static_cast<char16_t *>(std::malloc(units * sizeof(char16_t)));
}

// Fixed texts are duplicated: every text handed over is its own block.
char16_t *DuplicateText(const char16_t *text) {
    size_t units = 0;
    while (text[units] != 0) {
        ++units;
    }
    char16_t *copy = AllocateText(units + 1);
    if (copy != nullptr) {
        std::memcpy(copy, text, (units + 1) * sizeof(char16_t));
    }
    return copy;
}

// Converts `count` ANSI bytes into `dst` (room for `room` units); the number of units written,
// 0 on failure. A zero-length input goes to the platform too, which fails it and sets its error,
// as MultiByteToWideChar does.
int ConvertAnsi(const uint8_t *src, uint32_t count, char16_t *dst, uint32_t room) {
    static const char kEmpty[1] = {0};
    const char *source = src != nullptr ? reinterpret_cast<const char *>(src) : kEmpty;
    char16_t none[1];
    const int converted =
        PlatformGet().ansiToWide(source, static_cast<int>(count), dst != nullptr ? dst : none,
                                 dst != nullptr ? static_cast<int>(room) : 1);
    return dst != nullptr ? converted : 0;
}

// The failure rule: log, free the buffer just allocated and the texts of the records filled
// before it in this call (their pointers stay, freed), return 1.
uint32_t ConversionFailed(char16_t *buffer, MeasuringValue *values, uint32_t filled) {
    LogMessage(1, u"Could not convert to Unicode (0x%08X)\r\n", PlatformGet().lastError());
    std::free(buffer);
    for (uint32_t i = filled; i-- > 0;) {
        std::free(values[i].text);
    }
    return 1;
}

// "%02u:%02u" into a buffer of 8 units with a limit of 8.
char16_t *ClockText(uint32_t a, uint32_t b) {
    char narrow[8];
    const int written = std::snprintf(narrow, sizeof narrow, "%02u:%02u", a, b);
    char16_t *text = AllocateText(8);
    if (text == nullptr) {
        return nullptr;
    }
    const int units = written < 8 ? written : 7;
    for (int i = 0; i < units; ++i) {
        text[i] = static_cast<unsigned char>(narrow[i]);
    }
    text[units] = 0;
    return text;
}

// Two characters, each converted on its own, in a buffer of 3 units; null on failure (the
// buffer is then in *failed for the caller's failure rule).
char16_t *TwoCharacterText(uint8_t first, uint8_t second, char16_t **failed) {
    char16_t *text = AllocateText(3);
    if (ConvertAnsi(&first, 1, text, 1) != 1 || ConvertAnsi(&second, 1, text + 1, 1) != 1) {
        *failed = text;
        return nullptr;
    }
    text[2] = 0;
    return text;
}

// ---- the formula table of value elements ------------------------------------------------------

// A numeric formula: the value, or nothing for a zero divisor (the record then gets kind 0).
using ValueFormula = std::optional<int32_t> (*)(int32_t a, int32_t b);

enum class Rule : uint8_t { Unknown, Value, WarmCold, TwoCharacters, Kennfeld, Clock };

struct Formula {
    Rule rule = Rule::Unknown;
    ValueFormula value = nullptr;
};

// SA: A read as a signed two's-complement byte.
constexpr int32_t Signed(int32_t a) {
    return a < 128 ? a : a - 256;
}

// N of formulas 67-70: a signed 3-bit high part from A.
constexpr int32_t HighPart(int32_t a) {
    return a < 128 ? (a & 3) : (a & 3) - 4;
}

constexpr std::array<Formula, 256> MakeFormulaTable() {
    std::array<Formula, 256> t{};
    auto set = [&t](std::initializer_list<int> ids, ValueFormula f) {
        for (int id : ids) {
            t[id] = {Rule::Value, f};
        }
    };
    using V = std::optional<int32_t>;
    set({1}, [](int32_t a, int32_t b) -> V { return a * b * 2; });
    set({2, 3}, [](int32_t a, int32_t b) -> V { return a * b * 2 / 10; });
    set({4, 13, 65}, [](int32_t a, int32_t b) -> V { return (b - 127) * a; });
    set({5}, [](int32_t a, int32_t b) -> V { return (b - 100) * a; });
    set({6, 7, 8, 12, 15, 19, 21, 22, 24, 35, 45}, [](int32_t a, int32_t b) -> V { return a * b; });
    set({9}, [](int32_t a, int32_t b) -> V { return (b - 127) * a * 2; });
    t[10] = {Rule::WarmCold, nullptr};
    set({11}, [](int32_t a, int32_t b) -> V { return ((b - 128) * a + 10000) / 10; });
    set({14}, [](int32_t a, int32_t b) -> V { return a * b * 5 / 10; });
    set({16, 37, 54, 56, 60}, [](int32_t a, int32_t b) -> V { return a * 256 + b; });
    t[17] = {Rule::TwoCharacters, nullptr};
    set({18}, [](int32_t a, int32_t b) -> V { return a * b * 4 / 10; });
    set({20}, [](int32_t a, int32_t b) -> V { return (b - 128) * a * 100 / 128; });
    set({23, 31}, [](int32_t a, int32_t b) -> V { return a * b * 100 / 256; });
    set({25}, [](int32_t a, int32_t b) -> V { return (a * 1000 / 18 + b * 14222) / 100; });
    set({26, 28}, [](int32_t a, int32_t b) -> V { return b - a; });
    set({27, 34, 38, 47}, [](int32_t a, int32_t b) -> V { return (b - 128) * a; });
    t[29] = {Rule::Kennfeld, nullptr};
    set({30}, [](int32_t a, int32_t b) -> V { return a * b * 10 / 12; });
    set({32}, [](int32_t, int32_t b) -> V { return b <= 128 ? b : b - 256; });
    set({33}, [](int32_t a, int32_t b) -> V { return a == 0 ? V{} : V{b * 100 / a}; });
    set({36}, [](int32_t a, int32_t b) -> V { return (a * 256 + b) * 10; });
    set({39}, [](int32_t a, int32_t b) -> V { return a * b * 100 / 255; });
    set({40, 42}, [](int32_t a, int32_t b) -> V { return a * 255 + b - 4000; });
    set({41, 43, 48}, [](int32_t a, int32_t b) -> V { return a * 255 + b; });
    t[44] = {Rule::Clock, nullptr};
    set({46}, [](int32_t a, int32_t b) -> V { return ((a - 128) * 256 + b) * 275 / 100; });
    set({49}, [](int32_t a, int32_t b) -> V { return a * b / 4; });
    set({50},
        [](int32_t a, int32_t b) -> V { return a == 0 ? (b - 128) * 100 : (b - 128) * 100 / a; });
    set({51}, [](int32_t a, int32_t b) -> V { return (b - 128) * a * 100 / 255; });
    set({52}, [](int32_t a, int32_t b) -> V { return (b - 50) * a * 2 / 10; });
    set({53}, [](int32_t a, int32_t b) -> V { return ((b - 128) * 142220 + a * 555) / 1000; });
    set({55}, [](int32_t a, int32_t b) -> V { return a * b / 2; });
    set({57}, [](int32_t a, int32_t b) -> V { return (a + 256) * 256 + b; });
    set({58}, [](int32_t, int32_t b) -> V { return b * 1023 / 10; });
    set({59}, [](int32_t a, int32_t b) -> V { return (a * 256 + b) * 1000 / 32768; });
    set({61}, [](int32_t a, int32_t b) -> V { return a == 0 ? V{} : V{(b - 128) * 100 / a}; });
    set({62}, [](int32_t a, int32_t b) -> V { return a * b * 256 / 1000; });
    set({64}, [](int32_t a, int32_t b) -> V { return a + b; });
    set({66}, [](int32_t a, int32_t b) -> V { return a * b * 100 / 512; });
    set({67}, [](int32_t a, int32_t b) -> V { return (HighPart(a) * 256 + b) * 25; });
    set({68}, [](int32_t a, int32_t b) -> V { return (HighPart(a) * 347650 + b * 1358) / 100; });
    set({69}, [](int32_t a, int32_t b) -> V { return (HighPart(a) * 833275 + b * 3255) / 100; });
    set({70}, [](int32_t a, int32_t b) -> V { return (HighPart(a) * 491525 + b * 1920) / 100; });
    set({81}, [](int32_t a, int32_t b) -> V { return (Signed(a) * 112000 + b * 436) / 1000; });
    set({82}, [](int32_t a, int32_t b) -> V { return (Signed(a) * 25114 + b * 98) / 100; });
    set({83}, [](int32_t a, int32_t b) -> V { return Signed(a) * 256 + b; });
    set({85}, [](int32_t a, int32_t b) -> V { return (Signed(a) * 7334 + b * 29) / 10; });
    // 0, 71-80, 84 and 86 and above stay Unknown: kind 0.
    return t;
}

constexpr std::array<Formula, 256> kFormulas = MakeFormulaTable();

void SetRecord(MeasuringValue &record, uint8_t kind, int32_t value, char16_t *text) {
    record.kind = kind;
    record.value = value;
    record.text = reinterpret_cast<DvChar *>(text);
}

// Fills `record` from the element (f, a, b); false on a conversion failure, with the buffer to
// free in *failed.
bool DecodeElement(uint8_t f, uint8_t a, uint8_t b, MeasuringValue &record, char16_t **failed) {
    const Formula &formula = kFormulas[f];
    switch (formula.rule) {
    case Rule::Unknown: SetRecord(record, 0, 0, nullptr); return true;
    case Rule::Value: {
        const std::optional<int32_t> value = formula.value(a, b);
        if (value) {
            SetRecord(record, f, *value, nullptr);
        } else {
            SetRecord(record, 0, 0, nullptr);
        }
        return true;
    }
    case Rule::WarmCold:
        SetRecord(record, f, 0, DuplicateText(a <= b ? u"WARM" : u"COLD"));
        return true;
    case Rule::Kennfeld:
        SetRecord(record, f, 0, DuplicateText(b >= a ? u"2.Kennfeld" : u"1.Kennfeld"));
        return true;
    case Rule::Clock: SetRecord(record, f, 0, ClockText(a, b)); return true;
    case Rule::TwoCharacters: {
        char16_t *text = TwoCharacterText(a, b, failed);
        if (text == nullptr) {
            return false;
        }
        SetRecord(record, f, 0, text);
        return true;
    }
    }
    return true;
}

// The data bytes, 0 past the end.
struct Data {
    uint32_t length;
    const uint8_t *bytes;
    uint8_t At(uint64_t position) const { return position < length ? bytes[position] : 0; }
    // The number of bytes from `position` to the end.
    uint32_t From(uint64_t position) const {
        return position < length ? static_cast<uint32_t>(length - position) : 0;
    }
    // The bytes from `position` on, null at or past the end.
    const uint8_t *Bytes(uint64_t position) const {
        return position < length ? bytes + position : nullptr;
    }
};

uint32_t Decode(uint32_t count, MeasuringValue *values, Data data, bool countedText) {
    uint64_t position = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t f = data.At(position);
        if (f == kTextElement) {
            // The whole data length minus one, as written; cut at the end of the data.
            const uint32_t units = data.length - 1;
            const uint32_t available = data.From(position + 1);
            char16_t *text = AllocateText(static_cast<size_t>(units) + 1);
            const uint32_t bytes = available < units ? available : units;
            const int converted = ConvertAnsi(data.Bytes(position + 1), bytes, text, units);
            if (converted <= 0) {
                return ConversionFailed(text, values, i);
            }
            text[converted] = 0;
            SetRecord(values[i], kTextElement, 0, text);
            return 0;
        }
        if (countedText && f == kCountedElement) {
            const uint32_t n = data.At(position + 1);
            const uint32_t available = data.From(position + 2);
            char16_t *text = AllocateText(static_cast<size_t>(n) + 1);
            const int converted =
                ConvertAnsi(data.Bytes(position + 2), available < n ? available : n, text, n);
            if (converted <= 0) {
                return ConversionFailed(text, values, i);
            }
            text[converted] = 0;
            SetRecord(values[i], kCountedElement, 0, text);
            position += n + 2;
            continue;
        }
        char16_t *failed = nullptr;
        if (!DecodeElement(f, data.At(position + 1), data.At(position + 2), values[i], &failed)) {
            return ConversionFailed(failed, values, i);
        }
        position += 3;
    }
    return 0;
}

// ---- curve-coded values
// ---------------------------------------------------------------------------

struct CurveTable {
    MeasurementCurve *entries = nullptr;
    uint32_t count = 0;
};

CurveTable gCurves;

using CurveFormula = std::optional<int32_t> (*)(int32_t k, int32_t x, const MeasurementCurve &c);

enum class CurveRule : uint8_t { Unknown, Value, TextList, TwoCharacters };

struct CurveEntryRule {
    CurveRule rule = CurveRule::Unknown;
    CurveFormula value = nullptr;
};

// The segment of a curve (139, 140): step S, segment i and divisor Q. A curve needs two points,
// and a last segment with S = 1 would divide by zero: nothing then (kind 0). An X beyond the
// last segment is read on the last segment, so that D is never read past its end.
struct Segment {
    int32_t step;
    int32_t index;
    int32_t divisor;
};

std::optional<Segment> CurveSegment(int32_t x, const MeasurementCurve &c) {
    const int32_t n = c.length;
    if (n < 2 || c.data == nullptr) {
        return std::nullopt;
    }
    const int32_t step = 256 / (n - 1);
    int32_t index = x / step;
    if (index > n - 2) {
        index = n - 2;
    }
    const int32_t divisor = index < n - 2 ? step : step - 1;
    if (divisor == 0) {
        return std::nullopt;
    }
    return Segment{step, index, divisor};
}

constexpr std::array<CurveEntryRule, 256> MakeCurveTable() {
    std::array<CurveEntryRule, 256> t{};
    auto set = [&t](std::initializer_list<int> ids, CurveFormula f) {
        for (int id : ids) {
            t[id] = {CurveRule::Value, f};
        }
    };
    using V = std::optional<int32_t>;
    using C = const MeasurementCurve &;
    set({128, 134, 135, 137, 138, 144, 145}, [](int32_t k, int32_t x, C) -> V { return k * x; });
    set({129, 130, 133}, [](int32_t k, int32_t x, C) -> V { return k * x * 100 / 256; });
    set({132}, [](int32_t k, int32_t x, C) -> V { return k * x * 5; });
    set({136}, [](int32_t k, int32_t x, C) -> V { return k * 256 + x; });
    set({139}, [](int32_t k, int32_t x, C c) -> V {
        const std::optional<Segment> s = CurveSegment(x, c);
        if (!s) {
            return std::nullopt;
        }
        const int32_t low = c.data[s->index];
        const int32_t high = c.data[s->index + 1];
        return k * low + ((x - s->index * s->step) * (high - low) * k) / s->divisor;
    });
    set({140}, [](int32_t k, int32_t x, C c) -> V {
        const std::optional<Segment> s = CurveSegment(x, c);
        if (!s) {
            return std::nullopt;
        }
        const int32_t low = c.data[s->index];
        const int32_t high = c.data[s->index + 1];
        return low + ((x - s->index * s->step) * (high - low)) / s->divisor - k;
    });
    t[141] = {CurveRule::TextList, nullptr};
    t[142] = {CurveRule::TwoCharacters, nullptr};
    set({143, 151}, [](int32_t k, int32_t x, C) -> V { return (x - 128) * k; });
    set({146}, [](int32_t k, int32_t x, C) -> V { return ((x - 128) * k + 10000) / 10; });
    set({148}, [](int32_t k, int32_t x, C) -> V { return k * (x - 128) * 10 / 4; });
    set({149}, [](int32_t k, int32_t x, C) -> V { return (x - 100) * k; });
    set({150}, [](int32_t k, int32_t x, C) -> V { return (k * 557 + x * 142223) / 1000; });
    set({152}, [](int32_t k, int32_t x, C) -> V { return k * x / 4; });
    set({153}, [](int32_t k, int32_t x, C) -> V { return (x - 128) * k * 100 / 255; });
    // 131, 147, below 128 and above 153 stay Unknown: kind 0.
    return t;
}

constexpr std::array<CurveEntryRule, 256> kCurveFormulas = MakeCurveTable();

// A separator ends a text: any byte below 32 read as a signed byte (0x80..0xFF too).
bool IsSeparator(uint8_t byte) {
    return static_cast<int8_t>(byte) < 32;
}

enum class ListResult { Found, Missing, ConversionFailed };

// Converts the texts of the list one after another into one buffer until text number `wanted`
// is converted; stops after text count - 1. The end of the data ends a text and the list.
ListResult TextFromList(const MeasurementCurve &c, uint32_t count, uint32_t wanted,
                        char16_t **buffer) {
    uint32_t room = 32;
    *buffer = AllocateText(room);
    const Data data{c.data != nullptr ? c.length : 0u, c.data};
    uint32_t position = 0;
    for (uint32_t number = 0; number < count; ++number) {
        uint32_t units = 0;
        for (; position < data.length && !IsSeparator(data.bytes[position]); ++position) {
            if (units + 1 >= room) {
                room += 32;
                char16_t *grown = static_cast<char16_t *>(
                    std::realloc(*buffer, static_cast<size_t>(room) * sizeof(char16_t)));
                if (grown == nullptr) {
                    return ListResult::ConversionFailed;
                }
                *buffer = grown;
            }
            if (ConvertAnsi(data.bytes + position, 1, *buffer + units, 1) != 1) {
                return ListResult::ConversionFailed;
            }
            ++units;
        }
        (*buffer)[units] = 0;
        if (number == wanted) {
            return ListResult::Found;
        }
        if (position >= data.length) {
            return ListResult::Missing;
        }
        ++position; // the separator
    }
    return ListResult::Missing;
}

// Fills `record` from value byte x and its curve entry; false on a conversion failure, with the
// buffer to free in *failed.
bool DecodeCurveValue(uint8_t x, const MeasurementCurve &c, MeasuringValue &record,
                      char16_t **failed) {
    const CurveEntryRule &rule = kCurveFormulas[c.formula];
    switch (rule.rule) {
    case CurveRule::Unknown: SetRecord(record, 0, 0, nullptr); return true;
    case CurveRule::Value: {
        const std::optional<int32_t> value = rule.value(c.factor, x, c);
        if (value) {
            SetRecord(record, c.formula, *value, nullptr);
        } else {
            SetRecord(record, 0, 0, nullptr);
        }
        return true;
    }
    case CurveRule::TwoCharacters: {
        char16_t *text = TwoCharacterText(c.factor, x, failed);
        if (text == nullptr) {
            return false;
        }
        SetRecord(record, c.formula, 0, text);
        return true;
    }
    case CurveRule::TextList: {
        char16_t *text = nullptr;
        switch (TextFromList(c, c.factor, x, &text)) {
        case ListResult::Found: SetRecord(record, c.formula, 0, text); return true;
        case ListResult::Missing:
            std::free(text);
            SetRecord(record, 0, 0, nullptr);
            return true;
        case ListResult::ConversionFailed: *failed = text; return false;
        }
        return true;
    }
    }
    return true;
}

} // namespace

uint32_t CountMeasuringValues(uint32_t length, const uint8_t *data, uint32_t *count) {
    uint32_t elements = 0;
    for (uint64_t position = 0; position < length; position += 3) {
        ++elements;
        if (data[position] == kTextElement || position + 3 >= length) {
            break;
        }
    }
    *count = elements;
    return 0;
}

uint32_t DecodeMeasuringValues(uint32_t count, MeasuringValue *values, uint32_t length,
                               const uint8_t *data) {
    return Decode(count, values, Data{length, data}, false);
}

uint32_t CountLocalIdValues(uint32_t length, const uint8_t *data) {
    const Data bytes{length, data};
    uint32_t elements = 0;
    for (uint64_t position = 0; position < length;) {
        ++elements;
        const uint8_t f = data[position];
        if (f == kTextElement) {
            break;
        }
        position += f == kCountedElement ? bytes.At(position + 1) + 2u : 3u;
    }
    return elements;
}

uint32_t DecodeLocalIdValues(uint32_t count, MeasuringValue *values, uint32_t length,
                             const uint8_t *data) {
    return Decode(count, values, Data{length, data}, true);
}

uint32_t DecodeCurveValues(uint32_t count, MeasuringValue *values, const uint8_t *bytes) {
    for (uint32_t i = 0; i < count; ++i) {
        if (i >= gCurves.count) {
            SetRecord(values[i], kRawKind, bytes[i], nullptr);
            continue;
        }
        char16_t *failed = nullptr;
        if (!DecodeCurveValue(bytes[i], gCurves.entries[i], values[i], &failed)) {
            return ConversionFailed(failed, values, i);
        }
    }
    return 0;
}

void FreeMeasurementCurves(MeasurementCurve *entries, uint32_t count) {
    if (entries == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < count; ++i) {
        std::free(entries[i].data);
    }
    std::free(entries);
}

void SetMeasurementCurveTable(MeasurementCurve *entries, uint32_t count) {
    FreeMeasurementCurveTable();
    if (entries == nullptr || count == 0) {
        std::free(entries);
        return;
    }
    gCurves = {entries, count};
}

void FreeMeasurementCurveTable() {
    FreeMeasurementCurves(gCurves.entries, gCurves.count);
    gCurves = {};
}

uint32_t MeasurementCurveCount() {
    return gCurves.count;
}

} // namespace dv
