#pragma once

/// Locales: the list of those that the library knows, their conventions for dates, and Win32's locale queries.
///
/// An `LCID` names a locale as on Win32. 0, 1024, 1033 and 2048 (neutral, user's default, US English, system's
/// default) always mean US English, which is built in. The others are read from the C library's locale data by
/// `initLocaleInfo`. The process's own locale (`setlocale`) is neither used nor changed.

#include <traiklofox/assertions.h>
#include <traiklofox/types.h>

/// A locale query's number.
typedef DWORD LCTYPE;

/// Other numbers of US English.
constexpr LCID LOCALE_NEUTRAL = 0;
constexpr LCID LOCALE_USER_DEFAULT = 1024;
constexpr LCID LOCALE_SYSTEM_DEFAULT = 2048;

/// Thrown by the date engine and its classes: no conventions are known for a locale, or a `CTime` cannot hold
/// a time.
class TRAIKLOFOX_API CDateTimeException : public CKZIException {
  public:
    /// Note the order. Of each text the first 80 characters are kept.
    CDateTimeException(const char* messageText, const char* location)
        : CKZIException(messageText, location) {}
};

/// A locale that the library knows.
struct LocaleRow {
    const char* displayName;  ///< in English
    const char* posixName;    ///< as `setlocale` knows it, or once did
    LCID lcid;                ///< of some only the primary language's number; look-ups are by exact number
};

/// Order of the numbers in a date.
enum : int { DATE_ORDER_MDY = 0, DATE_ORDER_DMY = 1, DATE_ORDER_YMD = 2 };

/// Classes of a byte. A byte has at most one of them, the first that holds of space, letter, digit,
/// punctuation.
enum : BYTE { CHARACTER_LETTER = 1, CHARACTER_DIGIT = 2, CHARACTER_SPACE = 4, CHARACTER_PUNCTUATION = 16 };

/// The conventions of one locale for dates and times. Texts are NUL-terminated, in the locale's own encoding,
/// and cut at a character's boundary where they are too long. What the locale does not have is empty.
struct tagDATEINFO {
    LCID lcid;                   ///< as it is listed
    int dateOrder;               ///< one of the `DATE_ORDER_` values
    char amDesignator[12];       ///< empty when shorter than 2 bytes
    char pmDesignator[12];       ///< likewise
    BOOL designatorsEqual;       ///< one of the designators begins with the other, or is empty
    char dateSeparator[8];       ///< may be more than one character: ". "
    char timeSeparator[8];       ///< likewise
    BOOL hourLeadingZero;        ///< an hour below 10 is written with two digits
    BOOL twelveHourClock;        ///< hours are written 1 to 12, with a designator
    char longMonths[12][32];     ///< in the form that stands without a day's number
    char shortMonths[12][16];    ///< without the period that some locales end them with
    BYTE shortMonthLengths[12];  ///< in bytes, that period included
    char shortDatePicture[64];   ///< a Win32 picture, or " "
    char longDays[7][32];        ///< Sunday first (in the built-in record Monday first, deliberately)
    char shortDays[7][16];       ///< likewise
    BYTE characterClasses[256];  ///< of each byte, a `CHARACTER_` value or 0
};

/// Reads the conventions of the listed locales from the C library's data (of `LOCPATH`, or of the system). Call
/// it once at start-up; calls after that do nothing. Returns false only for want of memory.
///
/// A locale that the machine does not have is left out. One is looked for under its listed name, under that name
/// with the encoding UTF-8, and, where the listed name is one that the C library never had (`en_UK`, `no_NO`,
/// `no_NO@nynorsk`), in the same way under the name it has (`en_GB`, `nb_NO`, `nn_NO`). Safe beside other threads.
TRAIKLOFOX_API bool initLocaleInfo();

/// 0 before `initLocaleInfo` has succeeded, 2 after.
TRAIKLOFOX_API int localeInitLevel();

/// Whether `getDateInfo` may be asked for the locale: true for US English's numbers, for any other once
/// `initLocaleInfo` has succeeded, even for one that it did not find.
TRAIKLOFOX_API bool isInitForLocale(LCID locale);

/// The conventions of a locale. The record lives as long as the process and never changes; any thread may read it.
/// Throws `CDateTimeException`, location "getDateInfo": "Locale Date&Time information is not initialized" before
/// `initLocaleInfo`, "Locale Date&Time information can not be found" for a number that is not listed or whose
/// locale the machine does not have.
TRAIKLOFOX_API const tagDATEINFO& getDateInfo(LCID locale);

/// Stores the list of locales, which is constant, and its length. US English is not in it.
TRAIKLOFOX_API void getLocaleList(const LocaleRow** list, int* count);

/// The listed POSIX name of a locale, to be freed with `free`; null for a number that is not listed, or for want of
/// memory.
TRAIKLOFOX_API char* snGetLocaleFromLCID(LCID locale);

/// A copy of a text, to be freed with `free`; null for a null text, or for want of memory.
TRAIKLOFOX_API char* snCopyStr(const char* text);

/// 1033, always: unlike Win32, no setting of the machine is asked.
TRAIKLOFOX_C_API LCID GetSystemDefaultLCID();
/// 1033, always.
TRAIKLOFOX_API LCID MNLS_GetUserDefaultLCID();

/// Whether a byte is a letter or digit, a letter, a digit, a blank in the locale. In a locale of encoding UTF-8 the
/// bytes from 0x80 up count as letters. Each throws `CDateTimeException` "Locale Date Time information is not
/// initialized", its own name the location, before `initLocaleInfo`, and as `getDateInfo` for an unknown number.
TRAIKLOFOX_API bool bIsAlnum(LCID locale, int byte);
TRAIKLOFOX_API bool bIsAlpha(LCID locale, int byte);
TRAIKLOFOX_API bool bIsDigit(LCID locale, int byte);
TRAIKLOFOX_API bool bIsSpace(LCID locale, int byte);

/// Answers a Win32 locale query from the C library's data.
///
/// locale     gives the answers that are the number itself, and the locale when `posixName` is null.
/// query      a `LOCALE_` value, those below; the flags `LOCALE_NOUSEROVERRIDE` and `LOCALE_USE_CP_ACP`
/// change nothing.
/// buffer     gets the NUL-terminated answer, in the locale's encoding; `size` is its length in bytes.
/// posixName  the locale, looked for as `initLocaleInfo` does.
///
/// Returns the bytes of the answer, its NUL included, or, when `size` is 0, those that it needs. Returns 0 with
/// `errno`: a query that is not known, or that the C library's data do not answer (EINVAL), no such locale (ENOENT),
/// a buffer too small, which is left alone (ERANGE), no memory (ENOMEM), a null buffer (EINVAL). Any thread may call.
///
/// Unlike Win32: there is the argument `posixName`; a number cannot be asked for in binary; in pictures all literal
/// text stands in quotes, and a month's number is "M" whether or not it has a leading zero.
TRAIKLOFOX_C_API int GetLocaleInfoA(LCID locale, LCTYPE query, char* buffer, int size, const char* posixName);

/// Turns a `strftime` format into a Win32 picture: literal text between quotes; for `LOCALE_SSHORTDATE` and
/// `LOCALE_SLONGDATE` day, month and year, for `LOCALE_STIMEFORMAT` hour, minute, second and designator. Other
/// conversions leave nothing, and any other query gives literal text alone. The picture is to be freed with
/// `free`; null
/// for a null format, or for want of memory.
TRAIKLOFOX_API char* snProcessLocaleInfo(const char* format, LCTYPE query);

/// Flags of a query, which change nothing: no user overrides anything, and answers have the locale's encoding.
constexpr LCTYPE LOCALE_NOUSEROVERRIDE = 0x80000000;
constexpr LCTYPE LOCALE_USE_CP_ACP = 0x40000000;

/// What can be asked. Numbers and flags are answered in decimal digits, as on Win32.
constexpr LCTYPE LOCALE_ILANGUAGE = 0x0001;         ///< the LCID in four hexadecimal digits
constexpr LCTYPE LOCALE_SLANGUAGE = 0x0002;         ///< language, in English
constexpr LCTYPE LOCALE_SABBREVLANGNAME = 0x0003;   ///< language in three letters
constexpr LCTYPE LOCALE_SNATIVELANGNAME = 0x0004;   ///< language, in itself
constexpr LCTYPE LOCALE_ICOUNTRY = 0x0005;          ///< telephone prefix
constexpr LCTYPE LOCALE_SCOUNTRY = 0x0006;          ///< country, in English
constexpr LCTYPE LOCALE_SABBREVCTRYNAME = 0x0007;   ///< country in three letters
constexpr LCTYPE LOCALE_SNATIVECTRYNAME = 0x0008;   ///< country, in its language
constexpr LCTYPE LOCALE_IDEFAULTLANGUAGE = 0x0009;  ///< as `LOCALE_ILANGUAGE`
constexpr LCTYPE LOCALE_IDEFAULTCOUNTRY = 0x000A;   ///< as `LOCALE_ICOUNTRY`
constexpr LCTYPE LOCALE_IDEFAULTCODEPAGE = 0x000B;  ///< Win32's number of the encoding
constexpr LCTYPE LOCALE_SLIST = 0x000C;             ///< ";" where the decimal sign is a comma, else ","
constexpr LCTYPE LOCALE_IMEASURE = 0x000D;          ///< 0 metric, 1 US
constexpr LCTYPE LOCALE_SDECIMAL = 0x000E;          ///< decimal sign
constexpr LCTYPE LOCALE_STHOUSAND = 0x000F;         ///< what stands between groups of digits
constexpr LCTYPE LOCALE_SGROUPING = 0x0010;        ///< sizes of groups, as "3;0"; 0 repeats the one before it
constexpr LCTYPE LOCALE_IDIGITS = 0x0011;          ///< digits behind the decimal sign: 2
constexpr LCTYPE LOCALE_ILZERO = 0x0012;           ///< 1: ".5" is written "0.5"
constexpr LCTYPE LOCALE_SNATIVEDIGITS = 0x0013;    ///< the digits 0 to 9
constexpr LCTYPE LOCALE_SCURRENCY = 0x0014;        ///< the currency's sign
constexpr LCTYPE LOCALE_SINTLSYMBOL = 0x0015;      ///< the currency in three letters
constexpr LCTYPE LOCALE_SMONDECIMALSEP = 0x0016;   ///< decimal sign of amounts
constexpr LCTYPE LOCALE_SMONTHOUSANDSEP = 0x0017;  ///< what stands between groups of digits of amounts
constexpr LCTYPE LOCALE_SMONGROUPING = 0x0018;     ///< as `LOCALE_SGROUPING`, of amounts
constexpr LCTYPE LOCALE_ICURRDIGITS = 0x0019;      ///< digits of amounts behind the decimal sign
constexpr LCTYPE LOCALE_IINTLCURRDIGITS = 0x001A;  ///< likewise, with the currency in three letters
constexpr LCTYPE LOCALE_ICURRENCY = 0x001B;        ///< the sign: 0 before, 1 behind; 2, 3 with a blank
constexpr LCTYPE LOCALE_INEGCURR = 0x001C;         ///< form of negative amounts, 0 to 15
constexpr LCTYPE LOCALE_SDATE = 0x001D;       ///< what stands between the first two parts of a short date
constexpr LCTYPE LOCALE_STIME = 0x001E;       ///< what stands between hour and minute
constexpr LCTYPE LOCALE_SSHORTDATE = 0x001F;  ///< picture of a short date
constexpr LCTYPE LOCALE_SLONGDATE = 0x0020;   ///< picture of a long date
constexpr LCTYPE LOCALE_IDATE = 0x0021;       ///< `DATE_ORDER_` value of short dates
constexpr LCTYPE LOCALE_ILDATE = 0x0022;      ///< likewise of long ones
constexpr LCTYPE LOCALE_ITIME = 0x0023;       ///< 0 twelve hours, 1 twenty-four
constexpr LCTYPE LOCALE_ICENTURY = 0x0024;    ///< 1: short dates have four digits of the year
constexpr LCTYPE LOCALE_ITLZERO = 0x0025;     ///< 1: an hour below 10 has a leading zero
constexpr LCTYPE LOCALE_IDAYLZERO = 0x0026;   ///< 1: a day below 10 has one in short dates
constexpr LCTYPE LOCALE_IMONLZERO = 0x0027;   ///< 1: a month below 10 has one in short dates
constexpr LCTYPE LOCALE_S1159 = 0x0028;       ///< AM designator
constexpr LCTYPE LOCALE_S2359 = 0x0029;       ///< PM designator
constexpr LCTYPE LOCALE_SDAYNAME1 = 0x002A;   ///< Monday; Sunday is 6 further
constexpr LCTYPE LOCALE_SABBREVDAYNAME1 = 0x0031;    ///< likewise
constexpr LCTYPE LOCALE_SMONTHNAME1 = 0x0038;        ///< January; December is 11 further
constexpr LCTYPE LOCALE_SABBREVMONTHNAME1 = 0x0044;  ///< likewise
constexpr LCTYPE LOCALE_SPOSITIVESIGN = 0x0050;      ///< sign of positive amounts
constexpr LCTYPE LOCALE_SNEGATIVESIGN = 0x0051;      ///< sign of negative amounts
constexpr LCTYPE LOCALE_IPOSSIGNPOSN = 0x0052;  ///< 0 parentheses; 1, 2 before, behind all; 3, 4 the currency
constexpr LCTYPE LOCALE_INEGSIGNPOSN = 0x0053;  ///< likewise of negative amounts
constexpr LCTYPE LOCALE_IPOSSYMPRECEDES = 0x0054;       ///< 1: the currency stands before a positive amount
constexpr LCTYPE LOCALE_IPOSSEPBYSPACE = 0x0055;        ///< 1: with a blank between
constexpr LCTYPE LOCALE_INEGSYMPRECEDES = 0x0056;       ///< 1: the currency stands before a negative amount
constexpr LCTYPE LOCALE_INEGSEPBYSPACE = 0x0057;        ///< 1: with a blank between
constexpr LCTYPE LOCALE_SISO639LANGNAME = 0x0059;       ///< language in two letters
constexpr LCTYPE LOCALE_SISO3166CTRYNAME = 0x005A;      ///< country in two letters
constexpr LCTYPE LOCALE_SNAME = 0x005C;                 ///< as "de-DE"
constexpr LCTYPE LOCALE_SSHORTESTDAYNAME1 = 0x0060;     ///< the abbreviated names
constexpr LCTYPE LOCALE_SISO639LANGNAME2 = 0x0067;      ///< language in three letters
constexpr LCTYPE LOCALE_SISO3166CTRYNAME2 = 0x0068;     ///< country in three letters
constexpr LCTYPE LOCALE_SENGLANGUAGE = 0x1001;          ///< language, in English
constexpr LCTYPE LOCALE_SENGCOUNTRY = 0x1002;           ///< country, in English
constexpr LCTYPE LOCALE_STIMEFORMAT = 0x1003;           ///< picture of a time
constexpr LCTYPE LOCALE_IDEFAULTANSICODEPAGE = 0x1004;  ///< Win32's number of the encoding
constexpr LCTYPE LOCALE_ITIMEMARKPOSN = 0x1005;         ///< 1: the designator stands before the hour
constexpr LCTYPE LOCALE_ICALENDARTYPE = 0x1009;         ///< 1: Gregorian
constexpr LCTYPE LOCALE_IPAPERSIZE = 0x100A;            ///< 1 letter, 9 A4
constexpr LCTYPE LOCALE_IOPTIONALCALENDAR = 0x100B;     ///< 0: none
constexpr LCTYPE LOCALE_IFIRSTDAYOFWEEK = 0x100C;       ///< 0 is Monday
constexpr LCTYPE LOCALE_IFIRSTWEEKOFYEAR =
    0x100D;                                     ///< 0 has January 1, 1 is whole, 2 has four days of the year
constexpr LCTYPE LOCALE_SMONTHNAME13 = 0x100E;  ///< empty: no listed locale has such a month
constexpr LCTYPE LOCALE_SABBREVMONTHNAME13 = 0x100F;  ///< likewise
constexpr LCTYPE LOCALE_INEGNUMBER = 0x1010;          ///< form of negative numbers, 1: "-1.1"
