#include "master/log_error.h"

#include <gtest/gtest.h>

namespace {

TEST(LogError, IsOneLineWhateverItsText) {
    testing::internal::CaptureStderr();
    log_error("a\nqvmaster: forged\x1b[2J ü");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "qvmaster: a?qvmaster: forged?[2J ü\n");
}

} // namespace
