#pragma once

/// Dates and times: locales and the date engine.

#include <traiklofox/date_engine.h>
#include <traiklofox/locale.h>
