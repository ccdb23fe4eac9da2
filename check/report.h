// How the result of a check is shown: as lines for people, or as one JSON document.

#ifndef CHECK_REPORT_H
#define CHECK_REPORT_H

#include "check/repository.h"
#include "check/setup.h"

#include <optional>

struct Report {
    std::optional<std::vector<Condition>> setup;
    std::optional<RepositoryReport> repository;

    // Whether something failed; warnings and what is pending do not count.
    bool has_findings() const;
};

// With `quiet`, only what is not in order.
void print_report(const Report& report, bool quiet);

// docs/qvcheck.schema.json describes the document.
void print_json_report(const Report& report);

#endif
