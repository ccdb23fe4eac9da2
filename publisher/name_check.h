// What a publisher is warned about before a repository refuses it.

#ifndef PUBLISHER_NAME_CHECK_H
#define PUBLISHER_NAME_CHECK_H

#include <string>

// Why `name` is no name for a package file; empty when it is one.
std::string package_name_fault(const std::string& name);

#endif
