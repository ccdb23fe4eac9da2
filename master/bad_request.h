#ifndef MASTER_BAD_REQUEST_H
#define MASTER_BAD_REQUEST_H

#include <stdexcept>

// A request asks for something that cannot be done as it stands; the text tells its sender why.
class BadRequest : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

#endif
