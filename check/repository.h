// The service's list against the repository directory.

#ifndef CHECK_REPOSITORY_H
#define CHECK_REPOSITORY_H

#include "check/directory_walk.h"
#include "check/finding.h"
#include "model/QvRepoPackage.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

struct RepositoryOptions {
    bool skip_signatures = false;
    bool show_progress = false;
    unsigned jobs = 1;
    long settle = 120; // seconds for which a registered package's file may still be on its way
};

struct RepositoryReport {
    std::size_t packages = 0;
    std::size_t files = 0;      // everything in the directory but directories
    std::size_t signatures = 0; // checked ones
    std::vector<Finding> findings;
};

// What the comparison needs of a package.
struct Registration {
    std::string id;
    std::string file_name;
    std::vector<std::string> paths;
    std::uint64_t size;
    std::time_t created; // 0 where the record's time cannot be read
    bool single;         // its one file is the package file itself
};

std::vector<Registration> registrations_of(std::vector<QvRepoPackage> packages);

// A listed file that is there, to have its signature checked. `finding` is what there will be to tell.
struct Candidate {
    std::string name;
    bool single;
    Finding finding;
};

struct Comparison {
    std::vector<Finding> findings;
    std::vector<Candidate> candidates;
};

// Compares at the time `now`. `master_server` goes into remedies.
Comparison compare(const std::vector<Registration>& packages, const Directory& directory,
                   const std::string& master_server, std::time_t now, long settle);

// Looks at both halves and, where anything was found, once more at what was found: what is in both looks is
// reported. Throws CannotCheck.
RepositoryReport check_repository(const RepositoryOptions& options);

#endif
