// The conditions under which qvrepo works, each in the order in which it meets them.

#ifndef CHECK_SETUP_H
#define CHECK_SETUP_H

#include "check/text.h"

#include <string>
#include <vector>

enum class Outcome { OK, WARNING, FAIL, SKIP };

struct Condition {
    const char* name; // stable
    Outcome outcome = Outcome::OK;
    std::string subject = {}; // what was looked at
    Text note = {};           // what was seen there
    std::string cause = {};   // of a failure, in the system's own words
    Text remedy = {};
    std::string command = {}; // the remedy for a shell, where there is one
};

std::vector<Condition> check_setup();

#endif
