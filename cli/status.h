// The one place where a status becomes words.

#ifndef CLI_STATUS_H
#define CLI_STATUS_H

#include <array>
#include <iosfwd>

// The statuses that this program raises itself or takes from the web service with a text of their own;
// further ones come from the platform and the service and are passed on as they are.
enum command_status : int {
    STATUS_INVALID_PARAMETER = 20,
    STATUS_CONFIGURATION = 110,
    STATUS_NO_MASTER_SERVER = 111,
    STATUS_NOT_ADMINISTRATOR = 132,
    STATUS_NOT_MASTER_SERVER = 153,
    STATUS_NO_REPOSITORY = 7217,
    STATUS_INVALID_PACKAGE_ID = 7219,
    STATUS_PACKAGE_NOT_FOUND = 7220,
    STATUS_DELETE_CANCELED = 7221,
    STATUS_FILE_NOT_FOUND = 7225,
    STATUS_REPOSITORY_FULL = 7263,
    STATUS_UNEXPECTED_RESPONSE = 9103
};

struct status_message {
    int code;
    const char* id; // of its message
};

// Every status with a text of its own, in ascending order of codes.
extern const std::array<status_message, 29> STATUS_MESSAGES;

// Writes the line of a status to `out` ("Error: " and its text in the user's language; without "Error: " for
// a deletion that the user called off), logs it under `function`, and logs the exit status, which is all that
// happens for status 0. Leaves the text in `msg` and its English copy in `msg_E`.
void showCommandStatus(int status, const char* function, std::ostream& out);

#endif
