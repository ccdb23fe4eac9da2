#include "master/package_json.h"

#include "master/bad_request.h"
#include "master/json_reader.h"
#include "master/json_text.h"

#include <limits>
#include <map>
#include <optional>
#include <utility>

namespace {

void require(bool condition, const char* subject, const char* rule) {
    if (!condition)
        throw BadRequest(std::string(subject) + " " + rule);
}

std::string required(std::optional<std::string>& text, const char* name) {
    require(text.has_value(), name, "must be a string");
    return std::move(*text);
}

// Each of these names becomes one entry of the repository directory.
std::string required_file_name(std::optional<std::string>& member, const char* name) {
    std::string text = required(member, name);
    const bool usable = !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos;
    require(usable, name, "must be the name of a file");
    return text;
}

PackageItem read_item(JsonReader& reader) {
    std::optional<std::string> fileName;
    std::optional<std::int64_t> fileSize;
    const bool found = reader.object([&](const std::string& name) {
        if (name == "fileName")
            fileName = reader.string();
        else if (name == "fileSize")
            fileSize = reader.integer();
        else
            reader.skip();
    });
    require(found, "packageItems", "must hold objects");
    require(fileSize && *fileSize >= 0, "fileSize", "must be a number of bytes");
    return {required_file_name(fileName, "fileName"), *fileSize};
}

void read_items(JsonReader& reader, NewPackage& package) {
    package.packageItems.clear();
    package.size = 0;
    const bool found = reader.array([&] {
        package.packageItems.push_back(read_item(reader));
        const std::int64_t size = package.packageItems.back().fileSize;
        require(size <= std::numeric_limits<std::int64_t>::max() - package.size, "the package",
                "is too large");
        package.size += size;
    });
    require(found, "packageItems", "must be an array");
}

void append_member(std::string& out, const char* name, const std::string& text) {
    out += ", \"";
    out += name;
    out += "\": ";
    append_json_string(out, text);
}

} // namespace

NewPackage read_new_package(const std::string& body) {
    NewPackage package;
    std::optional<std::string> type;
    std::map<std::string, std::optional<std::string>> texts = {
        {"packageFileName", {}}, {"packageName", {}}, {"os", {}}, {"version", {}}, {"packageType", {}}};
    bool data = false;
    bool attributes = false;
    bool items = false;

    JsonReader reader(body);
    const auto read_attribute = [&](const std::string& name) {
        const auto text = texts.find(name);
        if (text != texts.end()) {
            text->second = reader.string();
        } else if (name == "packageItems") {
            items = true;
            read_items(reader, package);
        } else {
            reader.skip();
        }
    };
    const auto read_data = [&](const std::string& name) {
        if (name == "type")
            type = reader.string();
        else if (name == "attributes")
            attributes = reader.object(read_attribute);
        else
            reader.skip();
    };
    reader.object([&](const std::string& name) {
        if (name == "data")
            data = reader.object(read_data);
        else
            reader.skip();
    });
    reader.finish();

    require(data, "data", "must be an object");
    require(required(type, "type") == "newPackageAttributes", "type", "must be newPackageAttributes");
    require(attributes, "attributes", "must be an object");
    package.packageFileName = required_file_name(texts["packageFileName"], "packageFileName");
    package.packageName = required_file_name(texts["packageName"], "packageName");
    package.os = required(texts["os"], "os");
    package.version = required(texts["version"], "version");
    package.packageType = required(texts["packageType"], "packageType");
    require(items, "packageItems", "must be an array");
    return package;
}

std::string package_name(const std::string& packageFileName) {
    const std::string prefix = "dunmarel_";
    const std::string ending = ".sja";
    std::string name = packageFileName;
    if (name.compare(0, prefix.size(), prefix) == 0)
        name.erase(0, prefix.size());
    if (name.size() >= ending.size() && name.compare(name.size() - ending.size(), ending.size(), ending) == 0)
        name.erase(name.size() - ending.size());
    return name;
}

void append_package_beginning(std::string& out, const Package& package) {
    out += R"({"type": "package", "id": ")";
    out += std::to_string(package.id);
    out += R"(", "attributes": {"packageName": )";
    append_json_string(out, package.packageName);
    append_member(out, "packageFileName", package.packageFileName);
    out += ", \"packageItemFilePaths\": [";
}

void append_item_path(std::string& out, const std::string& repository, const std::string& fileName) {
    append_json_string(out, repository + "/" + fileName);
}

void append_package_end(std::string& out, const Package& package) {
    out += ']';
    append_member(out, "packageType", package.packageType);
    append_member(out, "os", package.os);
    append_member(out, "version", package.version);
    out += ", \"size\": " + std::to_string(package.size);
    append_member(out, "createdDateTimeUTC", package.createdDateTimeUTC);
    append_member(out, "lastModifiedDateTimeUTC", package.lastModifiedDateTimeUTC);
    append_member(out, "lastValidatedUTC", package.lastValidatedUTC);
    out += "}}";
}

std::string error_body(int errorCode, const std::string& errorMessage) {
    std::string body = "{\"errorCode\": " + std::to_string(errorCode);
    append_member(body, "errorMessage", errorMessage);
    return body + "}";
}
