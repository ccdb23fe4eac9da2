// What sjapack will not do.

#ifndef PUBLISHER_REFUSAL_H
#define PUBLISHER_REFUSAL_H

#include <cstring>
#include <stdexcept>
#include <string>

// Thrown wherever a command cannot be carried out; what() is one line for the user, without the program's
// name.
class Refusal : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;

    // For a system call's failure.
    Refusal(const std::string& what, int error) : Refusal(what + ": " + std::strerror(error)) {}
};

#endif
