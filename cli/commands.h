// The repository commands. Each takes the arguments after its option and checks them before anything else (a
// usage error prints the help on `out`, returns 20 and touches nothing). Then it makes the start-up checks. It
// returns 0 or a status whose text main prints. Progress and results go to `out`; error texts do not.

#ifndef CLI_COMMANDS_H
#define CLI_COMMANDS_H

#include <array>
#include <iosfwd>

// Adds the package file that the one argument names: verifies it, registers it with the web service, then copies
// it or, for an envelope, extracts it into the repository. When that fails, it removes the registration.
int addPackagesCmd(int argc, const char** argv, std::ostream& out);

// Deletes the package whose ID is the one argument, after asking on `out` and reading the answer from `in`: first
// its registration, then its files. Files that cannot be deleted are reported in the log alone.
int deletePackageCmd(int argc, const char** argv, std::ostream& out, std::istream& in);

struct ListFilter {
    const char* option;
    const char* field; // as the service names it
};
extern const std::array<ListFilter, 3> LIST_FILTERS;

// Prints the table of packages: of all, or filtered by an option of LIST_FILTERS and a value. Changes
// nothing.
int listPackagesCmd(int argc, const char** argv, std::ostream& out);

// Prints the details of the package whose ID is the one argument. Changes nothing.
int getPackageDetailsCmd(int argc, const char** argv, std::ostream& out);

#endif
