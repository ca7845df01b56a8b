#pragma once

// Conventions for tests that need no locale of the machine: the built-in ones, changed.

#include <stdlib.h>
#include <traiklofox/date_engine.h>

#include <memory>
#include <string>

#include "locale/date_info.h"
#include "locale/date_renderer.h"

namespace traiklofox::test {

inline tagDATEINFO inOrder(int dateOrder) {
    tagDATEINFO info = locale::defDateInfo;
    info.dateOrder = dateOrder;
    return info;
}

/// The fields of a date, those unset that only the unpacker sets.
constexpr tagUDS uds(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    const auto word = [](int number) { return static_cast<WORD>(number); };
    return {word(year), word(month), 0, word(day), word(hour), word(minute), word(second), 0, 0};
}

inline std::string rendered(double value, const tagDATEINFO& info, DWORD flags = 0) {
    const std::unique_ptr<char, decltype(&free)> text(locale::renderValue(value, info, flags), &free);
    return text.get();
}

/// The date in a picture, in room of just the length that was counted, for a sanitizer to see beyond it.
inline std::string inPicture(const char* picture, const tagUDS& date, const tagDATEINFO& info) {
    locale::TextLength length;
    locale::RenderDate(date, picture, length, info);
    const auto room = std::make_unique<char[]>(length.length() + 1);
    locale::TextOut out(room.get());
    locale::RenderDate(date, picture, out, info);
    out.end();
    return room.get();
}

}  // namespace traiklofox::test
