#pragma once

/// Dates and times: locales, the date engine, and the classes over it.

#include <traiklofox/c_time.h>
#include <traiklofox/date_engine.h>
#include <traiklofox/date_time.h>
#include <traiklofox/locale.h>
