// The deployment-package web service: what each request is answered with, whatever carries it.
//
// Error codes: 20 unusable filter, body or size of the request; 227 unknown package; 7218 a package of the same
// file or item name exists; 8626 not a package ID; 9103 all else, failures of the service included.

#ifndef MASTER_SERVICE_H
#define MASTER_SERVICE_H

#include "master/package_store.h"

#include <functional>
#include <string>

// The resource of all packages; one package lies below it.
inline constexpr const char* PACKAGES_PATH = "/quorvelle/deployment/packages";

// The longest target that is looked at, in bytes.
inline constexpr std::size_t MAX_TARGET_SIZE = 8192;

struct ServiceRequest {
    std::string method;
    std::string target; // as received
    std::string accept; // the Accept header, empty where there is none
    std::string contentType;
    std::string body;
};

struct Answer {
    int status = 0;
    std::string contentType;
    std::string body;
    std::string allow; // the methods that the resource knows, where the request's is not among them

    // Returns the next part of the body; after the last one, an empty text. Not set where `body` is the whole.
    // Throws StoreError.
    std::function<std::string()> more;
};

class Service {
  public:
    // Item paths are those of files in the directory `repository`. The store must outlive the service and its
    // answers.
    Service(PackageStore& store, std::string repository);

    // Whether the answer depends on the request's body; where it does not, the body need not be read.
    static bool needs_body(const ServiceRequest& request);

    // Answers any request; a store that fails is reported, and answered with 500. Callable from all threads.
    Answer answer(const ServiceRequest& request);

    // The answer to a request that cannot be carried to the service: 400 no HTTP, 413 body too large, 500
    // failure, and other codes of HTTP.
    static Answer refusal(int status);

  private:
    Answer answer_list(const std::string* query);
    Answer answer_creation(const std::string& body);
    Answer answer_package(const ServiceRequest& request, const std::string& idText);
    Answer answer_details(std::int64_t id);
    Answer answer_deletion(std::int64_t id);
    Answer answer_accepted(const ServiceRequest& request);

    PackageStore& store_;
    std::string repository_;
};

#endif
