// Packages as the service keeps them, and as JSON in requests and answers.

#ifndef MASTER_PACKAGE_JSON_H
#define MASTER_PACKAGE_JSON_H

#include <cstdint>
#include <string>
#include <vector>

struct PackageItem {
    std::string fileName;
    std::int64_t fileSize = 0; // bytes
};

// What a client sends to create a package.
struct NewPackage {
    std::string packageFileName;
    std::string packageName;
    std::string os;
    std::string version;
    std::string packageType;
    std::vector<PackageItem> packageItems;
    std::int64_t size = 0; // bytes, all items together
};

// A package that the service keeps; its items are read one by one, for there may be a great many.
struct Package {
    std::int64_t id = 0;
    std::string packageName;
    std::string packageFileName;
    std::string packageType;
    std::string os;
    std::string version;
    std::int64_t size = 0; // bytes
    std::string createdDateTimeUTC;
    std::string lastModifiedDateTimeUTC;
    std::string lastValidatedUTC;
};

// Reads a creation body: {"data": {"type": "newPackageAttributes", "attributes": {...}}} with all six
// attributes; members besides those are ignored, and cost no memory. Throws BadRequest for anything else,
// for a file name that is empty, "." or ".." or holds a slash, for a negative size, and for sizes that
// together exceed a signed 64-bit number.
NewPackage read_new_package(const std::string& body);

// The name of the package in the file `packageFileName`: without the prefix "dunmarel_" and the suffix ".sja".
std::string package_name(const std::string& packageFileName);

// Append the parts of a package as a JSON object: its beginning, the path of each item in the directory
// `repository` with ", " between them, and its end.
void append_package_beginning(std::string& out, const Package& package);
void append_item_path(std::string& out, const std::string& repository, const std::string& fileName);
void append_package_end(std::string& out, const Package& package);

// The body of an answer that reports an error.
std::string error_body(int errorCode, const std::string& errorMessage);

#endif
