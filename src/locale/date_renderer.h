#pragma once

// Dates as text.

#include <traiklofox/date_engine.h>

#include <cstddef>
#include <string_view>

namespace traiklofox::locale {

/// Text that is written into room of the caller's; what does not fit is dropped.
class TextOut {
  public:
    TextOut(char* room, size_t size) : begin_(room), next_(room), end_(room + size) {}

    void put(char character) {
        if (next_ != end_) *next_++ = character;
    }
    void put(std::string_view text) {
        for (const char character : text) put(character);
    }
    void putNumber(unsigned number) {
        if (number >= 10) putNumber(number / 10);
        put(static_cast<char>('0' + number % 10));
    }
    void putTwoDigits(unsigned number) {
        if (number < 10) put('0');
        putNumber(number);
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
std::string_view renderValue(double value, const tagDATEINFO& info, DWORD flags, TextOut& out);

}  // namespace traiklofox::locale
