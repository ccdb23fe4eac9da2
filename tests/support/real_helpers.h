// Lets the replacement seam answer with the real repository helpers, for tests that replace only some of
// them. Needs qvrepo_files.

#ifndef TESTS_SUPPORT_REAL_HELPERS_H
#define TESTS_SUPPORT_REAL_HELPERS_H

#include "files/QvRepoHelper.h"
#include "files/extractsja.h"
#include "platform/file_ops.h"
#include "tests/support/fake_seam.h"

// Starts the fake anew with every repository helper and file call answered by its real target. What a test
// replaces afterwards is a failing neighbour.
inline FakeSeam& seam_with_real_helpers() {
    FakeSeam& fake = seam();
    fake.reset();
    fake.getFreeSpace = QvRepoHelper::getFreeSpace;
    fake.pathExists = QvRepoHelper::pathExists;
    fake.deletePackageItems = QvRepoHelper::deletePackageItems;
    fake.copySja = [](const char* path) { return QvRepoHelper::copySja(path); };
    fake.copySjaAs = [](const char* path, std::string& destination, const std::string& name) {
        return QvRepoHelper::copySja(path, destination, name);
    };
    fake.extractSja = QvRepoHelper::extractSja;
    fake.verifySja = QvRepoHelper::verifySja;
    fake.readSjaContents = QvRepoHelper::readSjaContents;
    fake.confirmAction = QvRepoHelper::confirmAction;
    fake.stat_archive = stat_archive;
    fake.do_extract = do_extract;
    fake.fileCOPY = fileCOPY;
    fake.fileDELETE = fileDELETE;
    return fake;
}

#endif
