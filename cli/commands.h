// The repository commands. Each takes the words after its option word, checks them before anything else
// (wrong words: help on `out`, status 20, nothing touched), makes the start-up checks, and returns 0 or a
// status that main turns into words. Progress and results go to `out`; error texts do not.

#ifndef CLI_COMMANDS_H
#define CLI_COMMANDS_H

#include <array>
#include <iosfwd>

// Adds the package file that the one word names: verifies it, registers it with the web service, then copies
// it or, for an envelope, extracts it into the repository. When that fails, the registration is taken back.
int addPackagesCmd(int argc, const char** argv, std::ostream& out);

// Deletes the package whose ID is the one word, after asking on `out` and reading the answer from `in`: first
// its registration, then its files. Files that cannot be deleted are reported in the log alone.
int deletePackageCmd(int argc, const char** argv, std::ostream& out, std::istream& in);

struct list_filter {
    const char* option;
    const char* field; // as the service names it
};
extern const std::array<list_filter, 3> LIST_FILTERS;

// Prints the table of packages: of all, or filtered by an option of LIST_FILTERS and a value. Changes
// nothing.
int listPackagesCmd(int argc, const char** argv, std::ostream& out);

// Prints the details of the package whose ID is the one word. Changes nothing.
int getPackageDetailsCmd(int argc, const char** argv, std::ostream& out);

#endif
