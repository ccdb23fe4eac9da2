// Failures, and how they reach the administrator of the service.

#ifndef MASTER_LOG_ERROR_H
#define MASTER_LOG_ERROR_H

#include <stdexcept>
#include <string>

// The service cannot start: the text says what was attempted, on what, and the system's own reason.
class StartFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Both write the line "qvmaster: TEXT" to standard error, in one piece and with control characters replaced,
// so that lines of different threads do not mix and no client can forge one. Where standard error is the
// journal, the line begins with the priority that the journal reads. Each writes MAX_LOG_LINES lines a
// minute; the first line after that minute says how many were left out. They count separately, so that clients
// cannot silence errors.
void log_error(const std::string& text) noexcept;
void log_warning(const std::string& text) noexcept; // a client's failure, not the service's

inline constexpr int MAX_LOG_LINES = 60;

#endif
