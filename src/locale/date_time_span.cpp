// date_time_span.cpp: CDateTimeSpan.

#include <traiklofox/date_time.h>

#include <cmath>

#include "locale/formatting.h"

using namespace traiklofox::locale;

namespace {

constexpr double kMostDays = 3615897;

/// The length in whole seconds.
LONGLONG secondsOf(const CDateTimeSpan& span) {
    return std::llround(span.GetTotalSeconds());
}

}  // namespace

CDateTimeSpan& CDateTimeSpan::operator=(double days) {
    m_status = days >= -kMostDays && days <= kMostDays ? valid : invalid;
    m_span = m_status == valid ? days : 0;
    return *this;
}

void CDateTimeSpan::SetDateTimeSpan(LONG days, int hours, int minutes, int seconds) {
    const LONGLONG sum = ((LONGLONG{days} * 24 + hours) * 60 + minutes) * 60 + seconds;
    *this = static_cast<double>(sum) / 86400;
}

LONG CDateTimeSpan::GetDays() const {
    return static_cast<LONG>(secondsOf(*this) / 86400);
}
LONG CDateTimeSpan::GetHours() const {
    return static_cast<LONG>(secondsOf(*this) / 3600 % 24);
}
LONG CDateTimeSpan::GetMinutes() const {
    return static_cast<LONG>(secondsOf(*this) / 60 % 60);
}
LONG CDateTimeSpan::GetSeconds() const {
    return static_cast<LONG>(secondsOf(*this) % 60);
}

CString CDateTimeSpan::Format(const char* format) const {
    if (m_status == null) return {};
    if (m_status != valid) return "Invalid DateTimeSpan";
    return formatSpan(format, secondsOf(*this));
}

CDateTimeSpan CDateTimeSpan::operator+(const CDateTimeSpan& other) const {
    CDateTimeSpan sum;
    if (m_status == null || other.m_status == null)
        sum.m_status = null;
    else if (!bothValid(other))
        sum.m_status = invalid;
    else
        sum = m_span + other.m_span;
    return sum;
}

CDateTimeSpan CDateTimeSpan::operator-() const {
    CDateTimeSpan negated = *this;
    negated.m_span = -m_span;
    return negated;
}
