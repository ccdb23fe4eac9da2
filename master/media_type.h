// The versioned media type of every answer.

#ifndef MASTER_MEDIA_TYPE_H
#define MASTER_MEDIA_TYPE_H

#include <optional>
#include <string>

// The media type in which the service answers a request with this Accept header: the service's own, in the
// version asked for. Blanks around the header and its semicolon do not count, nor does letter case outside
// the version. None where the header asks for anything else, or for a version other than 4.0, 5.0 and 6.0.
std::optional<std::string> accepted_media_type(const std::string& accept);

// The media type of an answer to a request that asked for none of them: the latest version.
std::string latest_media_type();

#endif
