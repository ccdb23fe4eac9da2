// The service's list of packages.

#ifndef CHECK_PACKAGE_LIST_H
#define CHECK_PACKAGE_LIST_H

#include "model/QvRepoPackage.h"

#include <string>
#include <vector>

// Asks the service at `master_server` for all packages, as "qvrepo -list" does. Returns an empty text, or why
// there is no list: the client's words, or the service's answer.
std::string request_packages(const std::string& master_server, std::vector<QvRepoPackage>& packages);

// The name of the master server, which this machine is found to be, and root the user. Throws CannotCheck.
std::string this_master_server();

// The same list. Throws CannotCheck.
std::vector<QvRepoPackage> list_packages(const std::string& master_server);

// Exact values of fields; an empty one matches every package.
struct PackageFilter {
    std::string type;
    std::string os;
    std::string version;
};

// Prints ID, file name, type, version and operating system of the packages that match all of the filter: as a
// JSON document, or a line each, its fields separated by tabs and escaped.
void print_package_list(const PackageFilter& filter, bool json);

#endif
