// What goes wrong, and how whoever runs the service hears of it.

#ifndef MASTER_PROBLEM_H
#define MASTER_PROBLEM_H

#include <stdexcept>
#include <string>

// The service cannot start: the text says what was attempted, on what, and the system's own reason.
class StartFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A request asks for something that cannot be done as it stands; the text tells its sender why.
class UnusableInput : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Writes the line "qvmaster: TEXT" to standard error, in one piece and with control characters escaped, so
// that lines of different threads do not mix and no client can forge one. Never throws.
void report_problem(const std::string& text) noexcept;

#endif
