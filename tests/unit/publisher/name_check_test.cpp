#include "publisher/name_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr const char* FORM =
    "it is not of the form dunmarel_TYPE_VERSION_OS.sja or dunmarel_TYPE_EEBVERSION_VERSION_OS.sja";

} // namespace

TEST(PackageName, IsFaultlessOrHasAReason) {
    const std::pair<std::string, std::string> cases[] = {
        {"dunmarel_qvclient_8.3.0.1_redhat_x64.sja", ""},
        {"qvclient_8.3_redhat_x64.sja", ""},
        {"dunmarel_qveeb.server_3.1_8.1.2_suse_ppc64le.sja", ""},
        {"dunmarel_maint.qv_8.2_windows_x64", ""},
        {"", FORM},
        {"dunmarel_", FORM},
        {"package.sja", FORM},
        {"dunmarel_qvclient_8.0_redhat.sja", FORM},
        {"dunmarel_qvtool_8.0_redhat_x64.sja", "its package type is unknown"},
        {"x_dunmarel_qvclient_8.3_redhat_x64.sja", "its package type is unknown"},
        {"dunmarel_qvclient_7.6_redhat_x64.sja", "its version is missing or lower than 7.7"},
        {"dunmarel_qvclient_beta_redhat_x64.sja", "its version is missing or lower than 7.7"},
        {"dunmarel_qvclient_8.0_centos_x64.sja", "its operating system is unknown"},
        {"dunmarel_qveeb_3.1a_8.0_redhat_x64.sja", "its EEB version is not up to 12 digits and dots"},
        {"dunmarel_qvclient_8.3_redhat_x64." + std::string(120, 'x'), "it is longer than 127 bytes"},
    };
    for (const auto& [name, fault] : cases)
        EXPECT_EQ(package_name_fault(name), fault) << name;
}

TEST(Warnings, AreNoneForASinglePackageWithAGoodName) {
    EXPECT_THAT(warnings_about("/some/where/dunmarel_qvclient_8.3_redhat_x64.sja",
                               {{"any name", 1, 0644}, {"inner.sja", 1, 0644}}),
                IsEmpty());
}

TEST(Warnings, CoverTheEntriesOfAnEnvelope) {
    EXPECT_THAT(
        warnings_about("bad.sja", {{"dunmarel_qvclient_8.3_redhat_x64.sja", 1, 0644}, {"x.sja", 1, 0644}}),
        ElementsAre(std::string("bad.sja is no name for a package: ") + FORM,
                    std::string("x.sja is no name for a package: ") + FORM));
}

TEST(Warnings, CoverMoreEntriesThanARepositoryLists) {
    std::vector<ArchiveEntry> entries(15, ArchiveEntry{"file", 1, 0644});
    EXPECT_THAT(warnings_about("dunmarel_qvclient_8.3_redhat_x64.sja", entries), IsEmpty());
    entries.push_back({"one more", 1, 0644});
    EXPECT_THAT(
        warnings_about("dunmarel_qvclient_8.3_redhat_x64.sja", entries),
        ElementsAre("a repository lists only the first entries of an archive of more than 15; this one has "
                    "16"));
}
