// The bounded UTF-16 formatter behind the message log and the short texts of the protocol Parts,
// with the contract of the Windows C runtime's _vsnwprintf / _snwprintf.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace dv {

// Formats into at most `count` characters of `buffer`. Returns the number of characters written
// and NUL-terminates when the text is shorter than `count`; returns `count` without a NUL when
// the text is exactly `count` characters long; returns -1 when it is longer (the first `count`
// characters are written, no NUL).
//
// Conversions: %d %i %u %x %X %o %c %s %f %F %e %E %g %G %p %%, with the flags "-+ #0", a width
// and a precision (digits or *), and the size prefixes h, hh, l, ll, z, I64. As in the Windows
// wide printf, %s and %ls take a const char16_t* (null prints "(null)"), %hs a const char*, and
// %c a char16_t (promoted to int).
int FormatWideV(char16_t *buffer, size_t count, const char16_t *format, va_list args);
int FormatWide(char16_t *buffer, size_t count, const char16_t *format, ...);

} // namespace dv
