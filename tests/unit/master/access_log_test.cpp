#include "master/access_log.h"
#include "master/log_error.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <thread>

namespace {

// The log's lines without their beginning, which tells the time.
std::vector<std::string> lines_of(const std::string& file) {
    const std::string beginning = R"({"time": "2026-11-20T23:34:00.123Z", )";
    std::vector<std::string> lines;
    std::istringstream text(read_file(file));
    for (std::string line; std::getline(text, line);)
        lines.push_back(line.substr(std::min(beginning.size(), line.size())));
    return lines;
}

TEST(AccessLog, WritesOneLinePerRequestBehindEarlierOnes) {
    TemporaryDirectory directory;
    const std::string file = directory.path("log");
    const std::string line = R"("method": "PUT", "target": "/\"\u00ff", "accept": "a", "contentType": "c", )"
                             R"("body": "b\u000a", "status": 405})";
    for (int run = 0; run < 2; ++run)
        AccessLog(file).write({"PUT", "/\"\xff", "a", "c", "b\n"}, 405);
    EXPECT_EQ(lines_of(file), (std::vector<std::string>{line, line}));
}

TEST(AccessLog, IsKeptFromOtherUsersWhateverTheMask) {
    TemporaryDirectory directory;
    const std::string file = directory.path("log");
    const mode_t before = umask(0);
    const AccessLog log(file);
    umask(before);
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0640));
}

TEST(AccessLog, KeepsTheBeginningOfALargeBody) {
    TemporaryDirectory directory;
    const std::string file = directory.path("log");
    AccessLog(file).write({"POST", "", "", "", std::string(65537, 'x')}, 400);
    const std::string line = lines_of(file).at(0);
    EXPECT_EQ(std::count(line.begin(), line.end(), 'x'), 65536);
}

TEST(AccessLog, KeepsLinesOfManyThreadsApart) {
    TemporaryDirectory directory;
    const std::string file = directory.path("log");
    AccessLog log(file);
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&log] {
            for (int n = 0; n < 50; ++n)
                log.write({"GET", std::string(5000, 'x'), "", "", ""}, 200);
        });
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<std::string> lines = lines_of(file);
    EXPECT_EQ(lines.size(), 400U);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), lines[0]), 400);
}

TEST(AccessLog, ThatIsKeptNowhereTakesLinesAllTheSame) {
    testing::internal::CaptureStderr();
    AccessLog().write({"GET", "/", "", "", ""}, 200);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(AccessLog, ThatCannotBeWrittenIsReported) {
    AccessLog log("/dev/full");
    testing::internal::CaptureStderr();
    log.write({"GET", "/", "", "", ""}, 200);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qvmaster: cannot write the access log: No space left on device\n");
}

TEST(AccessLog, ThatIsOpenedAgainHasANewFileOfItsName) {
    TemporaryDirectory directory;
    const std::string file = directory.path("log");
    AccessLog log(file);
    std::filesystem::rename(file, directory.path("old"));
    log.write({"GET", "/", "", "", ""}, 200);
    log.reopen();
    log.write({"GET", "/", "", "", ""}, 200);
    EXPECT_EQ(lines_of(directory.path("old")).size(), 1U);
    EXPECT_EQ(lines_of(file).size(), 1U);
}

TEST(AccessLog, ThatCannotBeOpenedKeepsTheServiceFromStarting) {
    EXPECT_THROW(AccessLog("/nowhere/log"), StartFailure);
}

} // namespace
