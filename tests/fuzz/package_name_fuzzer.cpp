// Any text as the name of a package file: the grammar's verdict and what it reads are those of the plain
// rules below, the publisher's warning and the repository's refusal agree with it, and what the repository
// then registers is what the web service reads.

#include "master/package_json.h"
#include "master/request_parts.h"
#include "model/QvRepoAddInfo.h"
#include "model/dunmarel_common.h"
#include "platform/bounded.h"
#include "publisher/archive.h"
#include "tests/fuzz/support/property.h"
#include "tests/fuzz/support/utf8.h"
#include "tests/support/fake_seam.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>
#include <vector>

namespace {

constexpr std::size_t NAME_FIELD = 128;
constexpr int OS_COUNT = 12;

std::vector<std::string> parts_of(const std::string& name) {
    std::vector<std::string> parts;
    std::istringstream text(name);
    for (std::string part; std::getline(text, part, '_');)
        if (!part.empty())
            parts.push_back(part);
    return parts;
}

// scanf stops being a reference where a number exceeds its integer type.
bool has_long_number(const std::string& text) {
    std::size_t digits = 0;
    for (const char c : text) {
        digits = c >= '0' && c <= '9' ? digits + 1 : 0;
        if (digits > 18)
            return true;
    }
    return false;
}

// The fields of a version, each as many decimal digits as it keeps; none where it does not begin with a number.
std::vector<unsigned> version_fields(const std::string& text) {
    std::array<unsigned, 6> n{};
    const int count = std::sscanf(text.c_str(), "%u.%u.%u.%u.%u.%u", // NOLINT(cert-err34-c): the reference
                                  &n[0], &n[1], &n[2], &n[3], &n[4], &n[5]);
    if (count < 1)
        return {};
    return {n[0] % 100, n[1] % 10, n[2] % 10, n[3] % 10, n[4] % 10, n[5] % 10};
}

bool is_eeb_version(const std::string& text) {
    return text.size() <= 12 && text.find_first_not_of("0123456789.") == std::string::npos;
}

int type_code(const std::string& key) {
    for (int type = 1; type <= PACKAGE_TYPE_COUNT; ++type)
        if (get_package_type_string(type) == key)
            return type;
    return 0;
}

int os_code(const std::string& key) {
    for (int os = 1; os <= OS_COUNT; ++os)
        if (get_package_os_string(os) == key)
            return os;
    return 0;
}

// What the rules make of a name: its parts, and the first thing that is wrong.
struct Reading {
    int error = 0;
    std::string eeb_version;
    std::string version;
    std::string type;
    std::string os;
};

Reading read_by_the_rules(const std::string& name) {
    Reading reading;
    const std::vector<std::string> parts = parts_of(name);
    if (name.empty())
        reading.error = PACKAGE_NAME_EMPTY;
    else if (parts.size() < 4)
        reading.error = PACKAGE_NAME_INCOMPLETE;
    if (reading.error != 0)
        return reading;
    const std::size_t eeb = parts.size() > 4 ? 1 : 0;
    reading.type = parts[0];
    reading.eeb_version = eeb != 0 ? parts[1] : "";
    reading.version = parts[1 + eeb];
    const std::string joined = parts[2 + eeb] + "_" + parts[3 + eeb];
    reading.os = joined.substr(0, joined.find('.'));
    const std::vector<unsigned> fields = version_fields(reading.version);
    if (type_code(reading.type) == 0)
        reading.error = PACKAGE_NAME_TYPE;
    else if (fields < std::vector<unsigned>{7, 7, 0, 0, 0, 0})
        reading.error = PACKAGE_NAME_VERSION;
    else if (!is_eeb_version(reading.eeb_version))
        reading.error = PACKAGE_NAME_EEB_VERSION;
    else if (os_code(reading.os) == 0)
        reading.error = PACKAGE_NAME_OS;
    return reading;
}

void check_details(const pkg_details& details, const Reading& reading) {
    require(details.type == type_code(reading.type), "the type is the first part");
    require(details.os == os_code(reading.os), "the operating system is the last two parts");
    require(reading.version.substr(0, 11) == details.versionText, "the version is kept as written");
    require(reading.eeb_version.substr(0, 11) == details.eebVersion, "the EEB version is kept as written");
    const std::vector<unsigned> fields = version_fields(reading.version);
    int packed = static_cast<int>(fields[0]);
    for (std::size_t i = 1; i < fields.size(); ++i)
        packed = packed * 10 + static_cast<int>(fields[i]);
    require(details.version == packed, "a packed version holds the digits of its fields");
    require(details.baseVersion == packed - packed % 1000, "a base version ends in three zeros");
}

void check_grammar(const std::string& name) {
    pkg_details details{};
    bounded_copy(details.name, sizeof details.name, name.c_str());
    const int error = extract_package_details_from_name(&details);
    const Reading reading = read_by_the_rules(name.substr(0, NAME_FIELD - 1));
    require(error == reading.error, "the verdict is that of the rules");
    if (error == 0)
        check_details(details, reading);
}

int status_of(int error) {
    switch (error) {
    case 0:
        return 0;
    case PACKAGE_NAME_TYPE:
        return 7265;
    case PACKAGE_NAME_VERSION:
        return 7264;
    case PACKAGE_NAME_OS:
        return 7266;
    case PACKAGE_NAME_EEB_VERSION:
        return 7267;
    default:
        return 7216;
    }
}

// The body that registers the package reads as what it was made of.
void check_registration(QvRepoAddInfo& info, const std::string& file_name, const Reading& reading) {
    require(info.packageFileName == file_name && info.packageName == file_name,
            "the package is registered under its file's name");
    require(info.packageType == reading.type && info.os == reading.os &&
                info.version == reading.version.substr(0, 11),
            "the package is registered with the parts of its name");
    const std::string body = info.getJSONPackageDetails();
    require(body.empty() == !is_utf8(file_name + info.version), "only text that is not UTF-8 cannot be sent");
    if (body.empty())
        return;
    const NewPackage package = read_new_package(body);
    require(package.packageFileName == file_name && package.packageName == file_name &&
                package.packageType == info.packageType && package.os == info.os &&
                package.version == info.version,
            "the service reads the package as it was sent");
    require(package.packageItems.size() == 1 && package.packageItems[0].fileName == "item.sja" &&
                package.packageItems[0].fileSize == 5 && package.size == 5,
            "the service reads the package's items as they were sent");
}

void check_repository(const std::string& file_name) {
    static const std::string prefix = "dunmarel_";
    const bool has_prefix = file_name.compare(0, prefix.size(), prefix) == 0;
    const std::string name = has_prefix ? file_name.substr(prefix.size()) : file_name;
    const Reading reading = read_by_the_rules(name.substr(0, NAME_FIELD - 1));
    const bool has_room = name.size() < NAME_FIELD;
    require(package_name_fault(file_name).empty() == (reading.error == 0 && has_room),
            "a publisher is warned about every other name");
    const std::string path = "/var/tmp/" + file_name;
    try {
        QvRepoAddInfo info(path.c_str());
        require(reading.error == 0, "a repository takes only names that the rules accept");
        check_registration(info, file_name, reading);
    } catch (int status) {
        require(status != 0 && status == status_of(reading.error), "a refusal says what is wrong");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name = up_to_nul(as_text(data, size));
    if (has_long_number(name))
        return -1;
    check_grammar(name);
    if (name.empty() || name.find('/') != std::string::npos)
        return 0;
    seam().calls.clear();
    seam().readSjaContents = [](const char*, std::vector<QvRepoPackageItem>& items) {
        items = {{"item.sja", 5}};
        return 0;
    };
    check_repository(name);
    return 0;
}
