// Any text as the web service's answer about packages: the reader that takes a list element by element comes
// to what a reading of the whole document gives, a single package is read alike in both forms, and what is
// printed has the form that other tools cut.

#include "model/QvRepoPackage.h"
#include "model/dunmarel_common.h"
#include "model/json_document.h"
#include "tests/fuzz/support/property.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <optional>
#include <sstream>
#include <tuple>

namespace {

constexpr int UNEXPECTED_RESPONSE = 9103;

auto fields_of(const QvRepoPackage& package) {
    return std::tie(package.id, package.packageName, package.packageFileName, package.packageType, package.os,
                    package.version, package.size, package.packageItemFilePaths, package.createdDateTimeUTC,
                    package.installables, package.lastModifiedDateTimeUTC, package.lastValidatedUTC);
}

bool same(const std::vector<QvRepoPackage>& a, const std::vector<QvRepoPackage>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const auto& x, const auto& y) { return fields_of(x) == fields_of(y); });
}

struct ListReading {
    int status = 0;
    std::vector<QvRepoPackage> packages;
};

std::optional<QvRepoPackage> read_object(json_t* object) {
    try {
        return QvRepoPackage(object);
    } catch (int status) {
        require(status == UNEXPECTED_RESPONSE, "a package that cannot be read is an unexpected response");
        return std::nullopt;
    }
}

ListReading read_list(const std::string& text) {
    ListReading reading;
    reading.status = QvRepoPackage::parseJSONResponsePackageArray(text, reading.packages);
    return reading;
}

// The list as the JSON library reads it in one piece.
ListReading read_whole_list(const JsonDocument& document) {
    const json_t* list = json_object_get(document.get(), "data");
    if (!json_is_array(list))
        return {UNEXPECTED_RESPONSE, {}};
    ListReading reading;
    for (std::size_t i = 0; i < json_array_size(list); ++i) {
        json_t* element = json_array_get(list, i);
        const auto package = json_is_object(element) ? read_object(element) : std::nullopt;
        if (!package)
            return {UNEXPECTED_RESPONSE, std::move(reading.packages)};
        reading.packages.push_back(*package);
    }
    return reading;
}

std::string text_at(const json_t* object, const char* name) {
    const char* text = json_string_value(json_object_get(object, name));
    require(text != nullptr, "a package that can be read has all its texts");
    return text;
}

void check_fields(const QvRepoPackage& package, const json_t* object) {
    const json_t* attributes = json_object_get(object, "attributes");
    require(package.id == text_at(object, "id"), "the ID is read from outside the attributes");
    require(package.packageName == text_at(attributes, "packageName") &&
                package.packageFileName == text_at(attributes, "packageFileName") &&
                package.packageType == text_at(attributes, "packageType") &&
                package.os == text_at(attributes, "os") && package.version == text_at(attributes, "version"),
            "the texts are those of the members");
    require(package.createdDateTimeUTC == text_at(attributes, "createdDateTimeUTC") &&
                package.lastModifiedDateTimeUTC == text_at(attributes, "lastModifiedDateTimeUTC") &&
                package.lastValidatedUTC == text_at(attributes, "lastValidatedUTC"),
            "the times are those of the members");
    const json_int_t size = json_integer_value(json_object_get(attributes, "size"));
    require(package.size == static_cast<std::uint64_t>(size), "the size is the member's");
    const json_t* paths = json_object_get(attributes, "packageItemFilePaths");
    require(package.packageItemFilePaths.size() == json_array_size(paths), "every item path is read");
    for (std::size_t i = 0; i < json_array_size(paths); ++i)
        require(package.packageItemFilePaths[i] == json_string_value(json_array_get(paths, i)),
                "the item paths keep their order");
    require(!package.installables.empty(), "a package has at least one installable");
}

std::size_t lines_of(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

void check_size_text(std::uint64_t size) {
    const std::string text = formatSize(size);
    const std::size_t point = text.find('.');
    const std::string unit = text.substr(std::min(point + 3, text.size()));
    require(point != std::string::npos && point > 0 &&
                std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(point),
                            [](unsigned char c) { return std::isdigit(c) != 0 || c == ','; }),
            "a size begins with digits and commas");
    require(unit == " B" || unit == " KB" || unit == " MB" || unit == " GB" || unit == " TB",
            "a size ends in two decimals and a unit");
}

void check_details_block(QvRepoPackage package) {
    std::ostringstream out;
    package.printPackageDetails(out);
    const std::string text = out.str();
    require(text.compare(0, 30, std::string(18, ' ') + "Package ID: ") == 0, "values stand in column 31");
    require(text.compare(30, package.id.size(), package.id) == 0, "the ID is printed as it is");
    const bool one_line_each =
        (package.id + package.packageFileName + package.formatPackageType() + package.os + package.version +
         package.createdDateTimeUTC + package.installables.front() + package.installables.back())
            .find('\n') == std::string::npos;
    if (one_line_each)
        require(lines_of(text) == 7 + package.installables.size(), "a field or an installable is one line");
    check_size_text(package.size);
}

void check_table(const std::vector<QvRepoPackage>& packages) {
    std::ostringstream out;
    QvRepoPackage::printPackageList(packages, out);
    const std::string text = out.str();
    require(text.empty() == packages.empty(), "an empty list prints nothing");
    if (packages.empty())
        return;
    const std::size_t heading = text.find('\n');
    const std::size_t rule = text.find('\n', heading + 1);
    require(rule == 2 * heading + 1, "the rule is as long as the heading");
    const std::string dashes = text.substr(heading + 1, heading);
    require(dashes.find_first_not_of("- ") == std::string::npos &&
                std::count(dashes.begin(), dashes.end(), ' ') == 4,
            "the rule has five columns");
}

// A package as an answer of its own and as the elements of a list.
void check_single_package(const std::string& text, const JsonDocument& document) {
    json_t* data = json_object_get(document.get(), "data");
    const auto expected = json_is_object(data) ? read_object(data) : std::nullopt;
    try {
        const QvRepoPackage package(text);
        require(expected && fields_of(package) == fields_of(*expected), "an answer reads as its package");
    } catch (int status) {
        require(status == UNEXPECTED_RESPONSE && !expected, "an answer that holds a package is read");
        return;
    }
    check_fields(*expected, data);
    check_details_block(*expected);
    QvRepoPackage(*expected).isBundle();
    const std::unique_ptr<char, decltype(&std::free)> object(json_dumps(data, 0), &std::free);
    require(object != nullptr, "what was read can be written");
    const ListReading list =
        read_list(std::string("{\"data\": [") + object.get() + ", " + object.get() + "]}");
    require(list.status == 0 && same(list.packages, {*expected, *expected}),
            "a list of the package twice is the package twice");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = as_text(data, size);
    const JsonDocument document = own_json(json_loads(text.c_str(), JSON_DISABLE_EOF_CHECK, nullptr));
    const ListReading list = read_list(text);
    const ListReading whole = read_whole_list(document);
    require(list.status == whole.status, "reading by elements comes to the status of reading it whole");
    require(same(list.packages, whole.packages),
            "reading by elements gives the packages of reading it whole");
    check_table(list.packages);
    for (std::size_t i = 0; i < list.packages.size() && list.status == 0; ++i)
        check_fields(list.packages[i], json_array_get(json_object_get(document.get(), "data"), i));
    check_single_package(text, document);
    return 0;
}
