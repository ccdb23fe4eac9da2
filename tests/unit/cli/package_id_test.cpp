#include "cli/package_id.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct IdCase {
    const char *text, *id;
};

TEST(PackageId, IsValidWithLeadingZerosASignOrWhiteSpaceAndIsNormalised) {
    const IdCase cases[] = {{"7", "7"},  {"007", "7"},    {"+7", "7"},
                            {" 7", "7"}, {"\t\n 7", "7"}, {"1234567890123", "1234567890123"}};
    LogCapture log;
    for (const IdCase& one : cases) {
        std::string id = "before";
        EXPECT_TRUE(validatePackageId(one.text, id)) << one.text;
        EXPECT_EQ(id, one.id) << one.text;
    }
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST(PackageId, IsInvalidWhenNotAWholeNumberAboveZeroAndIsLoggedAsTyped) {
    const IdCase cases[] = {{"0", "0"},   {"-3", "-3"}, {"7a", "7"}, {"0x7", "0"}, {"", "0"},    {"7 ", "7"},
                            {"abc", "0"}, {"+-7", "0"}, {" ", "0"},  {"7.0", "7"}, {"- 7", "0"}, {"00", "0"}};
    for (const IdCase& one : cases) {
        LogCapture log;
        std::string id = "before";
        EXPECT_FALSE(validatePackageId(one.text, id)) << one.text;
        EXPECT_EQ(id, one.id) << "[" << one.text << "]";
        EXPECT_THAT(log.records(),
                    ElementsAre(LogRecord{16, "validatePackageId",
                                          "[" + std::string(one.text) + "] is not a valid package ID."}));
    }
}

TEST(PackageId, TooLargeFor64BitsIsTakenAsTheLargest) {
    std::string id;
    EXPECT_TRUE(validatePackageId("9223372036854775807", id));
    EXPECT_EQ(id, "9223372036854775807");
    EXPECT_TRUE(validatePackageId("9223372036854775808", id));
    EXPECT_EQ(id, "9223372036854775807");
    EXPECT_TRUE(validatePackageId("99999999999999999999999999", id));
    EXPECT_EQ(id, "9223372036854775807");
    EXPECT_FALSE(validatePackageId("-99999999999999999999999999", id));
    EXPECT_EQ(id, "-9223372036854775808");
}

} // namespace
