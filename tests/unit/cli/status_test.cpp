#include "cli/message_buffers.h"
#include "cli/messages.h"
#include "cli/status.h"
#include "tests/support/flush_record.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <sstream>

namespace {

using testing::ElementsAre;

std::string shown(int status) {
    std::ostringstream out;
    showCommandStatus(status, "main", out);
    return out.str();
}

LogRecord exit_record(int status) {
    return {4, "main", "qvrepo exit status: [" + std::to_string(status) + "]"};
}

struct Row {
    int code;
    const char *id, *text;
};

// Written out once more, so that a change of the table cannot pass unseen.
const Row ROWS[] = {
    {20, "TqlRpo0008N", "invalid command parameter"},
    {104, "TqlRpo0022N", "Package path is not valid."},
    {110, "TqlRpo0003N", "failed to read master config."},
    {111, "TqlRpo0004N", "no master server found."},
    {117, "TqlRpo0006N", "authorization failed."},
    {118, "TqlRpo0006N", "authorization failed."},
    {132, "TqlRpo0002N", "must be administrator."},
    {153, "TqlRpo0005N", "the operation is only supported on master server."},
    {5761, "TqlRpo0035N", "Failed to initialize Windows Socket library."},
    {5930, "TqlRpo0006N", "authorization failed."},
    {7214, "TqlRpo0018N", "Failed to copy the specified file. Could not copy package to repository."},
    {7215, "TqlRpo0016N", "Input package file verification failed. Failed to stat Dunmarel package."},
    {7216, "TqlRpo0017N", "Unrecognized package name."},
    {7217, "TqlRpo0013N", "Package repository location does not exist."},
    {7218, "TqlRpo0009N", "Package already exists in the repository."},
    {7219, "TqlRpo0020N", "Invalid package ID."},
    {7220, "TqlRpo0010N", "Deployment package is not found in the repository."},
    {7221, "TqlRpo0021N", "Package delete operation was canceled."},
    {7225, "TqlRpo0012N", "A required file or directory was not found. Input file path does not exist."},
    {7235, "TqlRpo0015N", "Input package file verification failed. Could not open package file."},
    {7236, "TqlRpo0011N", "The Dunmarel package signature is invalid."},
    {7237, "TqlRpo0014N",
     "Input package file verification failed. The public key was not found at the expected location."},
    {7252, "TqlRpo0019N", "The attempt to extract a package was unsuccessful."},
    {7264, "TqlRpo0037N", "Package version is not supported."},
    {7265, "TqlRpo0038N", "Package type is not supported."},
    {7266, "TqlRpo0039N", "Package operating system is not supported."},
    {7267, "TqlRpo0040N", "Package EEB version is not supported."},
    {8000, "TqlRpo0006N", "authorization failed."},
    {9103, "TqlRpo0007N", "Unexpected response from the web service."},
};

TEST(StatusTexts, AreThoseThatOtherToolsKnow) {
    ASSERT_EQ(STATUS_MESSAGES.size(), std::size(ROWS));
    for (std::size_t i = 0; i < std::size(ROWS); ++i) {
        EXPECT_EQ(STATUS_MESSAGES[i].code, ROWS[i].code);
        EXPECT_STREQ(STATUS_MESSAGES[i].id, ROWS[i].id) << ROWS[i].code;
        EXPECT_STREQ(english_text(STATUS_MESSAGES[i].id), ROWS[i].text) << ROWS[i].code;
    }
}

TEST(EnglishText, OfAnIdentifierThatIsNotInTheTableIsTheIdentifier) {
    EXPECT_STREQ(english_text("TqlRpo0001N"), "TqlRpo0001N");
}

TEST(CommandStatus, PrintsErrorAndTheTextOfEveryRow) {
    for (const Row& row : ROWS) {
        const std::string prefix = row.code == 7221 ? "" : "Error: ";
        EXPECT_EQ(shown(row.code), prefix + row.text + "\n") << row.code;
        EXPECT_STREQ(msg, row.text);
        EXPECT_STREQ(msg_E, row.text);
    }
}

TEST(CommandStatus, LogsTheEnglishTextOfEveryRowButThreeAtLevel16) {
    for (const Row& row : ROWS) {
        LogCapture log;
        shown(row.code);
        if (row.code == 132 || row.code == 110 || row.code == 111)
            EXPECT_THAT(log.records(), ElementsAre(exit_record(row.code)));
        else
            EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, "main", row.text}, exit_record(row.code)));
    }
}

TEST(CommandStatus, IsFlushed) {
    FlushRecord out;
    showCommandStatus(20, "main", out.stream);
    EXPECT_THAT(out.flushed, ElementsAre("Error: invalid command parameter\n"));
}

TEST(CommandStatus, ForACancelledDeletionHasNoErrorPrefixAndIsLogged) {
    LogCapture log;
    EXPECT_EQ(shown(7221), "Package delete operation was canceled.\n");
    EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, "main", "Package delete operation was canceled."},
                                           exit_record(7221)));
}

TEST(CommandStatus, WithoutARowGetsTheGeneralTextAndThePlatformsTextInTheLog) {
    for (int status : {7263, 1, 7, 28, 60, -1, 21, 9104, INT_MAX, INT_MIN}) {
        LogCapture log;
        const std::string number = std::to_string(status);
        EXPECT_EQ(shown(status), "Error: qvrepo operation failed with status [" + number + "].\n");
        EXPECT_STREQ(msg_E, "");
        EXPECT_THAT(log.records(),
                    ElementsAre(LogRecord{16, "main", "status code " + number}, exit_record(status)));
    }
}

TEST(CommandStatus, Of55GetsTheGeneralTextAndNoErrorRecord) {
    LogCapture log;
    EXPECT_EQ(shown(55), "Error: qvrepo operation failed with status [55].\n");
    EXPECT_THAT(log.records(), ElementsAre(exit_record(55)));
}

TEST(CommandStatus, Of0PrintsNothingAndLogsTheExitStatusAlone) {
    LogCapture log;
    EXPECT_EQ(shown(0), "");
    EXPECT_THAT(log.records(), ElementsAre(exit_record(0)));
}

TEST(CommandStatus, LogsUnderTheCallersName) {
    LogCapture log;
    std::ostringstream out;
    showCommandStatus(20, "elsewhere", out);
    EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, "elsewhere", "invalid command parameter"},
                                           LogRecord{4, "elsewhere", "qvrepo exit status: [20]"}));
}

TEST(CommandStatus, ReplacesTheEnglishCopyOfAnEarlierStatus) {
    shown(20);
    LogCapture log;
    shown(7263);
    EXPECT_EQ(log.records().front().text, "status code 7263");
}

} // namespace
