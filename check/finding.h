// What is found wrong with the repository.

#ifndef CHECK_FINDING_H
#define CHECK_FINDING_H

#include "check/text.h"

#include <string>

// One sort of finding; the names are stable.
struct FindingKind {
    const char* name;
    Message message;
};

inline constexpr FindingKind MISSING_FILE = {"missing-file",
                                             {"TqlChk0001N", "The package's file is not there."}};
inline constexpr FindingKind WRONG_SIZE = {
    "wrong-size", {"TqlChk0002N", "The file has %s bytes, but the package is registered with %s."}};
inline constexpr FindingKind NOT_A_FILE = {
    "not-a-file", {"TqlChk0003N", "What lies in the place of the package's file is not a regular file."}};
inline constexpr FindingKind OUTSIDE = {
    "outside", {"TqlChk0004N", "The registered path does not name a file of the repository directory."}};
inline constexpr FindingKind BAD_SIGNATURE = {
    "bad-signature", {"TqlChk0005N", "The installed key does not confirm the file's signature."}};
inline constexpr FindingKind UNSIGNED = {"unsigned", {"TqlChk0006N", "The file is not signed."}};
inline constexpr FindingKind UNREADABLE = {"unreadable", {"TqlChk0007N", "The file cannot be read: %s"}};
inline constexpr FindingKind UNLISTED_FILE = {"unlisted-file",
                                              {"TqlChk0008N", "No package names this file."}};
inline constexpr FindingKind LEFTOVER = {"leftover",
                                         {"TqlChk0009N", "An interrupted command left this temporary file."}};
inline constexpr FindingKind SHARED_FILE = {
    "shared-file", {"TqlChk0010N", "Package %s names this file, too: deleting either breaks the other."}};
inline constexpr FindingKind DUPLICATE_NAME = {"duplicate-name",
                                               {"TqlChk0011N", "Package %s has the same file name."}};
inline constexpr FindingKind UNSAFE_MODE = {
    "unsafe-mode", {"TqlChk0012N", "Others than root can change this: owner %s, mode %s."}};

// A finding makes the check fail; a warning and what is pending do not.
enum class Severity { FINDING, WARNING, PENDING };

struct Finding {
    const FindingKind* kind = nullptr;
    Severity severity = Severity::FINDING;
    std::string id;        // of the package; empty without one
    std::string file_name; // the package's, as registered
    std::string path;
    std::vector<std::string> details = {}; // the message's arguments
    std::string remedy = {};               // a command for a shell
    std::string state = {};                // of the file: another one when the file was changed
};

#endif
