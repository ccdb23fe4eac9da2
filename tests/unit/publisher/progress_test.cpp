#include "publisher/progress.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

std::string bar(int filled, const std::string& percent) {
    return "\r[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(40 - filled), ' ') + "] " + percent + "%";
}

} // namespace

TEST(ProgressBar, IsDrawnWhenThePercentageChangesAndWipedAtTheEnd) {
    std::ostringstream out;
    {
        Progress progress(1000, &out);
        EXPECT_EQ(out.str(), "");
        progress.advance(0);
        progress.advance(9);
        progress.advance(1);
        progress.advance(490);
        progress.advance(500);
    }
    EXPECT_EQ(out.str(), bar(0, "  0") + bar(0, "  1") + bar(20, " 50") + bar(40, "100") + "\r\x1b[K");
}

TEST(ProgressBar, StopsAt100Percent) {
    std::ostringstream out;
    {
        Progress progress(10, &out);
        progress.advance(10);
        progress.advance(10);
    }
    EXPECT_EQ(out.str(), bar(40, "100") + "\r\x1b[K");
}

TEST(ProgressBar, OfNothingIsDoneAtOnce) {
    std::ostringstream out;
    {
        Progress progress(0, &out);
        progress.advance(0);
    }
    EXPECT_EQ(out.str(), bar(40, "100") + "\r\x1b[K");
}

TEST(ProgressBar, WithoutATerminalIsNeverDrawn) {
    Progress progress(10, nullptr);
    progress.advance(10);
}

TEST(ProgressBar, ThatNeverBeganLeavesNoTrace) {
    std::ostringstream out;
    { const Progress progress(10, &out); }
    EXPECT_EQ(out.str(), "");
}
