#include "model/dunmarel_common.h"

#include "platform/bounded.h"
#include "platform/os_names.h"

#include <array>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace {

constexpr const char* MIN_VERSION = "7.7";
constexpr std::size_t MAX_EEB_VERSION = 12;

// Index 0 is type code 1.
constexpr std::array<const char*, PACKAGE_TYPE_COUNT> PACKAGE_TYPE_KEYS = {"qvclient",
                                                                           "qvserver",
                                                                           "qvinstallagent",
                                                                           "qvprechecker",
                                                                           "qvjavajre",
                                                                           "qv",
                                                                           "qveeb.client",
                                                                           "qveeb.server",
                                                                           "maint.qv",
                                                                           "maint.qvclient",
                                                                           "maint.qvserver",
                                                                           "maint.qvinstallagent",
                                                                           "maint.qvprechecker",
                                                                           "maint.qvjavajre",
                                                                           "maint.qvrt",
                                                                           "qveeb",
                                                                           "qvrt",
                                                                           "mongotc"};

// How many decimal digits each number of a version keeps, and what its last digit is worth in the packed
// form.
struct VersionDigit {
    unsigned modulus;
    int weight;
};
constexpr std::array<VersionDigit, 6> VERSION_DIGITS = {
    {{100, 100000}, {10, 10000}, {10, 1000}, {10, 100}, {10, 10}, {10, 1}}};

using NameTokens = std::array<const char*, 5>;

// Splits `name` in place; tokens that are not there are null, a sixth and further ones are not looked at.
NameTokens split_name(char* name) {
    NameTokens tokens{};
    char* rest = nullptr;
    for (const char*& token : tokens) {
        token = strtok_r(name, "_", &rest);
        if (token == nullptr)
            break;
        name = nullptr;
    }
    return tokens;
}

int find_type(const char* key) {
    for (int type = 1; type <= PACKAGE_TYPE_COUNT; ++type)
        if (std::strcmp(key, PACKAGE_TYPE_KEYS[static_cast<std::size_t>(type - 1)]) == 0)
            return type;
    return 0;
}

int find_os(const std::string& key) {
    for (int os = 1; os <= QV_os_count(); ++os)
        if (key == QV_os_name(os))
            return os;
    return 0;
}

// Joins the two parts of an operating system; the cut at the first "." removes the file's extension.
std::string join_os(const char* first, const char* second) {
    const std::string joined = std::string(first) + "_" + second;
    return joined.substr(0, joined.find('.'));
}

bool is_eeb_version(const char* text) {
    return std::strlen(text) <= MAX_EEB_VERSION && text[std::strspn(text, "0123456789.")] == '\0';
}

// Packed versions hold one decimal digit per number, major first, so comparing them as numbers compares
// number by number.
bool is_supported_version(int packed) {
    return packed >= str_to_version(MIN_VERSION);
}

} // namespace

std::string get_package_type_string(int type) {
    if (type < 1 || type > PACKAGE_TYPE_COUNT)
        return "INVALID";
    return PACKAGE_TYPE_KEYS[static_cast<std::size_t>(type - 1)];
}

std::string get_package_os_string(int os) {
    return QV_os_name(os);
}

int str_to_version(const char* text) {
    std::array<unsigned, VERSION_DIGITS.size()> numbers{};
    if (bounded_scan_version(text, numbers.data(), static_cast<int>(numbers.size())) == 0)
        return PACKAGE_NAME_NO_NUMBER;
    int packed = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i)
        packed += static_cast<int>(numbers[i] % VERSION_DIGITS[i].modulus) * VERSION_DIGITS[i].weight;
    return packed;
}

int extract_package_details_from_name(pkg_details* details) {
    if (details == nullptr || details->name[0] == '\0')
        return PACKAGE_NAME_EMPTY;

    char name[sizeof details->name];
    std::memcpy(name, details->name, sizeof name);
    name[sizeof name - 1] = '\0';
    const NameTokens tokens = split_name(name);
    if (tokens[3] == nullptr)
        return PACKAGE_NAME_INCOMPLETE;

    const bool has_eeb_version = tokens[4] != nullptr;
    const char* eeb_version = has_eeb_version ? tokens[1] : "";
    const char* version = has_eeb_version ? tokens[2] : tokens[1];
    const std::string os = has_eeb_version ? join_os(tokens[3], tokens[4]) : join_os(tokens[2], tokens[3]);

    details->type = find_type(tokens[0]);
    if (details->type == 0)
        return PACKAGE_NAME_TYPE;

    const int packed = str_to_version(version);
    if (!is_supported_version(packed))
        return PACKAGE_NAME_VERSION;
    details->version = packed;
    details->baseVersion = packed / 1000 * 1000;
    bounded_copy(details->versionText, sizeof details->versionText, version);

    if (!is_eeb_version(eeb_version))
        return PACKAGE_NAME_EEB_VERSION;
    bounded_copy(details->eebVersion, sizeof details->eebVersion, eeb_version);

    details->os = find_os(os);
    return details->os == 0 ? PACKAGE_NAME_OS : 0;
}

std::string formatSize(const unsigned long long& bytes) {
    static constexpr std::array<const char*, 5> UNITS = {"B", "KB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < UNITS.size()) {
        value *= 0.0009765625;
        ++unit;
    }
    std::ostringstream text;
    text << std::setprecision(2) << std::fixed << value << " " << UNITS[unit];

    // The commas follow the truncated number, not the rounded one: 999.996 KB is written 1000.00 KB.
    std::string result = text.str();
    const std::size_t digits = std::to_string(static_cast<std::int32_t>(value)).length();
    for (std::size_t position = digits; position > 3;) {
        position -= 3;
        result.insert(position, ",");
    }
    return result;
}
