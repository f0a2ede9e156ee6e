// The bounded UTF-16 formatter (see format.h). Numbers are rendered by the C library's narrow
// snprintf from a rebuilt narrow conversion spec, so their digits, rounding and padding are the
// C library's; strings, characters and the bounds are handled here.
#include "frame/format.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace dv {
namespace {

// Writes into the caller's buffer while there is room and counts every character, so the
// caller learns whether the text fitted.
struct Sink {
    char16_t *buffer;
    size_t count;
    size_t position = 0;

    void Put(char16_t c) {
        if (position < count) {
            buffer[position] = c;
        }
        ++position;
    }
    void Repeat(char16_t c, size_t times) {
        for (size_t i = 0; i < times; ++i) {
            Put(c);
        }
    }
};

enum class Size { None, Char, Short, Long, LongLong, SizeT, IntMax, PtrDiff, LongDouble };

struct Spec {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1; // none
    Size size = Size::None;
    char16_t conversion = 0;
};

bool IsDigit(char16_t c) {
    return c >= u'0' && c <= u'9';
}

int ReadNumber(const char16_t *&p) {
    int value = 0;
    while (IsDigit(*p)) {
        if (value < 100'000'000) {
            value = value * 10 + (*p - u'0');
        }
        ++p;
    }
    return value;
}

void ReadFlags(const char16_t *&p, Spec &spec) {
    for (;; ++p) {
        switch (*p) {
        case u'-': spec.left = true; break;
        case u'+': spec.plus = true; break;
        case u' ': spec.space = true; break;
        case u'#': spec.alternate = true; break;
        case u'0': spec.zero = true; break;
        default: return;
        }
    }
}

void ReadWidthAndPrecision(const char16_t *&p, Spec &spec, va_list &args) {
    if (*p == u'*') {
        ++p;
        const int width = va_arg(args, int);
        if (width < 0) {
            spec.left = true;
            spec.width = width == INT32_MIN ? INT32_MAX : -width;
        } else {
            spec.width = width;
        }
    } else {
        spec.width = ReadNumber(p);
    }
    if (*p != u'.') {
        return;
    }
    ++p;
    if (*p == u'*') {
        ++p;
        const int precision = va_arg(args, int);
        spec.precision = precision < 0 ? -1 : precision;
    } else {
        spec.precision = ReadNumber(p);
    }
}

void ReadSize(const char16_t *&p, Spec &spec) {
    switch (*p) {
    case u'h':
        ++p;
        spec.size = Size::Short;
        if (*p == u'h') {
            ++p;
            spec.size = Size::Char;
        }
        return;
    case u'l':
        ++p;
        spec.size = Size::Long;
        if (*p == u'l') {
            ++p;
            spec.size = Size::LongLong;
        }
        return;
    case u'w':
        ++p;
        spec.size = Size::Long;
        return;
    case u'z':
        ++p;
        spec.size = Size::SizeT;
        return;
    case u'j':
        ++p;
        spec.size = Size::IntMax;
        return;
    case u't':
        ++p;
        spec.size = Size::PtrDiff;
        return;
    case u'L':
        ++p;
        spec.size = Size::LongDouble;
        return;
    case u'I':
        if (p[1] == u'6' && p[2] == u'4') {
            p += 3;
            spec.size = Size::LongLong;
        } else if (p[1] == u'3' && p[2] == u'2') {
            p += 3;
        } else {
            ++p;
            spec.size = Size::SizeT;
        }
        return;
    default: return;
    }
}

long long SignedArgument(Size size, va_list &args) {
    switch (size) {
    case Size::Char: return static_cast<signed char>(va_arg(args, int));
    case Size::Short: return static_cast<short>(va_arg(args, int));
    case Size::Long: return va_arg(args, long);
    case Size::LongLong: return va_arg(args, long long);
    case Size::SizeT:
    case Size::PtrDiff: return va_arg(args, ptrdiff_t);
    case Size::IntMax: return static_cast<long long>(va_arg(args, intmax_t));
    default: return va_arg(args, int);
    }
}

unsigned long long UnsignedArgument(Size size, va_list &args) {
    switch (size) {
    case Size::Char: return static_cast<unsigned char>(va_arg(args, unsigned int));
    case Size::Short: return static_cast<unsigned short>(va_arg(args, unsigned int));
    case Size::Long: return va_arg(args, unsigned long);
    case Size::LongLong: return va_arg(args, unsigned long long);
    case Size::SizeT: return va_arg(args, size_t);
    case Size::PtrDiff: return static_cast<unsigned long long>(va_arg(args, ptrdiff_t));
    case Size::IntMax: return static_cast<unsigned long long>(va_arg(args, uintmax_t));
    default: return va_arg(args, unsigned int);
    }
}

// The narrow spec for snprintf: the flags, width and precision as parsed, then `size` and the
// conversion character.
std::string NarrowSpec(const Spec &spec, const char *size) {
    std::string text = "%";
    if (spec.left) {
        text += '-';
    }
    if (spec.plus) {
        text += '+';
    }
    if (spec.space) {
        text += ' ';
    }
    if (spec.alternate) {
        text += '#';
    }
    if (spec.zero) {
        text += '0';
    }
    if (spec.width > 0) {
        text += std::to_string(spec.width);
    }
    if (spec.precision >= 0) {
        text += '.';
        text += std::to_string(spec.precision);
    }
    text += size;
    text += static_cast<char>(spec.conversion);
    return text;
}

// Renders one number with snprintf and copies it out, widening each (ASCII) character.
template <typename T> void PutNumber(Sink &sink, const std::string &narrowSpec, T value) {
    std::array<char, 128> small{};
    const int needed = std::snprintf(small.data(), small.size(), narrowSpec.c_str(), value);
    if (needed <= 0) {
        return;
    }
    const char *text = small.data();
    std::vector<char> large;
    if (static_cast<size_t>(needed) >= small.size()) {
        large.resize(static_cast<size_t>(needed) + 1);
        std::snprintf(large.data(), large.size(), narrowSpec.c_str(), value);
        text = large.data();
    }
    for (int i = 0; i < needed; ++i) {
        sink.Put(static_cast<char16_t>(static_cast<unsigned char>(text[i])));
    }
}

template <typename Char> size_t BoundedLength(const Char *text, int precision) {
    size_t length = 0;
    while ((precision < 0 || length < static_cast<size_t>(precision)) && text[length] != 0) {
        ++length;
    }
    return length;
}

// Pads a text of `length` characters to the width, on the left unless '-' was given.
template <typename Emit> void PutPadded(Sink &sink, const Spec &spec, size_t length, Emit emit) {
    const size_t width = static_cast<size_t>(spec.width);
    const size_t padding = width > length ? width - length : 0;
    if (!spec.left) {
        sink.Repeat(spec.zero ? u'0' : u' ', padding);
    }
    emit();
    if (spec.left) {
        sink.Repeat(u' ', padding);
    }
}

void PutString(Sink &sink, const Spec &spec, va_list &args) {
    if (spec.size == Size::Short || spec.size == Size::Char) {
        const char *text = va_arg(args, const char *);
        if (text == nullptr) {
            text = "(null)";
        }
        const size_t length = BoundedLength(text, spec.precision);
        PutPadded(sink, spec, length, [&] {
            for (size_t i = 0; i < length; ++i) {
                sink.Put(static_cast<char16_t>(static_cast<unsigned char>(text[i])));
            }
        });
        return;
    }
    const char16_t *text = va_arg(args, const char16_t *);
    if (text == nullptr) {
        text = u"(null)";
    }
    const size_t length = BoundedLength(text, spec.precision);
    PutPadded(sink, spec, length, [&] {
        for (size_t i = 0; i < length; ++i) {
            sink.Put(text[i]);
        }
    });
}

void PutCharacter(Sink &sink, const Spec &spec, va_list &args) {
    const int value = va_arg(args, int);
    const char16_t c = spec.size == Size::Short || spec.size == Size::Char
                           ? static_cast<char16_t>(static_cast<unsigned char>(value))
                           : static_cast<char16_t>(value);
    PutPadded(sink, spec, 1, [&] { sink.Put(c); });
}

// %p as the Windows runtime prints it: the address in upper-case hex, all digits of a pointer.
void PutPointer(Sink &sink, const Spec &spec, va_list &args) {
    const auto address = reinterpret_cast<uintptr_t>(va_arg(args, void *));
    constexpr int kDigits = static_cast<int>(sizeof(void *) * 2);
    PutPadded(sink, spec, kDigits, [&] {
        for (int shift = (kDigits - 1) * 4; shift >= 0; shift -= 4) {
            sink.Put(u"0123456789ABCDEF"[(address >> shift) & 0xF]);
        }
    });
}

void PutConversion(Sink &sink, const Spec &spec, va_list &args) {
    switch (spec.conversion) {
    case u'd':
    case u'i': PutNumber(sink, NarrowSpec(spec, "ll"), SignedArgument(spec.size, args)); return;
    case u'u':
    case u'x':
    case u'X':
    case u'o': PutNumber(sink, NarrowSpec(spec, "ll"), UnsignedArgument(spec.size, args)); return;
    case u'f':
    case u'F':
    case u'e':
    case u'E':
    case u'g':
    case u'G': {
        const double value = spec.size == Size::LongDouble
                                 ? static_cast<double>(va_arg(args, long double))
                                 : va_arg(args, double);
        PutNumber(sink, NarrowSpec(spec, ""), value);
        return;
    }
    case u'c': PutCharacter(sink, spec, args); return;
    case u's': PutString(sink, spec, args); return;
    case u'p': PutPointer(sink, spec, args); return;
    default: sink.Put(spec.conversion); return; // '%' and unknown conversions print as is
    }
}

} // namespace

int FormatWideV(char16_t *buffer, size_t count, const char16_t *format, va_list args) {
    Sink sink{buffer, count};
    va_list ap;
    va_copy(ap, args);
    const char16_t *p = format;
    while (*p != 0) {
        if (*p != u'%') {
            sink.Put(*p++);
            continue;
        }
        ++p;
        Spec spec;
        ReadFlags(p, spec);
        ReadWidthAndPrecision(p, spec, ap);
        ReadSize(p, spec);
        if (*p == 0) {
            break;
        }
        spec.conversion = *p++;
        PutConversion(sink, spec, ap);
    }
    va_end(ap);
    if (sink.position < count) {
        buffer[sink.position] = 0;
        return static_cast<int>(sink.position);
    }
    return sink.position == count ? static_cast<int>(count) : -1;
}

int FormatWide(char16_t *buffer, size_t count, const char16_t *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = FormatWideV(buffer, count, format, args);
    va_end(args);
    return result;
}

} // namespace dv
