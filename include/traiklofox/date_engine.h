#pragma once

/// Dates as OLE date values: text to value and back, and values to and from calendar fields.
///
/// An OLE date value is a double: the whole days since 1899-12-30, and the time of day as the fraction (0.5 is noon).
/// Before that day the fraction still counts forward from midnight, so that it adds to the magnitude: 1899-12-29 06:00
/// is -1.25. The range is day -657434 (0100-01-01) to day 2958465 (9999-12-31).
///
/// Every function is safe from any thread. Those with a locale throw `CDateTimeException` as `getDateInfo` does for
/// one that is unknown.

#include <traiklofox/locale.h>
#include <traiklofox/strings.h>
#include <traiklofox/types.h>

/// An OLE result: 0, or a number with its highest bit set.
typedef LONG HRESULT;
typedef HRESULT SCODE;

/// An OLE date value: days since 1899-12-30, and the time of day as a fraction.
typedef double DATE;

/// The type of a variant's value, a `VT_` number.
typedef unsigned short VARTYPE;

/// It was done.
constexpr HRESULT S_OK = 0;
/// A text that is no date, or fields that are none.
constexpr HRESULT DISP_E_TYPEMISMATCH = static_cast<HRESULT>(0x80020005);
/// The number of 16-bit OLE.
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80000003);

/// Flags of the date engine: the time of day, or the day, alone.
constexpr DWORD VAR_TIMEVALUEONLY = 1;
constexpr DWORD VAR_DATEVALUEONLY = 2;

/// What a variant holds: nothing, no value, a double, a date.
constexpr VARTYPE VT_EMPTY = 0;
constexpr VARTYPE VT_NULL = 1;
constexpr VARTYPE VT_R8 = 5;
constexpr VARTYPE VT_DATE = 7;

/// A value with its type: as much of Win32's as the date engine uses, at the same places.
struct tagVARIANT {
    VARTYPE vt;       ///< one of the `VT_` values
    WORD wReserved1;  ///< not used
    WORD wReserved2;  ///< not used
    WORD wReserved3;  ///< not used
    DATE date;        ///< the value, of VT_DATE and VT_R8
};
typedef tagVARIANT VARIANT;

/// A date in calendar fields.
struct tagUDS {
    WORD wYear;          ///< 100 to 9999; below 100 a packer takes it for one of 1930 to 2029
    WORD wMonth;         ///< 1 to 12
    WORD wDayOfWeek;     ///< 0 is Sunday
    WORD wDay;           ///< 1 to 31
    WORD wHour;          ///< 0 to 23
    WORD wMinute;        ///< 0 to 59
    WORD wSecond;        ///< 0 to 59
    WORD wMilliseconds;  ///< neither read nor written by the date engine
    WORD wDayOfYear;     ///< 1 to 366; not read by the date engine
};
typedef tagUDS UDS;

/// Days before each month of a common year, and the days of the whole year.
extern TRAIKLOFOX_API const LONG _MonthDays[13];

/// Reads a date, a time of day, or both in either order, as the locale's users write them.
///
/// text    numbers and month names (whole or begun) between blanks, the locale's separators, or ",", "/", "-" for a
///         date and ":", "." for a time; a time may end in the locale's designators, "am", "pm", "a" or "p".
/// flags   VAR_TIMEVALUEONLY gives the time of day alone, VAR_DATEVALUEONLY the day alone.
/// Returns S_OK and stores the value; a date that was not written is 1899-12-30, a year the current one, a day the
/// first, a time midnight. Returns DISP_E_TYPEMISMATCH, `*value` untouched, for a null text and for any that it cannot
/// read: a word that is no month, names of weekdays included, a second date or time, a day or time that there is not.
/// Throws `CDateTimeException` "Locale is not properly initialized", location "CDateTime::ParseDateTime", before
/// `initLocaleInfo`.
///
/// Numbers are tried in the locale's order first, then in others: 13/1 is January 13 everywhere. Years 0 to 29 are 2000
/// to 2029, 30 to 99 are 1930 to 1999.
TRAIKLOFOX_API HRESULT sarnu_VarDateFromStr(const char* text, LCID locale, DWORD flags, double* value);

/// Renders a date as its locale does, in numbers: the date, a blank, and the time of day unless it is midnight.
///
/// flags   VAR_TIMEVALUEONLY renders the time alone, even midnight, VAR_DATEVALUEONLY the date alone; on 1899-12-30,
///         which stands for "no date", always the time alone.
/// Returns S_OK; `*text` is to be freed with `free`, and null for want of memory. A value out of range gives the empty
/// text. Years 1900 to 1999 are rendered with two digits, all others in full. Throws `CDateTimeException` "Locale is
/// not properly initialized", location "CDateTime::Format", before `initLocaleInfo`.
TRAIKLOFOX_API HRESULT sarnu_VarBstrFromDate(double value, LCID locale, DWORD flags, char** text);

/// Makes an OLE date value of calendar fields. Years below 100 are taken as `sarnu_VarDateFromStr` does.
///
/// validate  0: months beyond the year are carried into other years, and day, hour, minute and second may be anything
///           that leaves the day in range. Otherwise there must be such a day and time.
/// flags     as for `sarnu_VarDateFromStr`.
/// Returns S_OK and stores type and value, or DISP_E_TYPEMISMATCH with `*value` untouched. Month, minute and second are
/// read as signed numbers.
TRAIKLOFOX_API HRESULT ErrPackDate(const tagUDS* fields, tagVARIANT* value, int validate, DWORD flags);

/// Takes the value of a variant apart, as `VarUdateFromDate`. E_INVALIDARG unless its type is VT_DATE or VT_R8.
TRAIKLOFOX_API HRESULT ErrUnpackDate(tagUDS* fields, const tagVARIANT* value, DWORD flags);

/// Takes an OLE date value apart, rounded to the second (of 9999-12-31 cut). `flags` is not used. Returns S_OK, or
/// E_INVALIDARG with `*fields` untouched for a value out of range. Leaves `wMilliseconds` alone.
TRAIKLOFOX_API HRESULT VarUdateFromDate(double value, DWORD flags, tagUDS* fields);

/// Makes every comma a blank, unless the comma is the locale's separator of dates or of times.
TRAIKLOFOX_API void cleanDateString(LCID locale, CString& text);

/// The year of the current time in the local zone.
TRAIKLOFOX_API int GetCurrentYear();

/// Compares as many bytes as the shorter text has, without regard to the case of the process's locale: so a text equals
/// any that begins with it. Returns 1 when the first sorts first, 2 when they are equal, 3 otherwise. The locale and
/// the flags are not used.
TRAIKLOFOX_API int StringCompare(LCID locale, DWORD flags, const char* first, int firstLength,
                                 const char* second, int secondLength);

/// Reads a decimal number: blanks, an optional sign, digits, blanks; no digit at all is 0. A number beyond 32 bits
/// keeps its lowest 32. Returns S_OK, or E_INVALIDARG with `*value` untouched when anything else is left.
TRAIKLOFOX_API HRESULT IntOfString(LCID locale, const char* text, int* value);

/// The length of `prefix` when `text`, of `length` bytes, begins with it, without regard to case; 0 when it does not or
/// the prefix is empty.
TRAIKLOFOX_API int IsPrefix(const char* text, int length, const char* prefix, LCID locale);

/// Stores year, month and day, each cut to 16 bits.
TRAIKLOFOX_API void SetUDSfromYMD(tagUDS* fields, int year, int month, int day);
