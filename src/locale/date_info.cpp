// date_info.cpp: the records of all locales, made once and only read afterwards.

#include "locale/date_info.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>

#include "locale/date_lexicon.h"
#include "locale/locale_list.h"

namespace traiklofox::locale {

namespace {

struct DateRecords {
    int dateArraySize = 0;
    LCID lcids[num_default_locales] = {};  ///< of `dateArray`, together, because every look-up searches them
    tagDATEINFO dateArray[num_default_locales];
    DateLexicon lexicons[num_default_locales];
};

// Never freed: a thread may still read a record while the process exits.
constinit std::atomic<const DateRecords*> records = nullptr;

void populate(DateRecords& made) {
    for (const LocaleRow& row : DefaultLocalesArray) {
        if (!populateDateInfo(row.posixName, row.lcid, made.dateArray[made.dateArraySize])) continue;
        made.lcids[made.dateArraySize] = row.lcid;
        made.lexicons[made.dateArraySize] = made.dateArray[made.dateArraySize];
        ++made.dateArraySize;
    }
}

[[noreturn]] void throwUninitialized(const char* function) {
    throw CDateTimeException("Locale Date Time information is not initialized", function);
}

bool testClass(LCID locale, int byte, unsigned classes, const char* function) {
    if (!isInitForLocale(locale)) throwUninitialized(function);
    return hasClass(getDateInfo(locale), static_cast<char>(byte), classes);
}

}  // namespace

const DateLexicon& listedLexicon(LCID locale) {
    const DateRecords* all = records.load(std::memory_order_acquire);
    if (all == nullptr)
        throw CDateTimeException("Locale Date&Time information is not initialized", "getDateInfo");
    const LCID* end = all->lcids + all->dateArraySize;
    const LCID* found = std::find(all->lcids, end, locale);
    if (found == end)
        throw CDateTimeException("Locale Date&Time information can not be found", "getDateInfo");
    return all->lexicons[found - all->lcids];
}

void throwNotInitialized(const char* location) {
    throw CDateTimeException("Locale is not properly initialized", location);
}

}  // namespace traiklofox::locale

using namespace traiklofox::locale;

bool initLocaleInfo() {
    if (records.load(std::memory_order_acquire) != nullptr) return true;
    try {
        auto made = std::make_unique<DateRecords>();
        populate(*made);
        const DateRecords* none = nullptr;
        // Should two threads come at once, the records of the first one stay.
        if (records.compare_exchange_strong(none, made.get(), std::memory_order_acq_rel))
            (void)made.release();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

int localeInitLevel() {
    return records.load(std::memory_order_acquire) != nullptr ? 2 : 0;
}

bool isInitForLocale(LCID locale) {
    return isDefaultLocale(locale) || localeInitLevel() == 2;
}

const tagDATEINFO& getDateInfo(LCID locale) {
    return isDefaultLocale(locale) ? defDateInfo : listedLexicon(locale).info();
}

bool bIsAlnum(LCID locale, int byte) {
    return testClass(locale, byte, CHARACTER_LETTER | CHARACTER_DIGIT, "bIsAlnum");
}
bool bIsAlpha(LCID locale, int byte) {
    return testClass(locale, byte, CHARACTER_LETTER, "bIsAlpha");
}
bool bIsDigit(LCID locale, int byte) {
    return testClass(locale, byte, CHARACTER_DIGIT, "bIsDigit");
}
bool bIsSpace(LCID locale, int byte) {
    return testClass(locale, byte, CHARACTER_SPACE, "bIsSpace");
}
