#include "cli/request.h"

#include "model/json_document.h"
#include "platform/debug_log.h"
#include "platform/status_codes.h"

namespace {

int perform(QVClientCURL& client, const std::string& uri, curl_request_type type, const std::string& body) {
    switch (type) {
    case CURL_REQUEST_GET:
        return client.get(uri);
    case CURL_REQUEST_PUT:
        return client.put(uri, body);
    case CURL_REQUEST_POST:
        return client.post(uri, body);
    case CURL_REQUEST_DELETE:
        return client.del(uri);
    }
    logmsg(2, "Unknown Request Type.", "curlSendRequest");
    return STATUS_INVALID_PARAMETER;
}

int read_error_response(const std::string& body, long& errorCode) {
    constexpr const char* function = "parseJSONErrorResponse";
    const JsonDocument document = parse_json(body.c_str());
    if (!document) {
        logmsgf(16, function, "Failed to parse error response received from server. Error response is: %s.",
                body.c_str());
        return STATUS_UNEXPECTED_RESPONSE;
    }
    const json_t* code = json_object_get(document.get(), "errorCode");
    if (!json_is_integer(code)) {
        logmsg(16, "No error code in response.", function);
        return STATUS_UNEXPECTED_RESPONSE;
    }
    errorCode = static_cast<long>(json_integer_value(code));
    logmsgf(16, function, "Error code returned by server is : %ld.", errorCode);

    const char* message = json_string_value(json_object_get(document.get(), "errorMessage"));
    if (message == nullptr) {
        logmsg(16, "No message in error response.", function);
        return STATUS_UNEXPECTED_RESPONSE;
    }
    logmsgf(16, function, "Error message returned by server: %s.", message);
    return 0;
}

// The status of an answer with another HTTP code than the expected one.
int refusal(const std::string& response) {
    long error_code = 0;
    if (const int status = read_error_response(response, error_code); status != 0)
        return status;
    return static_cast<int>(error_code);
}

} // namespace

int curlSendRequest(QVClientCURL& client, const std::string& uri, curl_request_type type,
                    const std::string& body, std::string& response, long expectedHttpCode) {
    if (uri.empty()) {
        logmsg(2, "URI is empty.", "curlSendRequest");
        return STATUS_INVALID_PARAMETER;
    }
    client.setupAcceptCurlOption("Accept: " + QV_MEDIA_TYPE_VERSION);
    client.setConnectTimeout(CONNECT_TIMEOUT_SECONDS);
    logmsgf(2, "curlSendRequest", "Sending curl request with URI : %s.", uri.c_str());
    if (!body.empty())
        logmsgf(2, "curlSendRequest", "Request body: %s.", body.c_str());

    if (const int result = perform(client, uri, type, body); result != 0) {
        logmsgf(16, "curlSendRequest", "Failed to perform curl request for URI : %s.  retval : %d",
                uri.c_str(), result);
        return result;
    }
    response = client.responseBody;
    logmsgf(2, "curlSendRequest", "Http response body: %s", response.c_str());
    logmsgf(2, "curlSendRequest", "Actual http response code: %ld , expected http response code: %ld",
            client.httpResponseCode, expectedHttpCode);
    return client.httpResponseCode == expectedHttpCode ? 0 : refusal(response);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as its callers in other tools know it
int parseJSONErrorResponse(std::string errorBody, long& errorCode) {
    return read_error_response(errorBody, errorCode);
}
