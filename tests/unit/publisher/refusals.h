// What a piece of work was refused with.

#ifndef TESTS_UNIT_PUBLISHER_REFUSALS_H
#define TESTS_UNIT_PUBLISHER_REFUSALS_H

#include "publisher/refusal.h"

#include <string>

// The text of the Refusal that `work` throws; "done" when it throws none.
template <typename Work>
std::string refusal_of(const Work& work) {
    try {
        work();
    } catch (const Refusal& refusal) {
        return refusal.what();
    }
    return "done";
}

#endif
