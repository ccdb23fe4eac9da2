// Two replacement seam units for tests: every member of T records its call and answers as the test says.
//
// A member that the test has given no answer to is an unexpected call, which fails the test. Call reset() at
// the start of each test, then set the answers: seam().pathExists = [](const char*) { return true; };

#ifndef TESTS_SUPPORT_FAKE_SEAM_H
#define TESTS_SUPPORT_FAKE_SEAM_H

#include "seam/T.h"

#include <functional>
#include <string>
#include <vector>

struct FakeSeam {
    std::function<int(user_permission_type_t)> is_user_admin;
    std::function<void(const char*, const char*, const char*, int, int*)> open_debug_log;
    std::function<int(const char*)> lunt_is_master_server;
    std::function<int()> QV_read_master_config;

    std::function<int(const char*, float*, unsigned long*)> getFreeSpace;
    std::function<bool(const char*)> pathExists;
    std::function<int(std::vector<std::string>)> deletePackageItems;
    std::function<int(const char*)> copySja;
    std::function<int(const char*, std::string&, std::string)> copySjaAs; // the three-argument form
    std::function<int(const char*)> extractSja;
    std::function<int(const char*)> verifySja;
    std::function<int(const char*, std::vector<QvRepoPackageItem>&)> readSjaContents;
    std::function<int(const std::string&, std::ostream&, std::istream&)> confirmAction;
    std::function<stat_array*(const char*)> stat_archive;
    std::function<int(const char*, const char*)> do_extract;
    std::function<int(const char*, const char*)> fileCOPY;
    std::function<int(const char*)> fileDELETE;

    // Every call so far, written like "fileCOPY(/a, /b)".
    std::vector<std::string> calls;

    void reset() { *this = FakeSeam(); }
};

// The one fake that the replacement units answer from.
FakeSeam& seam();

#endif
