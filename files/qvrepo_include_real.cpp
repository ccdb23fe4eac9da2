// The seam's repository helpers and file calls, for the real machine.

#include "files/QvRepoHelper.h"
#include "files/extractsja.h"
#include "platform/file_ops.h"
#include "seam/T.h"

#include <utility>

int T::getFreeSpace(const char* path, float* percentFree, unsigned long* megabytesFree) {
    return QvRepoHelper::getFreeSpace(path, percentFree, megabytesFree);
}

bool T::pathExists(const char* path) {
    return QvRepoHelper::pathExists(path);
}

int T::deletePackageItems(std::vector<std::string> paths) {
    return QvRepoHelper::deletePackageItems(std::move(paths));
}

int T::copySja(const char* path) {
    return QvRepoHelper::copySja(path);
}

int T::copySja(const char* path, std::string& destination, std::string name) {
    return QvRepoHelper::copySja(path, destination, std::move(name));
}

int T::extractSja(const char* path) {
    return QvRepoHelper::extractSja(path);
}

int T::verifySja(const char* path) {
    return QvRepoHelper::verifySja(path);
}

int T::readSjaContents(const char* path, std::vector<QvRepoPackageItem>& items) {
    return QvRepoHelper::readSjaContents(path, items);
}

int T::confirmAction(const std::string& prompt, std::ostream& out, std::istream& in) {
    return QvRepoHelper::confirmAction(prompt, out, in);
}

stat_array* T::stat_archive(const char* path) {
    return ::stat_archive(path);
}

int T::do_extract(const char* archive, const char* destination) {
    return ::do_extract(archive, destination);
}

int T::fileCOPY(const char* from, const char* to) {
    return ::fileCOPY(from, to);
}

int T::fileDELETE(const char* path) {
    return ::fileDELETE(path);
}
