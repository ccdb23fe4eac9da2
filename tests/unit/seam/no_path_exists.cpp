// A file half of the seam in which no path exists. Any other call is one that a command without a repository
// must not make; it ends the program, so that the test sees it.

#include "seam/T.h"

#include "model/QvRepoPackage.h"

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void unexpected(const char* member) {
    std::fprintf(stderr, "unexpected call of T::%s\n", member);
    std::exit(99);
}

} // namespace

// The one question that start-up asks; it goes on without an answer.
int T::getFreeSpace(const char*, float*, unsigned long*) {
    return 11;
}

bool T::pathExists(const char*) {
    return false;
}

int T::deletePackageItems(std::vector<std::string>) {
    unexpected("deletePackageItems");
}
int T::copySja(const char*) {
    unexpected("copySja");
}
int T::copySja(const char*, std::string&, std::string) {
    unexpected("copySja");
}
int T::extractSja(const char*) {
    unexpected("extractSja");
}
int T::verifySja(const char*) {
    unexpected("verifySja");
}
int T::readSjaContents(const char*, std::vector<QvRepoPackageItem>&) {
    unexpected("readSjaContents");
}
int T::confirmAction(const std::string&, std::ostream&, std::istream&) {
    unexpected("confirmAction");
}
stat_array* T::stat_archive(const char*) {
    unexpected("stat_archive");
}
int T::do_extract(const char*, const char*) {
    unexpected("do_extract");
}
int T::fileCOPY(const char*, const char*) {
    unexpected("fileCOPY");
}
int T::fileDELETE(const char*) {
    unexpected("fileDELETE");
}
