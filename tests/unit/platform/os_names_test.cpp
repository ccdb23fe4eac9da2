#include "platform/os_names.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

struct OsRow {
    int code;
    const char* key;
};

constexpr OsRow TABLE[] = {
    {
        1,
        "aix_rs6000",
    },
    {2, "debian_x64"},
    {3, "hpux_ia64"},
    {4, "redhat_ppc64le"},
    {5, "redhat_x64"},
    {6, "redhat_zseries"},
    {7, "solaris_sparc"},
    {8, "solaris_x64"},
    {9, "suse_ppc64le"},
    {10, "suse_x64"},
    {11, "suse_zseries"},
    {12, "windows_x64"},
};

TEST(OsNames, EachCodeHasItsKey) {
    for (const OsRow& row : TABLE)
        EXPECT_STREQ(QV_os_name(row.code), row.key) << "code " << row.code;
}

TEST(OsNames, CodesEndWithTheTable) {
    EXPECT_EQ(QV_os_count(), 12);
}

TEST(OsNames, UnknownCodesAreInvalid) {
    for (const int code : {0, 13, -1, 100, INT_MIN, INT_MAX})
        EXPECT_STREQ(QV_os_name(code), "INVALID") << "code " << code;
}

} // namespace
