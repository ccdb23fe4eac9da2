// The names that the store and the service still use.

#ifndef MASTER_PROBLEM_H
#define MASTER_PROBLEM_H

#include "master/log_error.h"

// A request asks for something that cannot be done as it stands; the text tells its sender why.
class UnusableInput : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

inline void report_problem(const std::string& text) noexcept {
    log_error(text);
}

#endif
