// What the commands have in common: the service's package resource, the client for it, and the repository
// of its files.

#ifndef CLI_PACKAGE_RESOURCE_H
#define CLI_PACKAGE_RESOURCE_H

#include "cli/request.h"
#include "model/package_service.h"

#include <string>

// The resource of one package.
std::string package_uri(const std::string& id);

// curlSendRequest, with the answer's body read where the client holds it: a long answer is not held twice.
int send_request(QVClientCURL& client, const std::string& uri, curl_request_type type,
                 const std::string& body, long expectedHttpCode);

// Whether the repository directory exists; logs it under `function` when it does not.
bool repository_exists(const char* function);

// What a failed request for one package means to the user: 7220 for a package that the service does not know,
// 7219 for an ID that it does not take, both logged under `function` with the ID as typed; any other code as
// it is.
int package_request_status(int code, const char* typedId, const char* function);

#endif
