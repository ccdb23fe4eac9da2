// The texts of the statuses.

#ifndef CLI_STATUS_H
#define CLI_STATUS_H

#include <array>
#include <iosfwd>

struct StatusMessage {
    int code;
    const char* id; // of its message
};

// Every status with a text of its own, in ascending order of codes.
extern const std::array<StatusMessage, 29> STATUS_MESSAGES;

// Writes the line of a status to `out` ("Error: " and its text in the user's language; without "Error: " for
// a deletion that the user canceled), logs it under `function`, and logs the exit status, which is all that
// happens for status 0. Leaves the text in `msg` and its English copy in `msg_E`.
void showCommandStatus(int status, const char* function, std::ostream& out);

#endif
