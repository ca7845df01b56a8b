// date_parser.cpp: the table that says which sequences of words are a date or a time.

#include "locale/date_parser.h"

#include "locale/calendar.h"
#include "locale/date_lexer.h"
#include "locale/date_rules.h"

namespace traiklofox::locale {

namespace {

// What has been read since the start, or since the last date or time.
enum State : int {
    Start = 0,
    NumberBlank = 1,
    TwoNumbersBlank = 2,
    NumberSep = 3,
    TwoNumbersSepBlank = 4,
    TwoNumbersSep = 5,
    Month = 6,
    MonthNumber = 7,
    MonthNumberSep = 8,
    Hour = 9,
    HourMinute = 10,
};

// What is done at the end of a date or time; the next state is then the start.
enum Action : int {
    Fail = 11,
    DateOfTwo = 12,
    DateOfThree = 13,
    DateOfMonthAndOne = 14,
    DateOfMonthAndTwo = 15,
    TimeOfHour = 16,
    TimeOfTwo = 17,
    TimeOfThree = 18,
};

constexpr int kStates = 11;
constexpr int kFinish = 0;  // the start at the end of the text: taken before the table is asked

// clang-format off
constexpr unsigned char kNext[kStates][kTokenKinds] = {
    //                                            End     Number                      Month name
    //                                                    end am/pm blank date time   end blank date
    /*  0 start                              */ { kFinish, 11,  16,   1,   3,   9,    11,   6,   6 },
    /*  1 number, blank                      */ { 11,      12,  11,   2,   5,  11,     7,   7,   8 },
    /*  2 two numbers, blank                 */ { 12,      13,  16,  13,  11,   9,    15,  15,  11 },
    /*  3 number, date separator             */ { 11,      12,  11,   4,   5,  11,     7,   7,   8 },
    /*  4 number, separator, number, blank   */ { 12,      13,  16,  13,  11,   9,    15,  15,  11 },
    /*  5 two numbers, date separator        */ { 11,      13,  11,  13,  11,  11,    15,  15,  11 },
    /*  6 month name                         */ { 11,       7,  11,   7,   8,  11,    11,  11,  11 },
    /*  7 month name and one number          */ { 14,      15,  16,  15,  11,   9,    11,  11,  11 },
    /*  8 month name, number, date separator */ { 11,      15,  11,  15,  11,  11,    11,  11,  11 },
    /*  9 hour, time separator               */ { 11,      17,  17,  17,  11,  10,    11,  11,  11 },
    /* 10 hour, minute, time separator       */ { 11,      18,  18,  18,  11,  11,    11,  11,  11 },
};
// clang-format on

constexpr LCID kHungarian = 1038;
constexpr WORD kUnset = 65535;

class Parser {
  public:
    explicit Parser(const DateLexicon& lexicon) : lexicon_(lexicon), info_(lexicon.info()) {}

    /// Reads the whole text. False: it is no date and no time.
    bool read(const char* text) {
        int state = Start;
        for (;;) {
            tagDATETOK token = ddlex(text, lexicon_);
            if (token.kind == TokenKind::Unknown) return false;
            if (state == Start) {
                if (token.kind == TokenKind::End) return finish();
                raw_.cursor = 0;
            }
            record(token);
            if (!closeDateBeforeTime(state, token)) return false;
            // A Hungarian date may end in its separator.
            if (state == TwoNumbersSep && info_.lcid == kHungarian && token.kind == TokenKind::NumberDate)
                token.kind = TokenKind::NumberBlanks;
            state = kNext[state][static_cast<int>(token.kind)];
            if (state < kStates) continue;
            if (!act(state)) return false;
            state = Start;
        }
    }

    const tagUDS& fields() const { return fields_; }

  private:
    void store(const tagDATETOK& token) {
        if (token.kind == TokenKind::NumberAmPm) raw_.pendingAmPm = token.amPm;
        raw_.slots[raw_.cursor++] = token.value;
    }

    void record(const tagDATETOK& token) {
        switch (token.kind) {
            case TokenKind::NumberEnd:
            case TokenKind::NumberAmPm:
            case TokenKind::NumberBlanks:
            case TokenKind::NumberDate:
            case TokenKind::NumberTime: store(token); break;
            case TokenKind::MonthEnd:
            case TokenKind::MonthBlanks:
            case TokenKind::MonthDate: raw_.month = token.value; break;
            case TokenKind::End:
            case TokenKind::Unknown: break;
        }
    }

    /// A date without a year may be followed by a time: then its last number is the hour, not the year.
    bool closeDateBeforeTime(int state, const tagDATETOK& token) {
        if (token.kind != TokenKind::NumberAmPm && token.kind != TokenKind::NumberTime) return true;
        if (state == TwoNumbersBlank || state == TwoNumbersSepBlank) {
            if (!takeDate(DayOfNN(raw_, fields_, info_))) return false;
        } else if (state == MonthNumber) {
            if (!takeDate(DayOfMN(raw_, fields_))) return false;
        } else {
            return true;
        }
        raw_.pendingAmPm = token.amPm;
        raw_.cursor = 0;
        raw_.slots[raw_.cursor++] = token.value;
        return true;
    }

    bool act(int action) {
        const int first = raw_.slots[0];
        const int second = raw_.slots[1];
        const int third = raw_.slots[2];
        switch (action) {
            case DateOfTwo: return takeDate(DayOfNN(raw_, fields_, info_));
            case DateOfThree: return takeDate(DayOfNNN(raw_, fields_, info_));
            case DateOfMonthAndOne: return takeDate(DayOfMN(raw_, fields_));
            case DateOfMonthAndTwo: return takeDate(DayOfMNN(raw_, fields_, info_));
            case TimeOfHour: return raw_.pendingAmPm != tagAMPM::None && takeTime(first, 0, 0);
            case TimeOfTwo: return takeTime(first, second, 0);
            case TimeOfThree: return takeTime(first, second, third);
            default: return false;
        }
    }

    bool takeDate(bool isDate) {
        if (!isDate || dateSet_) return false;
        dateSet_ = true;
        return true;
    }

    bool takeTime(int hour, int minute, int second) {
        if (timeSet_) return false;
        timeSet_ = true;
        fields_.wHour = static_cast<WORD>(hour);
        fields_.wMinute = static_cast<WORD>(minute);
        fields_.wSecond = static_cast<WORD>(second);
        AdjustTime(fields_, raw_.pendingAmPm);
        raw_.pendingAmPm = tagAMPM::None;
        return true;
    }

    bool finish() {
        if (!dateSet_ && !timeSet_) return false;
        if (!dateSet_) storeDate(fields_, 1899, 12, 30);
        if (timeSet_)
            AdjustTime(fields_, raw_.pendingAmPm);
        else
            fields_.wHour = fields_.wMinute = fields_.wSecond = 0;
        return true;
    }

    const DateLexicon& lexicon_;
    const tagDATEINFO& info_;
    tagDATERAW raw_;
    tagUDS fields_{kUnset, kUnset, 0, kUnset, kUnset, kUnset, kUnset, 0, 0};
    bool dateSet_ = false;
    bool timeSet_ = false;
};

}  // namespace

HRESULT parseDate(const char* text, const DateLexicon& lexicon, DWORD flags, double* value) {
    if (text == nullptr) return DISP_E_TYPEMISMATCH;
    Parser parser(lexicon);
    if (!parser.read(text)) return DISP_E_TYPEMISMATCH;
    tagVARIANT packed{};
    if (ErrPackDate(&parser.fields(), &packed, /*validate=*/1, flags) != S_OK) return DISP_E_TYPEMISMATCH;
    *value = packed.date;
    return S_OK;
}

}  // namespace traiklofox::locale

HRESULT sarnu_VarDateFromStr(const char* text, LCID locale, DWORD flags, double* value) {
    return traiklofox::locale::parseDate(
        text, traiklofox::locale::lexiconFor(locale, "CDateTime::ParseDateTime"), flags, value);
}
