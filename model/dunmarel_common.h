// What package files are called, and how sizes are written. Shared with the product's other tools, so plain
// functions over a plain record.
//
// A package file's name, without the "dunmarel_" prefix, is TYPE_VERSION_OS or TYPE_EEBVERSION_VERSION_OS,
// the operating system being two "_"-separated parts: qvclient_8.3.0.1_redhat_x64.sja.

#ifndef MODEL_DUNMAREL_COMMON_H
#define MODEL_DUNMAREL_COMMON_H

#include <cstdint>
#include <string>

// The parts of a package file name. The caller zero-fills the record and sets `name`.
struct pkg_details {
    char eebVersion[12];      // of a name of five parts, else empty
    char name[128];           // the file name without its prefix
    std::int32_t version;     // packed, see str_to_version
    std::int32_t baseVersion; // the version with its last three digits cleared
    std::int32_t type;        // code, see get_package_type_string
    std::int32_t os;          // code, see get_package_os_string
    char versionText[12];     // the version as written
};

// What extract_package_details_from_name finds wrong.
enum PackageNameError {
    PACKAGE_NAME_EMPTY = 1,
    PACKAGE_NAME_INCOMPLETE = 101,
    PACKAGE_NAME_TYPE = 102,
    PACKAGE_NAME_VERSION = 103,
    PACKAGE_NAME_OS = 104,
    PACKAGE_NAME_EEB_VERSION = 105,
    PACKAGE_NAME_NO_NUMBER = 107 // str_to_version only
};

// Parses `details->name` and fills the other members. Returns 0 or the first PackageNameError; the members
// that were filled before it then keep their values.
int extract_package_details_from_name(pkg_details* details);

// The key of a package type code (1 to PACKAGE_TYPE_COUNT); "INVALID" for any other.
std::string get_package_type_string(int type);
inline constexpr int PACKAGE_TYPE_COUNT = 18;

// The name of an operating-system code, as the platform calls it; "INVALID" for an unknown one.
std::string get_package_os_string(int os);

// Packs up to six dot-separated numbers into one: two decimal digits of the first, one of each other, so that
// "8.3.0.1" becomes 830100. Returns 107 when `text` does not begin with a number, which is the packed form of
// "0.0.0.1.0.7" as well: callers compare against a lowest version far above both.
int str_to_version(const char* text);

// A byte count as an administrator reads it: two decimals, the unit from B to TB, commas between thousands
// ("1,023.00 B", "3.18 GB").
std::string formatSize(const unsigned long long& bytes);

#endif
