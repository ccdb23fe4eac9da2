// What sjapack tells its user when it cannot do what was asked.

#ifndef PUBLISHER_USER_ERROR_H
#define PUBLISHER_USER_ERROR_H

#include <cstring>
#include <stdexcept>
#include <string>

// Thrown wherever a command cannot be carried out; what() is one line for the user, without the program's
// name.
class UserError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;

    // For a failed system call.
    UserError(const std::string& what, int error) : UserError(what + ": " + std::strerror(error)) {}
};

#endif
