#include "master/package_json.h"

#include "master/json_text.h"
#include "master/problem.h"

#include <jansson.h>

#include <limits>
#include <memory>

namespace {

struct JsonRelease {
    void operator()(json_t* value) const { json_decref(value); }
};
using Json = std::unique_ptr<json_t, JsonRelease>;

const json_t* object_member(const json_t* object, const char* name) {
    const json_t* member = json_object_get(object, name);
    if (!json_is_object(member))
        throw UnusableInput(std::string(name) + " must be an object");
    return member;
}

std::string text_member(const json_t* object, const char* name) {
    const json_t* member = json_object_get(object, name);
    if (!json_is_string(member))
        throw UnusableInput(std::string(name) + " must be a string");
    return {json_string_value(member), json_string_length(member)};
}

// Each of these names becomes one entry of the repository directory.
std::string file_name_member(const json_t* object, const char* name) {
    std::string text = text_member(object, name);
    if (text.empty() || text == "." || text == ".." || text.find('/') != std::string::npos)
        throw UnusableInput(std::string(name) + " must be the name of a file");
    return text;
}

PackageItem read_item(const json_t* value) {
    if (!json_is_object(value))
        throw UnusableInput("packageItems must hold objects");
    const json_t* size = json_object_get(value, "fileSize");
    if (!json_is_integer(size) || json_integer_value(size) < 0)
        throw UnusableInput("fileSize must be a number of bytes");
    return {file_name_member(value, "fileName"), json_integer_value(size)};
}

void read_items(const json_t* attributes, NewPackage& package) {
    const json_t* items = json_object_get(attributes, "packageItems");
    if (!json_is_array(items))
        throw UnusableInput("packageItems must be an array");
    package.packageItems.reserve(json_array_size(items));
    for (std::size_t i = 0; i < json_array_size(items); ++i) {
        package.packageItems.push_back(read_item(json_array_get(items, i)));
        const std::int64_t size = package.packageItems.back().fileSize;
        if (size > std::numeric_limits<std::int64_t>::max() - package.size)
            throw UnusableInput("the package is too large");
        package.size += size;
    }
}

void append_member(std::string& out, const char* name, const std::string& text) {
    out += ", \"";
    out += name;
    out += "\": ";
    append_json_string(out, text);
}

void append_item_paths(std::string& out, const Package& package, const std::string& repository) {
    out += ", \"packageItemFilePaths\": [";
    for (std::size_t i = 0; i < package.packageItemFileNames.size(); ++i) {
        if (i > 0)
            out += ", ";
        append_json_string(out, repository + "/" + package.packageItemFileNames[i]);
    }
    out += ']';
}

} // namespace

NewPackage read_new_package(const std::string& body) {
    json_error_t error;
    const Json document(json_loadb(body.data(), body.size(), 0, &error));
    if (!document)
        throw UnusableInput(std::string("the body is not JSON: ") + error.text);
    const json_t* data = object_member(document.get(), "data");
    if (text_member(data, "type") != "newPackageAttributes")
        throw UnusableInput("type must be newPackageAttributes");
    const json_t* attributes = object_member(data, "attributes");

    NewPackage package;
    package.packageFileName = file_name_member(attributes, "packageFileName");
    package.packageName = file_name_member(attributes, "packageName");
    package.os = text_member(attributes, "os");
    package.version = text_member(attributes, "version");
    package.packageType = text_member(attributes, "packageType");
    read_items(attributes, package);
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

void append_package(std::string& out, const Package& package, const std::string& repository) {
    out += R"({"type": "package", "id": ")";
    out += std::to_string(package.id);
    out += R"(", "attributes": {"packageName": )";
    append_json_string(out, package.packageName);
    append_member(out, "packageFileName", package.packageFileName);
    append_item_paths(out, package, repository);
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
