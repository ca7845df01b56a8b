// Conversions of numbers to text, letter case in place, and random numbers.

#include <traiklofox/numbers.h>

#include <cctype>
#include <charconv>
#include <cstdlib>
#include <type_traits>

#include "foundation/hooks.h"

namespace {

constexpr int kMostDigits =
    64;  // to_chars never writes more than the digits, of which the caller has room for all

template <class Number>
void writeDigits(char* buffer, Number value, int radix) {
    *std::to_chars(buffer, buffer + kMostDigits, value, radix).ptr = '\0';
}

template <class Integer>
char* toDecimalOrHex(Integer value, char* buffer, int radix) {
    if (radix != 10 && radix != 16) return nullptr;
    if (radix == 10) writeDigits(buffer, value, radix);
    if (radix == 16) writeDigits(buffer, static_cast<std::make_unsigned_t<Integer>>(value), radix);
    return buffer;
}

ULONG magnitudeOf(LONG value) {
    return value < 0 ? 0 - static_cast<ULONG>(value) : static_cast<ULONG>(value);
}

template <int (*Convert)(int)>
char* convertInPlace(char* text) {
    for (char* next = text; *next != '\0'; ++next)
        *next = static_cast<char>(Convert(static_cast<unsigned char>(*next)));
    return text;
}

}  // namespace

char* itoa(int value, char* buffer, int radix) {
    return toDecimalOrHex(value, buffer, radix);
}

char* i64toa(long long value, char* buffer, int radix) {
    return toDecimalOrHex(value, buffer, radix);
}

char* _ltoa(LONG value, char* buffer, int radix) {
    return fallback_ltoa(value, buffer, radix);
}

char* fallback_ltoa(LONG value, char* buffer, int radix) {
    buffer[0] = '\0';
    if (radix < 2 || radix > 36) return buffer;
    if (radix == 16 || radix == 8) {
        writeDigits(buffer, static_cast<ULONG>(value), radix);
    } else if (value != 0) {
        char* digits = buffer;
        if (value < 0 && radix == 10) *digits++ = '-';
        writeDigits(digits, magnitudeOf(value), radix);
    }
    return buffer;
}

char* _strlwr(char* text) {
    return convertInPlace<std::tolower>(text);
}

char* _strupr(char* text) {
    return convertInPlace<std::toupper>(text);
}

int KzRandom(int bound) {
    return rand_r(&traiklofox::foundation::threadRandomSeed()) % bound;
}
