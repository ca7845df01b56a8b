#pragma once

// Comparing the words of a date with the locale's.

#include <strings.h>

#include <cstddef>
#include <cstring>

namespace traiklofox::locale {

constexpr char asciiLower(char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
}

/// Whether the first `length` bytes are the same without regard to case. Letters of ASCII are compared here, whatever
/// the process's locale, because most words part at the first one; the rest is the C library's to compare.
inline bool equalBytes(const char* left, const char* right, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        if (left[i] == right[i]) {
            if (left[i] == '\0') return true;
        } else if (((left[i] | right[i]) & 0x80) != 0) {
            return strncasecmp(left + i, right + i, length - i) == 0;
        } else if (asciiLower(left[i]) != asciiLower(right[i])) {
            return false;
        }
    }
    return true;
}

/// False for the first bytes of two texts that `equalBytes` does not find equal, whatever the locale.
constexpr bool mayEqual(char left, char right) {
    return asciiLower(left) == asciiLower(right) || ((left | right) & 0x80) != 0;
}

/// Whether one of the texts begins with the other.
inline bool equalTexts(const char* left, const char* right) {
    const size_t leftLength = std::strlen(left);
    const size_t rightLength = std::strlen(right);
    return equalBytes(left, right, leftLength < rightLength ? leftLength : rightLength);
}

/// Whether the text has the character.
constexpr bool contains(const char* text, char character) {
    for (; *text != '\0'; ++text)
        if (*text == character) return true;
    return false;
}

}  // namespace traiklofox::locale
