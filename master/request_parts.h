// The parts of a request as the service reads them: target, filter, package ID and media type.

#ifndef MASTER_REQUEST_PARTS_H
#define MASTER_REQUEST_PARTS_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

// The request cannot be carried out as it is; the text tells the client why.
class BadRequest : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Target {
    std::string path;                 // percent-decoded
    std::optional<std::string> query; // as received, without the question mark
};

// Splits the target of the request line at its first question mark.
Target read_target(const std::string& raw);

// Replaces every percent code (% and two hexadecimal digits) by its byte, once. All else stays as it is, "+"
// too.
std::string percent_decode(const std::string& text);

// The package ID that `text` writes in decimal digits alone; none where it holds anything else, is 0, or
// exceeds a signed 64-bit number.
std::optional<std::int64_t> read_package_id(const std::string& text);

struct Filter {
    std::string column; // of the table of packages
    std::string value;  // any bytes, matched exactly
};

// Reads the query of a list request, as received: "filter=" and the percent-encoded text FIELD eq 'VALUE',
// where FIELD is version, os or package-type. The value runs from the first quote to the last one, so it may
// hold quotes; "&" and "+" are part of it. Throws BadRequest for any other query.
Filter read_filter_query(const std::string& query);

// The media type in which the service answers a request with this Accept header: the service's own, in the
// version asked for. Blanks around the header and its semicolon do not count, nor does letter case. None where
// the header asks for anything else, or for a version other than 4.0, 5.0 and 6.0.
std::optional<std::string> accepted_media_type(const std::string& accept);

// The media type of an answer to a request that asked for none of them: the latest version.
inline constexpr const char* LATEST_MEDIA_TYPE = "application/vnd.quorvelle+json;version=6.0";

#endif
