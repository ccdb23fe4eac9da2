// Any sequence of requests to the web service, beside a plain record of what it must hold after each: every
// answer has the right form, packages are there exactly from their creation to their deletion, filters choose
// what they say, and the command-line program's readers understand the answers.
//
// An input is requests with a line "~" between them: the line METHOD TARGET, the Accept header (an empty line
// for the usual one), and the body.

#include "cli/request.h"
#include "master/request_parts.h"
#include "master/service.h"
#include "model/QvRepoPackage.h"
#include "model/json_document.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/property.h"

#include <algorithm>
#include <map>
#include <vector>

namespace {

constexpr std::size_t MAX_REQUESTS = 12;
const std::string REPOSITORY = "/usr/ormex/var/global/repo";

using Packages = std::map<std::int64_t, NewPackage>;

std::vector<std::string> split(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t end = text.find(separator); end != std::string::npos;
         end = text.find(separator, start)) {
        parts.push_back(text.substr(start, end - start));
        start = end + separator.size();
    }
    parts.push_back(text.substr(start));
    return parts;
}

std::string take_line(std::string& text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string line = text.substr(0, end);
    text.erase(0, end + 1);
    return line;
}

ServiceRequest read_request(std::string text) {
    ServiceRequest request;
    const std::string line = take_line(text);
    const std::size_t blank = std::min(line.find(' '), line.size());
    request.method = line.substr(0, blank);
    request.target = line.substr(std::min(blank + 1, line.size()));
    request.accept = take_line(text);
    if (request.accept.empty())
        request.accept = LATEST_MEDIA_TYPE;
    request.body = text;
    return request;
}

std::optional<NewPackage> read_creation(const std::string& body) {
    try {
        return read_new_package(body);
    } catch (const BadRequest&) {
        return std::nullopt;
    }
}

std::optional<Filter> read_filter(const std::string& query) {
    try {
        return read_filter_query(query);
    } catch (const BadRequest&) {
        return std::nullopt;
    }
}

bool matches(const NewPackage& package, const Filter& filter) {
    const std::map<std::string, std::string> columns = {
        {"version", package.version}, {"os", package.os}, {"packageType", package.packageType}};
    return columns.at(filter.column) == filter.value;
}

bool share_a_name(const NewPackage& one, const NewPackage& other) {
    const auto is_in_other = [&other](const PackageItem& item) {
        return std::any_of(
            other.packageItems.begin(), other.packageItems.end(),
            [&item](const PackageItem& candidate) { return candidate.fileName == item.fileName; });
    };
    return one.packageFileName == other.packageFileName ||
           std::any_of(one.packageItems.begin(), one.packageItems.end(), is_in_other);
}

std::string body_of(Answer& answer) {
    std::string body = answer.body;
    if (answer.more)
        for (std::string part = answer.more(); !part.empty(); part = answer.more())
            body += part;
    return body;
}

JsonDocument parse(const std::string& body) {
    JsonDocument document = own_json(json_loadb(body.data(), body.size(), 0, nullptr));
    require(document != nullptr, "an answer is JSON");
    return document;
}

std::string text_member(const json_t* object, const char* name) {
    const json_t* member = json_object_get(object, name);
    require(json_is_string(member), "a package has all its texts");
    return {json_string_value(member), json_string_length(member)};
}

// The ID of the package object, which must show what its creation showed.
std::int64_t check_package(const json_t* object, const Packages& packages) {
    const auto id = read_package_id(text_member(object, "id"));
    require(id && packages.count(*id) == 1, "a package that is shown has been created and not deleted");
    const NewPackage& package = packages.at(*id);
    const json_t* attributes = json_object_get(object, "attributes");
    require(text_member(attributes, "packageFileName") == package.packageFileName &&
                text_member(attributes, "packageName") == package_name(package.packageFileName) &&
                text_member(attributes, "packageType") == package.packageType &&
                text_member(attributes, "os") == package.os &&
                text_member(attributes, "version") == package.version,
            "a package's texts are those of its creation");
    require(json_integer_value(json_object_get(attributes, "size")) == package.size,
            "a package's size is that of its items");
    const json_t* paths = json_object_get(attributes, "packageItemFilePaths");
    require(json_array_size(paths) == package.packageItems.size(), "a package has a path for each item");
    for (std::size_t i = 0; i < package.packageItems.size(); ++i)
        require(json_string_value(json_array_get(paths, i)) ==
                    REPOSITORY + "/" + package.packageItems[i].fileName,
                "an item's path is its name in the repository");
    return *id;
}

// Whether the command-line program can name what the package installs; it refuses an EEB package without a
// name.
bool is_readable(const std::string& answer) {
    try {
        const QvRepoPackage package(answer);
        return true;
    } catch (int) {
        return false;
    }
}

bool is_eeb(const NewPackage& package) {
    return package.packageType.compare(0, 5, "qveeb") == 0;
}

class Checker {
  public:
    explicit Checker(Service& service) : service_(service) {}

    void check(const ServiceRequest& request);

    const Packages& packages() const { return packages_; }

  private:
    void check_error(const ServiceRequest& request, const Answer& answer, const std::string& body) const;
    void check_list(const std::optional<std::string>& query, const std::string& body) const;
    void check_creation(const ServiceRequest& request, const Answer& answer, const std::string& body);
    void check_one(const ServiceRequest& request, const std::string& id_text, const Answer& answer,
                   const std::string& body);
    void check_resource(const ServiceRequest& request, const Answer& answer, const std::string& body);

    Service& service_;
    Packages packages_;
    std::int64_t last_id_ = 0;
};

void Checker::check(const ServiceRequest& request) {
    Answer answer = service_.answer(request);
    const std::string body = body_of(answer);
    require((answer.status == 405) == !answer.allow.empty(),
            "only a wrong method gets a list of the right ones");
    if (answer.status == 204) {
        require(body.empty(), "a deletion is answered without a body");
    } else {
        require(accepted_media_type(answer.contentType) == answer.contentType, "an answer has a type");
        parse(body);
    }
    if (answer.status >= 400)
        check_error(request, answer, body);
    if (answer.status != 406 && answer.status != 414)
        check_resource(request, answer, body);
}

void Checker::check_error(const ServiceRequest& request, const Answer& answer,
                          const std::string& body) const {
    long code = 0;
    require(parseJSONErrorResponse(body, code) == 0, "the command-line program understands every error");
    const std::map<int, std::vector<long>> codes = {{400, {20, 8626}}, {404, {227, 9103}}, {405, {9103}},
                                                    {406, {9103}},     {409, {7218}},      {414, {20}}};
    const auto known = codes.find(answer.status);
    require(known != codes.end() && std::count(known->second.begin(), known->second.end(), code) == 1,
            "an error's code matches its status");
    require((answer.status == 406) == !accepted_media_type(request.accept),
            "a type that the service does not speak is refused before all else");
    if (answer.status == 414)
        require(request.target.size() > MAX_TARGET_SIZE, "only a long target is too long");
}

void Checker::check_list(const std::optional<std::string>& query, const std::string& body) const {
    const std::optional<Filter> filter = query ? read_filter(*query) : std::nullopt;
    const JsonDocument document = parse(body);
    const json_t* list = json_object_get(document.get(), "data");
    std::vector<std::int64_t> ids;
    for (std::size_t i = 0; i < json_array_size(list); ++i)
        ids.push_back(check_package(json_array_get(list, i), packages_));
    std::vector<std::int64_t> expected;
    bool all_readable = true;
    for (const auto& [id, package] : packages_) {
        if (filter && !matches(package, *filter))
            continue;
        expected.push_back(id);
        all_readable = all_readable && !is_eeb(package);
    }
    require(ids == expected, "a list holds what its filter chooses, in order of ID");
    std::vector<QvRepoPackage> read;
    const int status = QvRepoPackage::parseJSONResponsePackageArray(body, read);
    require(!all_readable || (status == 0 && read.size() == ids.size()),
            "the command-line program understands every list");
}

void Checker::check_creation(const ServiceRequest& request, const Answer& answer, const std::string& body) {
    const std::optional<NewPackage> package = read_creation(request.body);
    require((answer.status == 400) == !package, "an unusable body is refused");
    if (!package)
        return;
    const bool taken = std::any_of(packages_.begin(), packages_.end(), [&package](const auto& other) {
        return share_a_name(other.second, *package);
    });
    require(answer.status == (taken ? 409 : 201), "the names of a package's file and items are its own");
    if (taken)
        return;
    const JsonDocument document = parse(body);
    const json_t* object = json_object_get(document.get(), "data");
    const std::int64_t id = read_package_id(text_member(object, "id")).value_or(0);
    require(id > last_id_, "IDs grow and never come back");
    last_id_ = id;
    packages_[id] = *package;
    check_package(object, packages_);
    require(is_readable(body) || is_eeb(*package), "the command-line program understands a new package");
}

void Checker::check_one(const ServiceRequest& request, const std::string& id_text, const Answer& answer,
                        const std::string& body) {
    const std::optional<std::int64_t> id = read_package_id(id_text);
    if (!id) {
        require(answer.status == 400, "an invalid ID is refused");
        return;
    }
    const bool there = packages_.count(*id) == 1;
    const int success = request.method == "GET" ? 200 : 204;
    require(answer.status == (there ? success : 404), "a package is found from its creation to its deletion");
    if (answer.status == 200)
        require(check_package(json_object_get(parse(body).get(), "data"), packages_) == *id,
                "the package that is asked for is shown");
    if (answer.status == 204)
        packages_.erase(*id);
}

void Checker::check_resource(const ServiceRequest& request, const Answer& answer, const std::string& body) {
    const Target target = read_target(request.target);
    const std::string below = std::string(PACKAGES_PATH) + "/";
    if (target.path == PACKAGES_PATH) {
        require(Service::needs_body(request) == (request.method == "POST"), "only a creation needs a body");
        if (request.method == "POST")
            check_creation(request, answer, body);
        else if (request.method != "GET")
            require(answer.status == 405, "packages are listed or created");
        else if (target.query && !read_filter(*target.query))
            require(answer.status == 400, "an invalid filter is refused");
        else
            check_list(target.query, body);
        return;
    }
    require(!Service::needs_body(request), "only a creation needs a body");
    const std::string rest =
        target.path.compare(0, below.size(), below) == 0 ? target.path.substr(below.size()) : "/";
    if (rest.find('/') != std::string::npos)
        require(answer.status == 404, "there is nothing elsewhere");
    else if (request.method != "GET" && request.method != "DELETE")
        require(answer.status == 405, "a package is shown or deleted");
    else
        check_one(request, rest, answer, body);
}

// A store that is emptied after every input, so that each begins alike.
class EmptiedStore {
  public:
    EmptiedStore() : file_(make_scratch_directory("service") + "/packages.db"), store_(file_) {}

    PackageStore& store() { return store_; }

    void empty(const Packages& packages) {
        for (const auto& package : packages)
            require(store_.remove(package.first), "a package that is there can be deleted");
        Database(file_, Database::Access::readWrite).execute("DELETE FROM sqlite_sequence");
    }

  private:
    std::string file_;
    PackageStore store_;
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static EmptiedStore emptied;
    static Service service(emptied.store(), REPOSITORY);
    const std::vector<std::string> requests = split(as_text(data, size), "\n~\n");
    if (requests.size() > MAX_REQUESTS)
        return -1;
    Checker checker(service);
    for (const std::string& request : requests)
        checker.check(read_request(request));
    emptied.empty(checker.packages());
    return 0;
}
