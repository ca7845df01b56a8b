#pragma once

// Comparing the words of a date with the locale's.

#include <strings.h>

#include <cstddef>
#include <cstring>

namespace traiklofox::locale {

/// False only for letters that differ whatever the process's locale: most words part here, without a call.
inline bool mayBeginAlike(char left, char right) {
    const auto lower = [](unsigned char letter) {
        return letter >= 'A' && letter <= 'Z' ? letter + 32 : letter;
    };
    return ((left | right) & 0x80) != 0 ||
           lower(static_cast<unsigned char>(left)) == lower(static_cast<unsigned char>(right));
}

/// Whether the first `length` bytes are the same without regard to case.
inline bool equalBytes(const char* left, const char* right, size_t length) {
    return length == 0 || (mayBeginAlike(*left, *right) && strncasecmp(left, right, length) == 0);
}

/// Whether one of the texts begins with the other.
inline bool equalTexts(const char* left, const char* right) {
    const size_t leftLength = std::strlen(left);
    const size_t rightLength = std::strlen(right);
    return equalBytes(left, right, leftLength < rightLength ? leftLength : rightLength);
}

}  // namespace traiklofox::locale
