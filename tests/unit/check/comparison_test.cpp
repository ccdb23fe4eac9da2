#include "check/repository.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr std::time_t NOW = 1'000'000'000;
constexpr long SETTLE = 120;
const std::string REPO = "/usr/ormex/var/global/repo/";

// A comparison of packages and entries that the test names, at the time NOW.
class ComparisonOf : public testing::Test {
  protected:
    ComparisonOf() { directory_.status.st_mode = S_IFDIR | 0750; }

    void put(const std::string& name, mode_t mode = S_IFREG | 0644, off_t size = 10,
             std::time_t changed = 0) {
        struct stat& status = directory_.entries[name];
        status.st_mode = mode;
        status.st_size = size;
        status.st_ctim.tv_sec = changed;
    }

    void list(const std::string& id, const std::string& file_name, const std::vector<std::string>& paths,
              std::time_t created = 0, std::uint64_t size = 10) {
        packages_.push_back({id, file_name, paths, size, created, paths.size() == 1});
    }

    // "NAME ID PATH: COMMAND" of each finding, PATH below the repository, "~" in front of what is pending.
    std::vector<std::string> found() {
        comparison_ = compare(packages_, directory_, "m", NOW, SETTLE);
        std::vector<std::string> lines;
        for (const Finding& each : comparison_.findings) {
            std::string path = each.path;
            if (path.compare(0, REPO.size(), REPO) == 0)
                path.erase(0, REPO.size());
            lines.push_back((each.severity == Severity::PENDING ? "~" : "") + std::string(each.kind->name) +
                            " " + each.id + " " + path + ": " +
                            each.remedy.substr(0, each.remedy.find(" -sS")));
        }
        return lines;
    }

    Directory directory_;
    std::vector<Registration> packages_;
    Comparison comparison_;
};

TEST_F(ComparisonOf, HalvesThatAgreeFindsNothing) {
    put("a");
    put("b");
    put("c");
    list("1", "a", {REPO + "a"});
    list("2", "bundle", {REPO + "b", REPO + "c"});
    EXPECT_THAT(found(), IsEmpty());
    EXPECT_EQ(comparison_.candidates.size(), 3U);
}

TEST_F(ComparisonOf, PathsTakesOnlyNamesInTheDirectory) {
    put("..a");
    for (const char* path :
         {"", "a", "/etc/passwd", "/usr/ormex/var/global/repository/a", "/usr/ormex/var/global/repo"})
        list("1", "a", {path});
    for (const char* name : {"", ".", "..", "../a", "a/b", "/a"})
        list("2", "a", {REPO + name});
    list("3", "b", {REPO + "..a"});
    const std::vector<std::string> lines = found();
    EXPECT_EQ(lines.size(), 11U + 1U); // the names of 1 and 2 are the same, too
    for (const Finding& each : comparison_.findings)
        EXPECT_TRUE(each.kind == &OUTSIDE || each.kind == &DUPLICATE_NAME) << each.path;
}

TEST_F(ComparisonOf, AMissingFileIsPendingForAWhile) {
    list("1", "a", {REPO + "a"}, NOW - SETTLE + 1);
    list("2", "b", {REPO + "b"}, NOW - SETTLE);
    list("3", "c", {REPO + "c"}, NOW + SETTLE); // a clock that is wrong settles nothing for ever
    EXPECT_THAT(found(),
                ElementsAre("~missing-file 1 a: qvrepo -delete 1", "missing-file 2 b: qvrepo -delete 2",
                            "missing-file 3 c: qvrepo -delete 3"));
}

TEST_F(ComparisonOf, AnotherSizeIsPendingOnlyInAnEarlierFileOfAYoungPackage) {
    put("a", S_IFREG, 9, NOW - 20);
    put("b", S_IFREG, 9, NOW - 5);
    list("1", "a", {REPO + "a"}, NOW - 10);
    list("2", "b", {REPO + "b"}, NOW - 10);
    EXPECT_THAT(found(),
                ElementsAre("~wrong-size 1 a: qvrepo -delete 1", "wrong-size 2 b: qvrepo -delete 2"));
}

TEST_F(ComparisonOf, ADirectoryIsMovedAwayFirst) {
    put("a", S_IFDIR | 0755);
    list("1", "a", {REPO + "a"});
    EXPECT_THAT(found(), ElementsAre("not-a-file 1 a: mv -T -- " + REPO + "a " + REPO +
                                     "a.moved && qvrepo -delete 1"));
}

TEST_F(ComparisonOf, AFileOfSeveralPackagesIsNeverDeletedWithOneOfThem) {
    put("x", S_IFREG | 0644, 9);
    list("1", "a", {REPO + "x"});
    list("2", "b", {REPO + "x"});
    list("3", "c", {REPO + "x"});
    EXPECT_THAT(found(), ElementsAre("shared-file 1 x: curl", "shared-file 2 x: curl", "wrong-size 1 x: curl",
                                     "wrong-size 2 x: curl", "wrong-size 3 x: curl"));
}

TEST_F(ComparisonOf, OnePackageMayNameAFileTwiceAndBeListedTwice) {
    put("x");
    list("1", "bundle", {REPO + "x", REPO + "x"});
    list("1", "bundle", {REPO + "x", REPO + "x"});
    EXPECT_THAT(found(), IsEmpty());
}

} // namespace
