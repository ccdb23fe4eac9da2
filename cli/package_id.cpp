#include "cli/package_id.h"

#include "platform/debug_log.h"

#include <cstdlib>

bool validatePackageId(const char* text, std::string& id) {
    char* end = nullptr;
    // No check for overflow: the service knows the largest number as little as the one that was typed.
    const long long value = std::strtoll(text, &end, 10);
    const bool valid = value > 0 && *end == '\0';
    if (!valid)
        logmsgf(16, "validatePackageId", "[%s] is not a valid package ID.", text);
    id = std::to_string(value);
    return valid;
}
