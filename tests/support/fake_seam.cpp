#include "tests/support/fake_seam.h"

#include "model/QvRepoPackage.h"

#include <gtest/gtest.h>

namespace {

std::string written(const char* text) {
    return text == nullptr ? "null" : text;
}

// Records the call and passes it to the test's answer; without one the call is unexpected.
template <typename Result, typename... Parameters, typename... Arguments>
Result answer(const std::string& call, const std::function<Result(Parameters...)>& handler,
              Arguments&&... arguments) {
    seam().calls.push_back(call);
    if (handler)
        return handler(std::forward<Arguments>(arguments)...);
    ADD_FAILURE() << "unexpected call " << call;
    return Result();
}

} // namespace

FakeSeam& seam() {
    static FakeSeam fake;
    return fake;
}

int T::is_user_admin(user_permission_type_t permission) {
    return answer("is_user_admin(" + std::to_string(permission) + ")", seam().is_user_admin, permission);
}

void T::open_debug_log(const char* directory, const char* program, const char* logName, int mode,
                       int* status) {
    answer("open_debug_log(" + written(directory) + ", " + written(program) + ", " + written(logName) + ", " +
               std::to_string(mode) + ")",
           seam().open_debug_log, directory, program, logName, mode, status);
}

int T::lunt_is_master_server(const char* host) {
    return answer("lunt_is_master_server(" + written(host) + ")", seam().lunt_is_master_server, host);
}

int T::QV_read_master_config() {
    return answer("QV_read_master_config()", seam().QV_read_master_config);
}

int T::getFreeSpace(const char* path, float* percentFree, unsigned long* megabytesFree) {
    return answer("getFreeSpace(" + written(path) + ")", seam().getFreeSpace, path, percentFree,
                  megabytesFree);
}

bool T::pathExists(const char* path) {
    return answer("pathExists(" + written(path) + ")", seam().pathExists, path);
}

int T::deletePackageItems(std::vector<std::string> paths) {
    std::string call = "deletePackageItems(";
    for (std::size_t i = 0; i < paths.size(); ++i)
        call += (i == 0 ? "" : ", ") + paths[i];
    return answer(call + ")", seam().deletePackageItems, paths);
}

int T::copySja(const char* path) {
    return answer("copySja(" + written(path) + ")", seam().copySja, path);
}

int T::copySja(const char* path, std::string& destination, std::string name) {
    return answer("copySja(" + written(path) + ", " + destination + ", " + name + ")", seam().copySjaAs, path,
                  destination, name);
}

int T::extractSja(const char* path) {
    return answer("extractSja(" + written(path) + ")", seam().extractSja, path);
}

int T::verifySja(const char* path) {
    return answer("verifySja(" + written(path) + ")", seam().verifySja, path);
}

int T::readSjaContents(const char* path, std::vector<QvRepoPackageItem>& items) {
    return answer("readSjaContents(" + written(path) + ")", seam().readSjaContents, path, items);
}

int T::confirmAction(const std::string& prompt, std::ostream& out, std::istream& in) {
    return answer("confirmAction(" + prompt + ")", seam().confirmAction, prompt, out, in);
}

stat_array* T::stat_archive(const char* path) {
    return answer("stat_archive(" + written(path) + ")", seam().stat_archive, path);
}

int T::do_extract(const char* archive, const char* destination) {
    return answer("do_extract(" + written(archive) + ", " + written(destination) + ")", seam().do_extract,
                  archive, destination);
}

int T::fileCOPY(const char* from, const char* to) {
    return answer("fileCOPY(" + written(from) + ", " + written(to) + ")", seam().fileCOPY, from, to);
}

int T::fileDELETE(const char* path) {
    return answer("fileDELETE(" + written(path) + ")", seam().fileDELETE, path);
}
