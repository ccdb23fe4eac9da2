// What a publisher is warned about before a repository refuses it.

#ifndef PUBLISHER_NAME_CHECK_H
#define PUBLISHER_NAME_CHECK_H

#include "publisher/archive_table.h"

#include <string>
#include <vector>

// Why `name` is no name for a package file; empty when it is one.
std::string package_name_fault(const std::string& name);

// One line for each reason for which a repository will not take the archive at `path`, or not as it is meant:
// a name that is no package's, its own or an envelope's entry's, and more entries than it lists.
std::vector<std::string> warnings_about(const std::string& path, const std::vector<ArchiveEntry>& entries);

#endif
