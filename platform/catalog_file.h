// One compiled message catalog (gencat), read safely.

#ifndef PLATFORM_CATALOG_FILE_H
#define PLATFORM_CATALOG_FILE_H

#include <optional>
#include <string>

// Message `number` of set `set` of the catalog file `path`. Nothing when the file is missing, is not a catalog,
// is damaged, is over 1 MiB, or does not hold the message.
std::optional<std::string> catalog_text(const std::string& path, int number, int set = 1);

#endif
