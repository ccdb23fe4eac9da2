// The clock as the service's answers and its log show it.

#ifndef MASTER_PRESENT_TIME_H
#define MASTER_PRESENT_TIME_H

#include <string>

// The present time in UTC, ISO 8601 with milliseconds: 2026-11-20T23:34:00.123Z.
std::string present_time();

#endif
