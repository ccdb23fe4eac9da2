#include "model/dunmarel_common.h"

#include <gtest/gtest.h>

namespace {

constexpr unsigned long long KB = 1024;

struct SizeCase {
    unsigned long long bytes;
    const char* text;
};

TEST(FormatSize, WritesTwoDecimalsTheUnitAndCommasBetweenThousands) {
    const SizeCase cases[] = {
        {0, "0.00 B"},
        {1, "1.00 B"},
        {999, "999.00 B"},
        {1000, "1,000.00 B"},
        {1536, "1.50 KB"},
        {3414444441ULL, "3.18 GB"},
        {5 * KB * KB * KB * KB * KB, "5,120.00 TB"},
    };
    for (const SizeCase& size : cases)
        EXPECT_EQ(formatSize(size.bytes), size.text) << size.bytes;
}

TEST(FormatSize, MovesToTheNextUnitAtExactly1024AndStaysAt1023) {
    const SizeCase cases[] = {
        {1023, "1,023.00 B"},
        {1024, "1.00 KB"},
        {1023 * KB, "1,023.00 KB"},
        {KB * KB, "1.00 MB"},
        {1023 * KB * KB, "1,023.00 MB"},
        {KB * KB * KB, "1.00 GB"},
        {1023 * KB * KB * KB, "1,023.00 GB"},
        {KB * KB * KB * KB, "1.00 TB"},
    };
    for (const SizeCase& size : cases)
        EXPECT_EQ(formatSize(size.bytes), size.text) << size.bytes;
}

TEST(FormatSize, PutsTheCommaByTheTruncatedNumberWhenRoundingCarries) {
    EXPECT_EQ(formatSize(1048575), "1,024.00 KB");
    EXPECT_EQ(formatSize(1023996), "1000.00 KB") << "999.996 KB has three digits before it is rounded";
}

TEST(FormatSize, StaysInTerabytesWithACommaEveryThreeDigits) {
    EXPECT_EQ(formatSize(1ULL << 50), "1,024.00 TB");
    EXPECT_EQ(formatSize(1ULL << 60), "1,048,576.00 TB");
}

TEST(FormatSize, TakesCountsOf2To63AndMoreAsUnsigned) {
    EXPECT_EQ(formatSize(1ULL << 63), "8,388,608.00 TB");
    EXPECT_EQ(formatSize(~0ULL), "16,777,216.00 TB");
}

} // namespace
