#pragma once

// What the numbers of a date mean.

#include <traiklofox/date_engine.h>

#include "locale/date_lexer.h"

namespace traiklofox::locale {

/// What has been read of a date or time.
struct tagDATERAW {
    tagAMPM pendingAmPm = tagAMPM::None;
    int slots[3] = {};
    int cursor = 0;  ///< the next free slot
    int month = 0;   ///< of a month's name
};

// Each stores the date that the numbers mean, in the locale's order if they can be one in it. False: they can be none.
bool DayOfNN(const tagDATERAW& raw, tagUDS& date, const tagDATEINFO& info);
bool DayOfNNN(const tagDATERAW& raw, tagUDS& date, const tagDATEINFO& info);
bool DayOfMN(const tagDATERAW& raw, tagUDS& date);
/// Leaves a day that the month has not to the packer.
bool DayOfMNN(const tagDATERAW& raw, tagUDS& date, const tagDATEINFO& info);

/// Makes an hour of the twelve-hour clock one of the day.
inline void AdjustTime(tagUDS& time, tagAMPM amPm) {
    if (amPm == tagAMPM::Am && time.wHour == 12) time.wHour = 0;
    if (amPm == tagAMPM::Pm && time.wHour < 12) time.wHour = static_cast<WORD>(time.wHour + 12);
}

}  // namespace traiklofox::locale
