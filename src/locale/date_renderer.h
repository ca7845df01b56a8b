#pragma once

// Dates as text.

#include <traiklofox/date_engine.h>

#include <cstddef>
#include <cstring>
#include <string_view>

namespace traiklofox::locale {

/// Text that is written into room of the caller's; what does not fit is dropped.
class TextOut {
  public:
    TextOut(char* room, size_t size) : begin_(room), next_(room), end_(room + size) {}

    void put(char character) {
        if (next_ != end_) *next_++ = character;
    }
    void put(const char* text) {
        for (; *text != '\0'; ++text) put(*text);
    }
    void put(std::string_view text) {
        for (const char character : text) put(character);
    }
    void putNumber(unsigned number) {
        if (number < 10) return put(static_cast<char>('0' + number));
        if (number < 100) return putTwoDigits(number);
        if (number >= 1000 && number < 10000)
            return putPacked(twoDigits(number / 100) | twoDigits(number % 100) << 16, 4);
        putNumber(number / 10);
        put(static_cast<char>('0' + number % 10));
    }
    void putTwoDigits(unsigned number) {
        if (number >= 100) return putNumber(number);
        putPacked(twoDigits(number), 2);
    }
    /// The first `count` of four characters, the lowest byte first: several bytes at once, because a text
    /// of single ones
    /// waits for each of them.
    void putPacked(unsigned characters, size_t count) {
        if (end_ - next_ >= static_cast<std::ptrdiff_t>(sizeof characters)) {
            std::memcpy(next_, &characters, sizeof characters);
            next_ += count;
            return;
        }
        for (; count > 0; --count, characters >>= 8) put(static_cast<char>(characters & 0xff));
    }
    /// Two digits of a number below 100, packed.
    static constexpr unsigned twoDigits(unsigned number) {
        return (number / 10 | number % 10 << 8) + ('0' | '0' << 8);
    }

    std::string_view text() const { return {begin_, static_cast<size_t>(next_ - begin_)}; }

  private:
    char* begin_;
    char* next_;
    char* end_;
};

/// Writes the date after a picture: "/" is the date separator; "M" or "m" the month and "d" the day, one to four of
/// them the number, the number of two digits, the short name, the long name; "yyyy" the year, "yy" its last two digits
/// if it is one of 1900 to 1999; text between "'" is literal, and so is all else. A month or weekday that there is not
/// has the empty name.
void RenderDate(const tagUDS& date, const char* picture, TextOut& out, const tagDATEINFO& info);

/// Writes hour, minute and second with ":" between them, whatever the locale's separator, and the designator.
void RenderTime(const tagUDS& time, TextOut& out, const tagDATEINFO& info);

/// `sarnu_VarBstrFromDate` in a locale of these conventions; the text may be kept as long as the room.
std::string_view renderValue(const double& value, const tagDATEINFO& info, DWORD flags, TextOut& out);

}  // namespace traiklofox::locale
