#include "cli/help.h"
#include "cli/message_buffers.h"
#include "cli/placeholders.h"
#include "tests/support/command_world.h"
#include "tests/support/flush_record.h"

#include <gtest/gtest.h>

#include <iostream>
#include <regex>

namespace {

// What `run` writes to standard output, by stream or by C calls.
template <typename Run>
std::string standard_output_of(Run run) {
    testing::internal::CaptureStdout();
    run();
    std::cout.flush();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(Help, IsSixTextsWithTheirOwnLineEnds) {
    std::ostringstream out;
    showHelp(out);
    EXPECT_EQ(out.str(), HELP_TEXT);
    EXPECT_STREQ(outline, "qvrepo -h | -help\n");
}

TEST(Validate, WithoutArgumentsSaysThatItIsNotYetImplemented) {
    EXPECT_EQ(standard_output_of([] { EXPECT_EQ(validatePackagesCmd(0, nullptr), 0); }),
              "qvrepo -validate is not yet implemented.\n");
}

TEST(Validate, WithArgumentsPrintsTheirAddressAndTheHelp) {
    const char* arguments[] = {"x", nullptr};
    const std::string output = standard_output_of([&] { EXPECT_EQ(validatePackagesCmd(1, arguments), 1); });
    std::ostringstream address;
    address << static_cast<void*>(arguments);
    EXPECT_EQ(output, address.str() + "\n" + HELP_TEXT);
    EXPECT_TRUE(std::regex_search(output, std::regex("^0x[0-9a-f]+\n")));
}

TEST(Validate, FlushesTheLineOfTheAddress) {
    const char* arguments[] = {"x", nullptr};
    FlushRecord out;
    std::streambuf* const standard_output = std::cout.rdbuf(out.stream.rdbuf());
    validatePackagesCmd(1, arguments);
    std::cout.rdbuf(standard_output);
    std::ostringstream address;
    address << static_cast<void*>(arguments) << "\n";
    EXPECT_THAT(out.flushed, testing::ElementsAre(address.str()));
}

TEST(GetPkg, WithAnIdAndADestinationSaysThatItIsNotYetImplemented) {
    const char* arguments[] = {"42", "-dest", "/tmp"};
    EXPECT_EQ(standard_output_of([&] { EXPECT_EQ(getPackageCmd(3, arguments), 0); }),
              "qvrepo -getPkg 42 -dest /tmp is not yet implemented.\n");
}

TEST(GetPkg, WithAnythingElsePrintsTheHelp) {
    const std::vector<std::vector<const char*>> wrong = {{},
                                                         {"42"},
                                                         {"42", "-dest"},
                                                         {"42", "-Dest", "/tmp"},
                                                         {"-dest", "42", "/tmp"},
                                                         {"42", "-dest", "/tmp", "x"}};
    for (auto arguments : wrong)
        EXPECT_EQ(standard_output_of([&] {
                      EXPECT_EQ(getPackageCmd(static_cast<int>(arguments.size()), arguments.data()), 1);
                  }),
                  HELP_TEXT)
            << arguments.size();
}

} // namespace
