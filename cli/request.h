// Requests to the master server's web service, and what its refusals mean.

#ifndef CLI_REQUEST_H
#define CLI_REQUEST_H

#include "model/package_service.h"

#include <string>

// The underlying type is fixed: a number from elsewhere that is not a request is refused, not undefined.
enum curl_request_type : int {
    CURL_REQUEST_GET = 0,
    CURL_REQUEST_PUT = 1, // not used by this program
    CURL_REQUEST_POST = 2,
    CURL_REQUEST_DELETE = 3
};

// Sends one request and compares the answer's HTTP code with the only one that the caller expects. `body`
// goes out with PUT and POST. Returns 0 when they are equal; 20 for an empty URI or an unknown type; the
// client's code when no exchange took place; and else the error code that the service's answer carries, or
// 9103 where it carries none that is usable. `response` receives the answer's body whenever there was an
// exchange, and is left alone otherwise.
int curlSendRequest(QVClientCURL& client, const std::string& uri, curl_request_type type,
                    const std::string& body, std::string& response, long expectedHttpCode);

// Takes the error code out of the service's error object; its message goes to the log alone. Returns 0, or
// 9103 when the body is not an object with an integer "errorCode" (stored as soon as it is found) and a text
// "errorMessage".
int parseJSONErrorResponse(std::string errorBody, long& errorCode);

#endif
