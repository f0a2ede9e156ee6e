// Part 4.1: reading the ECU identification into descriptions, and DvVagGetDescriptions.
#include <cstdio>
#include <cstdlib>

#include "kw1281/kw1281.h"
#include "platform/platform.h"

namespace dv {
namespace {

constexpr uint32_t kWordGrowth = 32;      // wide characters
constexpr uint32_t kArrayGrowth = 8;      // pointers
constexpr uint32_t kMaxDescriptions = 32; // before a further pass is asked for
constexpr uint32_t kCodingTextSize = 16;
constexpr uint32_t kElevenCharacters = 11;
constexpr uint32_t kSimulatorIdentificationMs = 1000;

// The descriptions gathered so far: a growing NULL-terminated array of malloc'd strings.
struct DescriptionList {
    DvChar **items = nullptr;
    uint32_t count = 0;
    uint32_t capacity = 0;

    // Takes ownership of `text` (freed when it cannot be stored).
    bool Add(DvChar *text) {
        if (count + 1 >= capacity) {
            auto *grown = static_cast<DvChar **>(
                std::realloc(items, (capacity + kArrayGrowth) * sizeof(DvChar *)));
            if (grown == nullptr) {
                std::free(text);
                return false;
            }
            items = grown;
            capacity += kArrayGrowth;
        }
        items[count++] = text;
        items[count] = nullptr;
        return true;
    }
    // The NULL-terminated array, also when no string was stored.
    DvChar **Finish() {
        if (items == nullptr) {
            items = static_cast<DvChar **>(std::calloc(kArrayGrowth, sizeof(DvChar *)));
        }
        DvChar **result = items;
        items = nullptr;
        count = capacity = 0;
        return result;
    }
    void Free() {
        for (uint32_t i = 0; i < count; ++i) {
            std::free(items[i]);
        }
        std::free(items);
        items = nullptr;
        count = capacity = 0;
    }
};

// The word being read; it may continue in the next block. Spaces are held back until the
// next character shows whether they were one (kept inside the word) or a run (ending it).
struct OpenWord {
    char16_t *text = nullptr;
    uint32_t length = 0;
    uint32_t capacity = 0;
    uint32_t pendingSpaces = 0;

    bool Append(char16_t c) {
        if (length + 1 >= capacity) {
            auto *grown = static_cast<char16_t *>(
                std::realloc(text, (capacity + kWordGrowth) * sizeof(char16_t)));
            if (grown == nullptr) {
                return false;
            }
            text = grown;
            capacity += kWordGrowth;
        }
        text[length++] = c;
        text[length] = 0;
        return true;
    }
    void Free() {
        std::free(text);
        *this = OpenWord{};
    }
};

struct IdentificationReader {
    DescriptionList list;
    OpenWord word;
    uint8_t shortCoding = 0;

    bool StoreWord() {
        word.pendingSpaces = 0;
        if (word.length == 0) {
            return true;
        }
        DvChar *text = reinterpret_cast<DvChar *>(word.text);
        word = OpenWord{};
        return list.Add(text);
    }

    bool AddText(const char *format, uint32_t value) {
        char narrow[kCodingTextSize];
        std::snprintf(narrow, sizeof narrow, format, static_cast<int>(value));
        auto *text = static_cast<DvChar *>(std::malloc(kCodingTextSize * sizeof(DvChar)));
        if (text == nullptr) {
            return false;
        }
        uint32_t i = 0;
        for (; narrow[i] != 0; ++i) {
            text[i] = static_cast<unsigned char>(narrow[i]);
        }
        text[i] = 0;
        return list.Add(text);
    }

    // The pending spaces before a character: a run ends the word, a single one is kept inside
    // it, except that it also ends an 11-character first word.
    bool ResolveSpaces() {
        const uint32_t spaces = word.pendingSpaces;
        word.pendingSpaces = 0;
        if (word.length == 0 || spaces == 0) {
            return true;
        }
        if (spaces >= 2 || (list.count == 0 && word.length == kElevenCharacters)) {
            return StoreWord();
        }
        return word.Append(u' ');
    }

    uint32_t ReadText(const uint8_t *data, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) {
            const uint8_t byte = data[i];
            if (byte < 0x20 || byte > 0x7F) {
                return StoreWord() ? 0 : kKwNoMemory;
            }
            if (byte == ' ') {
                ++word.pendingSpaces;
                continue;
            }
            if (!ResolveSpaces()) {
                return kKwNoMemory;
            }
            const char narrow = static_cast<char>(byte);
            char16_t wide = 0;
            if (PlatformGet().ansiToWide(&narrow, 1, &wide, 1) == 0) {
                LogMessage(1, u"Could not convert to Unicode (0x%08X)\r\n",
                           PlatformGet().lastError());
                return 1;
            }
            if (!word.Append(wide)) {
                return kKwNoMemory;
            }
        }
        return 0;
    }

    // A coding block: data[0] is 0. Missing bytes of a short block read as 0.
    uint32_t ReadCoding(const uint8_t *data, uint32_t count) {
        if (!StoreWord()) {
            return kKwNoMemory;
        }
        const auto at = [&](uint32_t i) -> uint32_t { return i < count ? data[i] : 0u; };
        uint32_t coding = 0;
        uint32_t workshop = 0;
        if (count + 3 == 7) {
            coding = at(1) >> 1;
            workshop = (at(1) & 1) << 16 | at(2) << 8 | at(3);
            shortCoding = 1;
        } else {
            const uint32_t v = at(1) << 24 | at(2) << 16 | at(3) << 8 | at(4);
            coding = v >> 17;
            workshop = v & 0x1FFFF;
        }
        if (!AddText("$SC:%05i", coding) || !AddText("$WC:%05i", workshop)) {
            return kKwNoMemory;
        }
        return 0;
    }

    // One 0xF6 block in the link buffer; the first of a pass carries the more flag.
    uint32_t ReadBlock(bool firstOfPass, bool *more) {
        uint8_t *data = KwBuffer().bytes + 3;
        const uint32_t count = KwBlockDataCount();
        if (count == 0) {
            return 0;
        }
        if (firstOfPass) {
            *more = (data[0] & 0x80) != 0;
            data[0] &= 0x7F;
        }
        return data[0] != 0 ? ReadText(data, count) : ReadCoding(data, count);
    }

    // Receives blocks until the ECU's acknowledge ends the pass.
    uint32_t ReadPass(uint32_t *blocks, bool *more) {
        for (;;) {
            if (const uint32_t code = KwReceiveNextBlock(); code != 0) {
                return code;
            }
            const uint8_t title = KwBlockTitle();
            uint32_t code = 0;
            if (title == kKwTitleAcknowledge) {
                KwEmptyBuffer();
                return 0;
            }
            if (title == kKwTitleRefusal) {
                code = 256;
            } else if (title != kKwTitleIdentification) {
                code = KwBadBlockType(title, kKwTitleIdentification);
            } else {
                code = ReadBlock(*blocks == 0, more);
            }
            KwEmptyBuffer();
            if (code != 0) {
                return code;
            }
            ++*blocks;
            if (const uint32_t ack = KwAcknowledge(); ack != 0) {
                return ack;
            }
        }
    }

    uint32_t Read() {
        for (;;) {
            uint32_t blocks = 0;
            bool more = false;
            if (const uint32_t code = ReadPass(&blocks, &more); code != 0) {
                return code;
            }
            if (!StoreWord()) {
                return kKwNoMemory;
            }
            if (blocks == 0 || !more) {
                return 0;
            }
            if (list.count >= kMaxDescriptions) {
                LogMessage(1, u"Too many ECU descriptions\r\n");
                return 7;
            }
            static constexpr uint8_t kNextPass[] = {kKwTitleReadIdentification};
            if (const uint32_t code = KwSendRequest(kNextPass); code != 0) {
                return code;
            }
        }
    }

    void Free() {
        word.Free();
        list.Free();
    }
};

DvChar *CopyText(const char16_t *text) {
    uint32_t length = 0;
    while (text[length] != 0) {
        ++length;
    }
    auto *copy = static_cast<DvChar *>(std::malloc((length + 1) * sizeof(DvChar)));
    if (copy != nullptr) {
        for (uint32_t i = 0; i <= length; ++i) {
            copy[i] = static_cast<DvChar>(text[i]);
        }
    }
    return copy;
}

} // namespace

uint32_t KwReadIdentification(DvChar ***descriptions) {
    IdentificationReader reader;
    const uint32_t code = reader.Read();
    DvChar **result = code == 0 ? reader.list.Finish() : nullptr;
    if (code != 0 || result == nullptr) {
        reader.Free();
        return code != 0 ? code : kKwNoMemory;
    }
    KwConnection().shortCoding = reader.shortCoding;
    *descriptions = result;
    return 0;
}

DvChar **KwSimulatorDescriptions() {
    const KwSimulatorValues &sim = KwConnection().simulator;
    const char16_t *texts[] = {u"8D0923512S", u"SIMULATOR", u"1.71 B", sim.codingText,
                               sim.workshopText};
    DescriptionList list;
    for (const char16_t *text : texts) {
        DvChar *copy = CopyText(text);
        if (copy == nullptr || !list.Add(copy)) { // Add frees what it cannot store
            list.Free();
            return nullptr;
        }
    }
    return list.Finish();
}

void KwFreeDescriptions(DvChar **descriptions) {
    if (descriptions == nullptr) {
        return;
    }
    for (DvChar **item = descriptions; *item != nullptr; ++item) {
        std::free(*item);
    }
    std::free(descriptions);
}

// The identification services (DvVagGetDescriptions, DvVagSetCoding): after the request the
// ECU sends its identification.
uint32_t KwIdentificationService(uint32_t simulatorDelayMs, std::span<const uint8_t> request,
                                 DvChar ***descriptions) {
    DvChar **result = nullptr;
    const uint32_t code = KwRunService(
        simulatorDelayMs,
        [&]() -> uint32_t {
            result = KwSimulatorDescriptions();
            return result != nullptr ? 0 : kKwNoMemory;
        },
        request,
        [&]() -> uint32_t {
            const uint32_t read = KwReadIdentification(&result);
            if (read == 0) {
                KwConnection().state = KwLinkState::Connected;
            }
            return read;
        });
    if (code != 0) {
        return code;
    }
    if (descriptions != nullptr) {
        *descriptions = result;
    } else {
        KwFreeDescriptions(result);
    }
    return 0;
}

} // namespace dv

extern "C" DV_API uint32_t DV_CALL DvVagGetDescriptions(DvChar ***descriptions) {
    static constexpr uint8_t kRequest[] = {dv::kKwTitleReadIdentification};
    return dv::KwIdentificationService(dv::kSimulatorIdentificationMs, kRequest, descriptions);
}
