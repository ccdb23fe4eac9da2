// The signatures of the repository's files, checked by all cores.

#ifndef CHECK_SIGNATURES_H
#define CHECK_SIGNATURES_H

#include "check/directory_walk.h"

#include <string>
#include <vector>

enum class Verdict {
    CONFIRMED,
    NOT_CONFIRMED,
    NOT_SIGNED,     // an archive without a signature
    NOT_AN_ARCHIVE, // of neither form
    NOT_READABLE,
    GONE // not a regular file any more
};

struct SignatureResult {
    Verdict verdict = Verdict::GONE;
    int error = 0; // errno of NOT_READABLE
};

// Checks the regular files `names` of the directory with the installed key, each read once, `jobs` at a time.
// The results come in the order of the names. Throws CannotCheck where there is no usable key.
std::vector<SignatureResult> check_signatures(const Directory& directory,
                                              const std::vector<std::string>& names, unsigned jobs,
                                              bool show_progress);

#endif
