#include "publisher/name_check.h"

#include "publisher/archive_table.h"
#include "tests/support/sja_builder.h"

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

class Warnings : public ::testing::Test {
  protected:
    std::vector<std::string> about(const std::string& name, const std::vector<SjaEntry>& entries) const {
        write_file(directory_.path(name), sja_bytes(entries));
        return Archive(directory_.path(name))
            .walk([](const ArchiveEntry&) {})
            .warnings(directory_.path(name));
    }

    TemporaryDirectory directory_;
};

TEST_F(Warnings, AreNoneForASinglePackageWithAGoodName) {
    EXPECT_THAT(about("dunmarel_qvclient_8.3_redhat_x64.sja",
                      {{"inner.sja", "1"}, {"any name", "1"}, {"inner.sja", "1"}}),
                IsEmpty());
}

TEST_F(Warnings, CoverTheEntriesOfAnEnvelope) {
    EXPECT_THAT(about("bad.sja", {{"dunmarel_qvclient_8.3_redhat_x64.sja", "1"}, {"x.sja", "1"}}),
                ElementsAre(std::string("bad.sja is no name for a package: ") + FORM,
                            std::string("x.sja is no name for a package: ") + FORM));
}

TEST_F(Warnings, CoverTheFirstOfVeryManyNames) {
    const std::vector<SjaEntry> entries(1003, SjaEntry{"x.sja", "1"});
    const std::vector<std::string> warnings = about("dunmarel_qvclient_8.3_redhat_x64.sja", entries);
    ASSERT_EQ(warnings.size(), 1002U);
    EXPECT_EQ(warnings[999], std::string("x.sja is no name for a package: ") + FORM);
    EXPECT_EQ(warnings[1000], "so it is with the names of 3 more entries");
}

TEST_F(Warnings, CoverMoreEntriesThanARepositoryLists) {
    std::vector<SjaEntry> entries(15, SjaEntry{"file", "1"});
    EXPECT_THAT(about("dunmarel_qvclient_8.3_redhat_x64.sja", entries), IsEmpty());
    entries.push_back({"one more", "1"});
    EXPECT_THAT(
        about("dunmarel_qvclient_8.3_redhat_x64.sja", entries),
        ElementsAre("a repository lists only the first entries of an archive of more than 15; this one has "
                    "16"));
}
