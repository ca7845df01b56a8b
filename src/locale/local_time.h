#pragma once

// Unix time and the local zone, beyond the years that a 32-bit time_t holds.

#include <traiklofox/types.h>

#include <optional>

namespace traiklofox::locale {

constexpr LONGLONG kSecondsPerDay = 86400;
constexpr LONGLONG kUnixEpochDay = 25569;  // 1970-01-01 as an OLE date value

/// What a clock of the local zone shows at a moment, as seconds since it showed 1970-01-01 00:00. Outside
/// time_t's range
/// the zone's offset is that of the range's nearer end.
LONGLONG localSecondsAt(LONGLONG unixSeconds);
/// The moment at which clocks of the local zone show that. Where they are changed there may be two such
/// moments or none:
/// then one of the two, or one that is as far off as they are changed.
LONGLONG unixSecondsAt(LONGLONG localSeconds);

/// The FILETIME of a moment; nothing before 1601 or too late for one.
std::optional<_FILETIME> fileTimeAt(LONGLONG unixSeconds);

}  // namespace traiklofox::locale
