#pragma once

// Where a date is rendered to. It is rendered twice, to `TextLength` and then to `TextOut`: copying a text that was
// written a few bytes at a time takes longer than counting them, because a wide load waits for all the narrow stores
// that it spans.

#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace traiklofox::locale {

constexpr unsigned digitsOf(unsigned number) {
    if (number < 10000) return 1 + (number >= 10) + (number >= 100) + (number >= 1000);
    return 4 + digitsOf(number / 10000);
}

/// The numbers below 100 in two digits, the first one in the low byte.
inline constexpr auto kTwoDigits = [] {
    std::array<unsigned short, 100> digits{};
    for (unsigned number = 0; number < 100; ++number)
        digits[number] = static_cast<unsigned short>(('0' + number / 10) | ('0' + number % 10) << 8);
    return digits;
}();

/// A number below 100 in one digit, behind which a NUL is put, or two.
struct ShortNumber {
    explicit ShortNumber(unsigned number)
        : length(1 + (number >= 10)),
          digits(static_cast<unsigned short>(kTwoDigits[number] >> (16 - 8 * length))) {}
    size_t length;
    unsigned short digits;
};

/// A year from 100 to 9999: of 1900 to 1999 the last two digits, of any other all.
struct YearDigits {
    explicit YearDigits(unsigned year) {
        const unsigned century = year / 100;
        const unsigned last = kTwoDigits[year - 100 * century];
        if (century == 19) {
            length = 2;
            digits = last;
        } else {
            const unsigned isShort = year < 1000;
            length = 4 - isShort;
            digits = (kTwoDigits[century] | last << 16) >> (8 * isShort);
        }
    }
    size_t length;
    unsigned digits;
};

/// Counts the bytes that a `TextOut` would write.
class TextLength {
  public:
    void put(char) { ++length_; }
    void put(const char* text) {
        for (; *text != '\0'; ++text) ++length_;
    }
    void put(const char*, size_t length) { length_ += length; }
    void putNumber(unsigned number) { length_ += number < 100 ? 1 + (number >= 10) : digitsOf(number); }
    void putTwoDigits(unsigned number) { length_ += number < 100 ? 2 : digitsOf(number); }
    void putColonAndTwoDigits(unsigned number) { length_ += number < 100 ? 3 : 1 + digitsOf(number); }

    size_t length() const { return length_; }

  private:
    size_t length_ = 0;
};

/// Writes where there is room for the text and a NUL. It ends each number in a NUL if that saves a branch.
class TextOut {
  public:
    explicit TextOut(char* room) : next_(room) {}

    void put(char character) { *next_++ = character; }
    void put(const char* text) {
        for (; *text != '\0'; ++text) put(*text);
    }
    void put(const char* text, size_t length) {
        std::memcpy(next_, text, length);
        next_ += length;
    }
    void putNumber(unsigned number) {
        if (number >= 100) return putLongNumber(number);
        put(ShortNumber(number));
    }
    void put(const ShortNumber& number) { putPacked(number.digits, number.length); }
    void put(const YearDigits& year) {
        if (year.length > 2) return putPacked(year.digits, year.length);
        putPacked(static_cast<unsigned short>(year.digits), 2);
    }
    void putTwoDigits(unsigned number) {
        if (number >= 100) return putLongNumber(number);
        putPacked(kTwoDigits[number], 2);
    }
    void putColonAndTwoDigits(unsigned number) {
        if (number < 100) return putPacked(':' | static_cast<unsigned>(kTwoDigits[number]) << 8, 3);
        put(':');
        putLongNumber(number);
    }

    /// Ends the text.
    void end() { *next_ = '\0'; }

  private:
    /// The first `count` of the packed characters, the lowest byte first, and at most one NUL that follows them.
    template <class Packed>
    void putPacked(Packed characters, size_t count) {
        std::memcpy(next_, &characters, sizeof characters);
        next_ += count;
    }
    /// A number from 100, which in a date is one of four digits, a year.
    void putLongNumber(unsigned number) {
        if (number >= 1000 && number < 10000)
            return putPacked(kTwoDigits[number / 100] | static_cast<unsigned>(kTwoDigits[number % 100]) << 16,
                             4);
        char digits[10];
        char* first = std::end(digits);
        for (; number > 0; number /= 10) *--first = static_cast<char>('0' + number % 10);
        put(first, static_cast<size_t>(std::end(digits) - first));
    }

    char* next_;
};

}  // namespace traiklofox::locale
