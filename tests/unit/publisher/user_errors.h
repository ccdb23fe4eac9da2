// What a piece of work was refused with.

#ifndef TESTS_UNIT_PUBLISHER_USER_ERRORS_H
#define TESTS_UNIT_PUBLISHER_USER_ERRORS_H

#include "publisher/user_error.h"

#include <string>

// The text of the UserError that `work` throws; "done" when it throws none.
template <typename Work>
std::string error_of(const Work& work) {
    try {
        work();
    } catch (const UserError& error) {
        return error.what();
    }
    return "done";
}

#endif
