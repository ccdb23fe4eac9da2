#include "platform/utc_time.h"

#include <cstdio>
#include <ctime>

std::string utc_timestamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    static_cast<void>(std::snprintf(text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1000000));
    return text;
}
