#include "master/service.h"

#include "master/media_type.h"
#include "master/problem.h"
#include "master/target.h"

#include <memory>
#include <utility>

namespace {

constexpr int UNUSABLE_INPUT = 20;
constexpr int UNKNOWN_PACKAGE = 227;
constexpr int SAME_FILE_NAME = 7218;
constexpr int NO_PACKAGE_ID = 8626;
constexpr int NOT_UNDERSTOOD = 9103;

// Large enough to keep the overhead per part small, small enough for many slow readers at once.
constexpr std::size_t PART_SIZE = 64UL * 1024;

Answer error_answer(int status, int errorCode, const std::string& message, const std::string& contentType) {
    Answer answer;
    answer.status = status;
    answer.contentType = contentType;
    answer.body = error_body(errorCode, message);
    return answer;
}

Answer unknown_package(const std::string& contentType) {
    return error_answer(404, UNKNOWN_PACKAGE, "there is no such package", contentType);
}

Answer wrong_method(const std::string& allow, const std::string& contentType) {
    Answer answer = error_answer(405, NOT_UNDERSTOOD, "this resource does not know the method", contentType);
    answer.allow = allow;
    return answer;
}

bool is_too_long(const ServiceRequest& request) {
    return request.target.size() > LONGEST_TARGET;
}

// Writes a package list part by part.
class ListBody {
  public:
    ListBody(std::unique_ptr<PackageCursor> cursor, std::string repository)
        : cursor_(std::move(cursor)), repository_(std::move(repository)) {}

    bool finished() const { return finished_; }

    std::string next_part() {
        std::string part = std::exchange(opening_, "");
        while (part.size() < PART_SIZE && !finished_)
            append_next(part);
        return part;
    }

  private:
    void append_next(std::string& part) {
        const std::optional<Package> package = cursor_->next();
        if (!package) {
            part += "]}";
            finished_ = true;
            return;
        }
        part += std::exchange(separator_, ", ");
        append_package(part, *package, repository_);
    }

    std::unique_ptr<PackageCursor> cursor_;
    std::string repository_;
    std::string opening_ = "{\"data\": [";
    const char* separator_ = "";
    bool finished_ = false;
};

Answer package_answer(int status, const Package& package, const std::string& repository,
                      const std::string& contentType) {
    Answer answer;
    answer.status = status;
    answer.contentType = contentType;
    answer.body = "{\"data\": ";
    append_package(answer.body, package, repository);
    answer.body += '}';
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
    const std::optional<std::string> contentType = accepted_media_type(request.accept);
    if (!contentType)
        return error_answer(406, NOT_UNDERSTOOD, "Accept must name " + latest_media_type(),
                            latest_media_type());
    try {
        return answer_accepted(request, *contentType);
    } catch (const UnusableInput& error) {
        return error_answer(400, UNUSABLE_INPUT, error.what(), *contentType);
    } catch (const StoreError& error) {
        report_problem(error.what());
        return error_answer(500, NOT_UNDERSTOOD, "the packages cannot be reached", *contentType);
    }
}

Answer Service::answer_accepted(const ServiceRequest& request, const std::string& contentType) {
    if (is_too_long(request))
        return error_answer(414, UNUSABLE_INPUT, "the target is too long", contentType);
    const Target target = read_target(request.target);
    const std::string packages = PACKAGES_PATH;
    if (target.path == packages) {
        if (request.method == "GET")
            return answer_list(target.query ? &*target.query : nullptr, contentType);
        if (request.method == "POST")
            return answer_creation(request.body, contentType);
        return wrong_method("GET, POST", contentType);
    }
    const bool below = target.path.compare(0, packages.size() + 1, packages + "/") == 0;
    const std::string rest = below ? target.path.substr(packages.size() + 1) : "";
    if (!below || rest.find('/') != std::string::npos)
        return error_answer(404, NOT_UNDERSTOOD, "there is no such resource", contentType);
    return answer_package(request, rest, contentType);
}

Answer Service::answer_package(const ServiceRequest& request, const std::string& idText,
                               const std::string& contentType) {
    if (request.method != "GET" && request.method != "DELETE")
        return wrong_method("GET, DELETE", contentType);
    const std::optional<std::int64_t> id = read_package_id(idText);
    if (!id)
        return error_answer(400, NO_PACKAGE_ID, "a package ID is a positive number", contentType);
    return request.method == "GET" ? answer_details(*id, contentType) : answer_deletion(*id, contentType);
}

Answer Service::answer_list(const std::string* query, const std::string& contentType) {
    std::optional<Filter> filter;
    if (query != nullptr)
        filter = read_filter_query(*query);
    const auto list = std::make_shared<ListBody>(store_.list(filter), repository_);
    Answer answer;
    answer.status = 200;
    answer.contentType = contentType;
    // Read before anything is sent, so that a store that fails can still be answered as a failure.
    answer.body = list->next_part();
    if (!list->finished())
        answer.more = [list] { return list->next_part(); };
    return answer;
}

Answer Service::answer_creation(const std::string& body, const std::string& contentType) {
    const std::optional<Package> package = store_.add(read_new_package(body));
    if (!package)
        return error_answer(409, SAME_FILE_NAME, "a package of this file name is there already", contentType);
    return package_answer(201, *package, repository_, contentType);
}

Answer Service::answer_details(std::int64_t id, const std::string& contentType) {
    const std::optional<Package> package = store_.find(id);
    return package ? package_answer(200, *package, repository_, contentType) : unknown_package(contentType);
}

Answer Service::answer_deletion(std::int64_t id, const std::string& contentType) {
    if (!store_.remove(id))
        return unknown_package(contentType);
    Answer answer;
    answer.status = 204;
    return answer;
}

Answer Service::refusal(int status) {
    switch (status) {
    case 400:
        return error_answer(status, NOT_UNDERSTOOD, "this is no HTTP request", latest_media_type());
    case 413:
        return error_answer(status, UNUSABLE_INPUT, "the body is too large", latest_media_type());
    case 414:
        return error_answer(status, UNUSABLE_INPUT, "the target is too long", latest_media_type());
    case 431:
        return error_answer(status, UNUSABLE_INPUT, "the headers are too large", latest_media_type());
    case 500:
        return error_answer(status, NOT_UNDERSTOOD, "the service failed", latest_media_type());
    default:
        return error_answer(status, NOT_UNDERSTOOD, "the request is not understood", latest_media_type());
    }
}
