#ifndef CLI_PACKAGE_ID_H
#define CLI_PACKAGE_ID_H

#include <string>

// Whether `text` is a package ID: a whole number above 0, with white space and a sign before it allowed
// ("007", "+7", " 7"). One that exceeds 64 bits counts as the largest. `id` always receives the number
// in plain decimal, 0 where there is none; what is not valid is logged as typed.
bool validatePackageId(const char* text, std::string& id);

#endif
