#include "master/service.h"

#include "master/log_error.h"
#include "master/request_parts.h"

#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace {

constexpr int UNUSABLE_INPUT = 20;
constexpr int UNKNOWN_PACKAGE = 227;
constexpr int NAME_TAKEN = 7218;
constexpr int NO_PACKAGE_ID = 8626;
constexpr int NOT_UNDERSTOOD = 9103;

const char* const TARGET_TOO_LONG = "the target is too long";

// Large enough to keep the overhead per part small, small enough for many slow readers at once.
constexpr std::size_t PART_SIZE = 64UL * 1024;

// The deletion of a package between two of its parts breaks the answer off, so only a huge one is split.
constexpr std::size_t PACKAGE_PART_SIZE = 256UL * 1024;

Answer error_answer(int status, int errorCode, const std::string& message) {
    Answer answer;
    answer.status = status;
    answer.contentType = LATEST_MEDIA_TYPE;
    answer.body = error_body(errorCode, message);
    return answer;
}

Answer unknown_package() {
    return error_answer(404, UNKNOWN_PACKAGE, "there is no such package");
}

Answer wrong_method(const std::string& allow) {
    Answer answer = error_answer(405, NOT_UNDERSTOOD, "this resource does not know the method");
    answer.allow = allow;
    return answer;
}

bool is_too_long(const ServiceRequest& request) {
    return request.target.size() > MAX_TARGET_SIZE;
}

// Writes packages part by part, and holds nothing of the database between two parts.
class PackagesBody {
  public:
    PackagesBody(std::unique_ptr<PackageCursor> cursor, std::string repository, std::string opening,
                 std::string closing)
        : cursor_(std::move(cursor)), repository_(std::move(repository)), opening_(std::move(opening)),
          closing_(std::move(closing)) {}

    bool finished() const { return finished_; }

    // Whether no package was found, once the first part was asked for.
    bool empty() const { return empty_; }

    std::string next_part() {
        std::string part = std::exchange(opening_, "");
        while (!finished_ && part.size() < (in_package_ ? PACKAGE_PART_SIZE : PART_SIZE))
            append_next(part);
        cursor_->pause();
        return part;
    }

  private:
    void append_next(std::string& part) {
        if (in_package_) {
            append_item(part);
        } else if (cursor_->next_package()) {
            part += empty_ ? "" : ", ";
            append_package_beginning(part, cursor_->package());
            empty_ = false;
            in_package_ = true;
            separator_ = "";
        } else {
            part += closing_;
            finished_ = true;
        }
    }

    void append_item(std::string& part) {
        const std::optional<std::string> fileName = cursor_->next_item();
        in_package_ = fileName.has_value();
        if (!in_package_) {
            append_package_end(part, cursor_->package());
            return;
        }
        part += std::exchange(separator_, ", ");
        append_item_path(part, repository_, *fileName);
    }

    std::unique_ptr<PackageCursor> cursor_;
    std::string repository_;
    std::string opening_;
    std::string closing_;
    const char* separator_ = ""; // before the next item
    bool empty_ = true;
    bool in_package_ = false;
    bool finished_ = false;
};

// Ends the process when memory runs out: a package that was stored must not be answered as a failure.
Answer created_answer(const Package& package, const std::vector<PackageItem>& items,
                      const std::string& repository) noexcept {
    Answer answer;
    answer.status = 201;
    answer.body = "{\"data\": ";
    append_package_beginning(answer.body, package);
    const char* separator = "";
    for (const PackageItem& item : items) {
        answer.body += std::exchange(separator, ", ");
        append_item_path(answer.body, repository, item.fileName);
    }
    append_package_end(answer.body, package);
    answer.body += '}';
    return answer;
}

// The answer with what the body holds; where it has more than one part, the rest follows as it is sent.
Answer packages_answer(const std::shared_ptr<PackagesBody>& body) {
    Answer answer;
    answer.status = 200;
    // Read before anything is sent, so that a store that fails can still be answered as a failure.
    answer.body = body->next_part();
    if (!body->finished())
        answer.more = [body] { return body->next_part(); };
    return answer;
}

std::string without_closing_slashes(std::string directory) {
    while (directory.size() > 1 && directory.back() == '/')
        directory.pop_back();
    return directory;
}

} // namespace

Service::Service(PackageStore& store, std::string repository)
    : store_(store), repository_(without_closing_slashes(std::move(repository))) {}

bool Service::needs_body(const ServiceRequest& request) {
    return request.method == "POST" && accepted_media_type(request.accept) && !is_too_long(request) &&
           read_target(request.target).path == PACKAGES_PATH;
}

Answer Service::answer(const ServiceRequest& request) {
    std::optional<std::string> contentType = accepted_media_type(request.accept);
    if (!contentType)
        return error_answer(406, NOT_UNDERSTOOD, std::string("Accept must name ") + LATEST_MEDIA_TYPE);
    Answer answer;
    try {
        answer = answer_accepted(request);
    } catch (const BadRequest& error) {
        answer = error_answer(400, UNUSABLE_INPUT, error.what());
    } catch (const StoreError& error) {
        log_error(error.what());
        answer = error_answer(500, NOT_UNDERSTOOD, "the packages cannot be reached");
    }
    if (answer.status != 204)
        answer.contentType = std::move(*contentType);
    return answer;
}

Answer Service::answer_accepted(const ServiceRequest& request) {
    if (is_too_long(request))
        return error_answer(414, UNUSABLE_INPUT, TARGET_TOO_LONG);
    const Target target = read_target(request.target);
    const std::string packages = PACKAGES_PATH;
    if (target.path == packages) {
        if (request.method == "GET")
            return answer_list(target.query ? &*target.query : nullptr);
        if (request.method == "POST")
            return answer_creation(request.body);
        return wrong_method("GET, POST");
    }
    const bool below = target.path.compare(0, packages.size() + 1, packages + "/") == 0;
    const std::string rest = below ? target.path.substr(packages.size() + 1) : "";
    if (!below || rest.find('/') != std::string::npos)
        return error_answer(404, NOT_UNDERSTOOD, "there is no such resource");
    return answer_package(request, rest);
}

Answer Service::answer_package(const ServiceRequest& request, const std::string& idText) {
    if (request.method != "GET" && request.method != "DELETE")
        return wrong_method("GET, DELETE");
    const std::optional<std::int64_t> id = read_package_id(idText);
    if (!id)
        return error_answer(400, NO_PACKAGE_ID, "a package ID is a positive number");
    return request.method == "GET" ? answer_details(*id) : answer_deletion(*id);
}

Answer Service::answer_list(const std::string* query) {
    std::optional<Filter> filter;
    if (query != nullptr)
        filter = read_filter_query(*query);
    const auto list = std::make_shared<PackagesBody>(store_.list(filter), repository_, "{\"data\": [", "]}");
    return packages_answer(list);
}

Answer Service::answer_creation(const std::string& body) {
    const NewPackage package = read_new_package(body);
    const std::optional<Package> created = store_.add(package);
    if (!created)
        return error_answer(409, NAME_TAKEN,
                            "a package of this file name, or with an item of such a name, is there");
    // Not read from the store, where it might be gone again, or out of reach.
    return created_answer(*created, package.packageItems, repository_);
}

Answer Service::answer_details(std::int64_t id) {
    const auto details = std::make_shared<PackagesBody>(store_.find(id), repository_, "{\"data\": ", "}");
    const Answer answer = packages_answer(details);
    return details->empty() ? unknown_package() : answer;
}

Answer Service::answer_deletion(std::int64_t id) {
    if (!store_.remove(id))
        return unknown_package();
    Answer answer;
    answer.status = 204;
    return answer;
}

Answer Service::refusal(int status) {
    static const std::map<int, std::pair<int, const char*>> REASONS = {
        {400, {NOT_UNDERSTOOD, "this is no HTTP request"}},
        {413, {UNUSABLE_INPUT, "the body is too large"}},
        {414, {UNUSABLE_INPUT, TARGET_TOO_LONG}},
        {415, {NOT_UNDERSTOOD, "the request is not understood"}},
        {431, {UNUSABLE_INPUT, "the headers are too large"}},
        {500, {NOT_UNDERSTOOD, "the service failed"}}};
    const auto& [errorCode, message] = REASONS.at(status);
    return error_answer(status, errorCode, message);
}
