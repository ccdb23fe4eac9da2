// The time of day as logs show it.

#ifndef PLATFORM_UTC_TIME_H
#define PLATFORM_UTC_TIME_H

#include <string>

// The present time in UTC, ISO 8601 with milliseconds: 2026-11-20T23:34:00.123Z. Its first ten characters are
// the date.
std::string utc_timestamp();

#endif
