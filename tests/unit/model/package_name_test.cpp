#include "model/dunmarel_common.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

struct ParsedName {
    int error;
    pkg_details details;
};

ParsedName parse(const std::string& name) {
    ParsedName parsed{};
    std::strncpy(parsed.details.name, name.c_str(), sizeof parsed.details.name - 1);
    parsed.error = extract_package_details_from_name(&parsed.details);
    return parsed;
}

struct VersionCase {
    const char* text;
    int packed;
};

TEST(StrToVersion, KeepsTwoDigitsOfTheMajorNumberAndOneOfEachOther) {
    const VersionCase cases[] = {
        {"8.3.0.1", 830100}, {"7.7", 770000},           {"10.1.1", 1011000},       {"8", 800000},
        {"0.0", 0},          {"1.2.3.4.5.6", 123456},   {"1.2.3.4.5.6.7", 123456}, {"8.3x", 830000},
        {"8.x.3", 800000},   {"99.9.9.9.9.9", 9999999},
    };
    for (const VersionCase& version : cases)
        EXPECT_EQ(str_to_version(version.text), version.packed) << version.text;
}

TEST(StrToVersion, Returns107WithoutALeadingNumberAndForItsTwin) {
    for (const char* text : {"beta", "", ".8", "x8"})
        EXPECT_EQ(str_to_version(text), 107) << text;
    EXPECT_EQ(str_to_version("0.0.0.1.0.7"), 107);
}

struct AcceptedName {
    const char* name;
    int type, version, baseVersion, os;
    const char *versionText, *eebVersion;
};

TEST(PackageName, IsSplitIntoTypeVersionEebVersionAndOperatingSystem) {
    const AcceptedName names[] = {
        {"qvclient_8.3.0.1_redhat_x64.sja", 1, 830100, 830000, 5, "8.3.0.1", ""},
        {"qveeb.server_3.1_8.1.2_suse_ppc64le.sja", 8, 812000, 812000, 9, "8.1.2", "3.1"},
        {"maint.qv_8.2_windows_x64", 9, 820000, 820000, 12, "8.2", ""},
        {"qvclient_8.3.4.5.6.7_redhat_x64.sja", 1, 834567, 834000, 5, "8.3.4.5.6.7", ""},
        {"__qvclient__8.3___redhat_x64", 1, 830000, 830000, 5, "8.3", ""},
    };
    for (const AcceptedName& name : names) {
        const ParsedName parsed = parse(name.name);
        ASSERT_EQ(parsed.error, 0) << name.name;
        EXPECT_EQ(parsed.details.type, name.type) << name.name;
        EXPECT_EQ(parsed.details.version, name.version) << name.name;
        EXPECT_EQ(parsed.details.baseVersion, name.baseVersion) << name.name;
        EXPECT_EQ(parsed.details.os, name.os) << name.name;
        EXPECT_STREQ(parsed.details.versionText, name.versionText) << name.name;
        EXPECT_STREQ(parsed.details.eebVersion, name.eebVersion) << name.name;
    }
}

struct RefusedName {
    const char* name;
    int error;
};

TEST(PackageName, IsRefusedWithTheCodeOfTheFirstThingWrong) {
    const RefusedName names[] = {
        {"", 1},
        {"qvclient_7.6_redhat_x64.sja", 103},
        {"qvclient_8.0_redhat.sja", 101},
        {"qvclient", 101},
        {"___", 101},
        {"qvtool_8.0_redhat_x64.sja", 102},
        {"QVclient_8.0_redhat_x64.sja", 102},
        {"qvclien_8.0_redhat_x64.sja", 102},
        {"qvclient_8.0_centos_x64.sja", 104},
        {"qvclient_8.0_redhat_x64le", 104},
        {"qvclient_8.0_Redhat_x64", 104},
        {"qveeb_3.1a_8.0_redhat_x64.sja", 105},
        {"qveeb_1234567890.12_8.0_redhat_x64.sja", 105},
        // Type before version before EEB version before operating system.
        {"qvtool_3.1a_7.0_centos_x64", 102},
        {"qveeb_3.1a_7.0_centos_x64", 103},
        {"qveeb_3.1a_8.0_centos_x64", 105},
    };
    for (const RefusedName& name : names)
        EXPECT_EQ(parse(name.name).error, name.error) << name.name;
    EXPECT_EQ(extract_package_details_from_name(nullptr), 1);
}

TEST(PackageName, TakesAnEebVersionOfTwelveCharactersAndKeepsEleven) {
    const ParsedName parsed = parse("qveeb_123456789.12_8.0_redhat_x64");
    EXPECT_EQ(parsed.error, 0);
    EXPECT_STREQ(parsed.details.eebVersion, "123456789.1");
}

TEST(PackageName, KeepsElevenCharactersOfAVersionTextAndComparesTheWholeOne) {
    const ParsedName parsed = parse("qvclient_8.3.0.1.0.0.0.0_redhat_x64");
    EXPECT_EQ(parsed.error, 0);
    EXPECT_STREQ(parsed.details.versionText, "8.3.0.1.0.0");
}

TEST(PackageName, NeedsAVersionOfAtLeast7Point7) {
    const RefusedName names[] = {
        {"qvclient_7.7_redhat_x64", 0},     {"qvclient_7.7.0.0.0.1_redhat_x64", 0},
        {"qvclient_8_redhat_x64", 0},       {"qvclient_7.6.9_redhat_x64", 103},
        {"qvclient_7_redhat_x64", 103},     {"qvclient_beta_redhat_x64", 103},
        {"qvclient_100.7_redhat_x64", 103}, // the major number keeps two digits
    };
    for (const RefusedName& name : names)
        EXPECT_EQ(parse(name.name).error, name.error) << name.name;
}

TEST(PackageName, IgnoresPartsBeyondTheFifthAndReadsTheFirstFiveInTheLongForm) {
    // The third part, x, counts as the version.
    EXPECT_EQ(parse("qvclient_9.1_x_redhat_x64_extra.sja").error, 103);
    EXPECT_EQ(parse("qveeb_1.0_8.3_redhat_x64_extra.sja").error, 0);
}

TEST(PackageName, IsCutToItsFieldWhenItFillsItWithoutAnEnd) {
    pkg_details details{};
    const std::string start = "qvclient_8.3_redhat_x64.";
    std::memset(details.name, 'x', sizeof details.name);
    std::memcpy(details.name, start.c_str(), start.length());
    std::memcpy(details.name + sizeof details.name - 2, "_y", 2); // a fifth part, were it not cut off
    EXPECT_EQ(extract_package_details_from_name(&details), 0);

    EXPECT_EQ(parse("qvclient_8.3_" + std::string(200, 'r')).error, 101)
        << "the fourth part lies past the cut";
}

TEST(PackageName, LosesItsExtensionAtTheFirstDotOfTheOperatingSystem) {
    EXPECT_EQ(parse("qvclient_8.3_redhat_x64.tar.gz").error, 0);
    EXPECT_EQ(parse("qvclient_8.3_red.hat_x64.sja").error, 104) << "cut to red";
    EXPECT_EQ(parse("qvclient_8.3_redhat_x64").error, 0);
}

TEST(PackageName, KeepsWhatWasFilledBeforeAFailure) {
    const ParsedName parsed = parse("qvclient_8.3_centos_x64");
    EXPECT_EQ(parsed.error, 104);
    EXPECT_EQ(parsed.details.type, 1);
    EXPECT_STREQ(parsed.details.versionText, "8.3");
    EXPECT_EQ(parsed.details.os, 0);
}

TEST(PackageType, EveryKeyHasItsCode) {
    const char* keys[] = {"qvclient",
                          "qvserver",
                          "qvinstallagent",
                          "qvprechecker",
                          "qvjavajre",
                          "qv",
                          "qveeb.client",
                          "qveeb.server",
                          "maint.qv",
                          "maint.qvclient",
                          "maint.qvserver",
                          "maint.qvinstallagent",
                          "maint.qvprechecker",
                          "maint.qvjavajre",
                          "maint.qvrt",
                          "qveeb",
                          "qvrt",
                          "mongotc"};
    int code = 0;
    for (const char* key : keys) {
        ++code;
        EXPECT_EQ(get_package_type_string(code), key);
        EXPECT_EQ(parse(std::string(key) + "_8.3_redhat_x64").details.type, code) << key;
    }
    EXPECT_EQ(code, PACKAGE_TYPE_COUNT);
    for (int unknown : {0, -1, 19, 1000})
        EXPECT_EQ(get_package_type_string(unknown), "INVALID") << unknown;
}

TEST(PackageOs, EveryKeyHasItsCode) {
    const char* keys[] = {"aix_rs6000",   "debian_x64",     "hpux_ia64",     "redhat_ppc64le",
                          "redhat_x64",   "redhat_zseries", "solaris_sparc", "solaris_x64",
                          "suse_ppc64le", "suse_x64",       "suse_zseries",  "windows_x64"};
    int code = 0;
    for (const char* key : keys) {
        ++code;
        EXPECT_EQ(get_package_os_string(code), key);
        EXPECT_EQ(parse("qvclient_8.3_" + std::string(key) + ".sja").details.os, code) << key;
    }
    for (int unknown : {0, -1, 13})
        EXPECT_EQ(get_package_os_string(unknown), "INVALID") << unknown;
}

} // namespace
