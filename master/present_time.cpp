#include "master/present_time.h"

#include <array>
#include <cstdio>
#include <ctime>

std::string present_time() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::array<char, 32> seconds{};
    // The buffers hold any year that a clock can show.
    static_cast<void>(std::strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &utc));
    std::array<char, 48> text{};
    static_cast<void>(
        std::snprintf(text.data(), text.size(), "%s.%03ldZ", seconds.data(), now.tv_nsec / 1000000));
    return text.data();
}
