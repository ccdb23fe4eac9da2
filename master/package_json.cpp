#include "master/package_json.h"

#include "master/json_text.h"
#include "master/request_parts.h"

#include <nlohmann/json.hpp>

#include <limits>
#include <map>
#include <string_view>
#include <variant>

namespace {

constexpr std::size_t MAX_DEPTH = 2048;

// The paths of the values that are read from the body of a creation; [] stands for any element of an array.
constexpr std::string_view DATA = "/data";
constexpr std::string_view TYPE = "/data/type";
constexpr std::string_view ATTRIBUTES = "/data/attributes";
constexpr std::string_view PACKAGE_FILE_NAME = "/data/attributes/packageFileName";
constexpr std::string_view PACKAGE_NAME = "/data/attributes/packageName";
constexpr std::string_view OS = "/data/attributes/os";
constexpr std::string_view VERSION = "/data/attributes/version";
constexpr std::string_view PACKAGE_TYPE = "/data/attributes/packageType";
constexpr std::string_view ITEMS = "/data/attributes/packageItems";
constexpr std::string_view ITEM = "/data/attributes/packageItems/[]";
constexpr std::string_view FILE_NAME = "/data/attributes/packageItems/[]/fileName";
constexpr std::string_view FILE_SIZE = "/data/attributes/packageItems/[]/fileSize";

struct Object {};
struct Array {};
using Value = std::variant<std::monostate, std::string, std::int64_t, Object, Array>;

void require(bool condition, std::string_view subject, const char* rule) {
    if (!condition)
        throw BadRequest(std::string(subject) + " " + rule);
}

[[noreturn]] void refuse(const std::string& reason) {
    throw BadRequest("the body is not JSON: " + reason);
}

// Keeps only the values that are read: a tree of the whole body costs up to eighty times its size ("{}," over and
// over).
class CreationHandler {
  public:
    NewPackage finish();

    // Called by the parser; all return true, for it to continue.
    bool null() { return take({}); }
    bool boolean(bool) { return take({}); }
    bool number_integer(std::int64_t number) { return take(number); }
    bool number_unsigned(std::uint64_t number);
    bool number_float(double, const std::string& text);
    bool string(std::string& text) { return take(checked(text)); }
    bool binary(nlohmann::json::binary_t&) { return take({}); }
    bool start_object(std::size_t) { return open(Object()); }
    bool key(std::string& name);
    bool end_object();
    bool start_array(std::size_t);
    bool end_array() { return close(); }
    static bool parse_error(std::size_t position, const std::string&, const nlohmann::json::exception&) {
        refuse("error at byte " + std::to_string(position));
    }

  private:
    static std::string& checked(std::string& text);
    bool open(Value value);
    bool close();
    bool take(Value value);
    std::string text(std::string_view path) const;
    std::string file_name(std::string_view path) const;

    std::string path_;                 // of the current value
    std::vector<std::size_t> parents_; // the lengths of the paths of the objects and arrays around it
    std::map<std::string_view, Value> values_ = {
        {DATA, {}},         {TYPE, {}},      {ATTRIBUTES, {}}, {PACKAGE_FILE_NAME, {}},
        {PACKAGE_NAME, {}}, {OS, {}},        {VERSION, {}},    {PACKAGE_TYPE, {}},
        {ITEMS, {}},        {FILE_NAME, {}}, {FILE_SIZE, {}}};
    NewPackage package_;
};

// The parser accepts an escaped NUL.
std::string& CreationHandler::checked(std::string& text) {
    if (text.find('\0') != std::string::npos)
        refuse("NUL in a string");
    return text;
}

bool CreationHandler::number_unsigned(std::uint64_t number) {
    if (number > INT64_MAX)
        refuse("an integer exceeds 64 bits");
    return take(static_cast<std::int64_t>(number));
}

// An integer that exceeds 64 bits comes here too.
bool CreationHandler::number_float(double, const std::string& text) {
    if (text.find_first_of(".eE") == std::string::npos)
        refuse("an integer exceeds 64 bits");
    return take({});
}

bool CreationHandler::key(std::string& name) {
    path_.resize(parents_.back());
    path_ += "/" + (checked(name).find('/') == std::string::npos ? name : "");
    return true;
}

bool CreationHandler::start_array(std::size_t) {
    open(Array());
    path_ += "/[]";
    return true;
}

bool CreationHandler::open(Value value) {
    if (parents_.size() == MAX_DEPTH)
        refuse("nested too deeply");
    take(std::move(value));
    parents_.push_back(path_.size());
    return true;
}

bool CreationHandler::close() {
    path_.resize(parents_.back());
    parents_.pop_back();
    return true;
}

bool CreationHandler::take(Value value) {
    if (path_ == ITEMS) {
        require(std::holds_alternative<Array>(value), "packageItems", "must be an array");
        package_.packageItems.clear();
        package_.size = 0;
    } else if (path_ == ITEM) {
        require(std::holds_alternative<Object>(value), "packageItems", "must hold objects");
        values_[FILE_NAME] = values_[FILE_SIZE] = Value();
    }
    if (const auto known = values_.find(path_); known != values_.end())
        known->second = std::move(value);
    return true;
}

bool CreationHandler::end_object() {
    close();
    if (path_ != ITEM)
        return true;
    const auto* const size = std::get_if<std::int64_t>(&values_[FILE_SIZE]);
    require(size != nullptr && *size >= 0, "fileSize", "must be a number of bytes");
    package_.packageItems.push_back({file_name(FILE_NAME), *size});
    require(*size <= std::numeric_limits<std::int64_t>::max() - package_.size, "the package", "is too large");
    package_.size += *size;
    return true;
}

std::string CreationHandler::text(std::string_view path) const {
    const Value& value = values_.at(path);
    require(std::holds_alternative<std::string>(value), path.substr(path.rfind('/') + 1), "must be a string");
    return std::get<std::string>(value);
}

// Each of these names becomes one entry of the repository directory.
std::string CreationHandler::file_name(std::string_view path) const {
    std::string name = text(path);
    const bool usable = !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
    require(usable, path.substr(path.rfind('/') + 1), "must be the name of a file");
    return name;
}

NewPackage CreationHandler::finish() {
    require(std::holds_alternative<Object>(values_[DATA]), "data", "must be an object");
    require(text(TYPE) == "newPackageAttributes", "type", "must be newPackageAttributes");
    require(std::holds_alternative<Object>(values_[ATTRIBUTES]), "attributes", "must be an object");
    package_.packageFileName = file_name(PACKAGE_FILE_NAME);
    package_.packageName = file_name(PACKAGE_NAME);
    package_.os = text(OS);
    package_.version = text(VERSION);
    package_.packageType = text(PACKAGE_TYPE);
    require(std::holds_alternative<Array>(values_[ITEMS]), "packageItems", "must be an array");
    return std::move(package_);
}

void append_member(std::string& out, const char* name, const std::string& text) {
    out += ", \"";
    out += name;
    out += "\": ";
    append_json_string(out, text);
}

} // namespace

NewPackage read_new_package(const std::string& body) {
    // The parser skips the mark, and ends at NUL.
    if (body.rfind("\xef\xbb\xbf", 0) == 0 || body.find('\0') != std::string::npos)
        refuse("byte order mark or NUL");
    CreationHandler handler;
    nlohmann::json::sax_parse(body, &handler);
    return handler.finish();
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
