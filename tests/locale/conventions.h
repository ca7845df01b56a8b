#pragma once

// Conventions for tests that need no locale of the machine: the built-in ones, changed.

#include <traiklofox/date_engine.h>

#include "locale/date_info.h"

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

}  // namespace traiklofox::test
