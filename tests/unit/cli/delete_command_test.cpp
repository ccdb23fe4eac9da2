#include "cli/commands.h"
#include "tests/support/child_process.h"
#include "tests/support/command_world.h"

#include <csignal>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* DELETE = "deletePackageCmd";
constexpr const char* URI = "quorvelle/deployment/packages/7";

class Delete : public CommandWorld {
  protected:
    void SetUp() override {
        CommandWorld::SetUp();
        answers(1);
        files_are_deleted(1);
    }

    static void answers(int yes) {
        seam().confirmAction = [yes](const std::string&, std::ostream&, std::istream&) { return yes; };
    }
    static void files_are_deleted(int all) {
        seam().deletePackageItems = [all](std::vector<std::string>) { return all; };
    }
    int remove(std::vector<const char*> arguments) {
        return deletePackageCmd(static_cast<int>(arguments.size()), arguments.data(), out_, in_);
    }

    const std::string package_ =
        PackageJson().with("packageItemFilePaths", "[\"/repo/b.sja\", \"/repo/a.sja\"]").response();
    std::istringstream in_;
};

TEST_F(Delete, FetchesAsksDeletesTheMetadataAndThenTheFiles) {
    answer(200, package_);
    answer(204, "");
    EXPECT_EQ(remove({"7"}), 0);
    EXPECT_EQ(out_.str(), "Package ID 7 has been deleted from the repository.\n");
    EXPECT_THAT(service().requests, ElementsAre(SentRequest{"GET", URI, ""}, SentRequest{"DELETE", URI, ""}));
    EXPECT_EQ(service().clients, 1) << "one client for both requests";
    EXPECT_THAT(calls_after_startup(), ElementsAre("pathExists(/usr/ormex/var/global/repo)",
                                                   "confirmAction(qvrepo: delete package ID 7 [y/n]? (n) )",
                                                   "deletePackageItems(/repo/b.sja, /repo/a.sja)"));
    EXPECT_EQ(records_after_startup(),
              (exchange_records(URI, "", package_, 200, 200) +
               std::vector<LogRecord>{
                   {4, DELETE, "Successfully retrieved deployment package details from the repository."}} +
               exchange_records(URI, "", "", 204, 204) +
               std::vector<LogRecord>{{2, DELETE, "Successfully deleted package 0 metadata."},
                                      {4, DELETE, "Package ID 7 has been deleted from the repository."}}));
}

TEST_F(Delete, QuotesTheIdAsTypedAndSendsAndPromptsTheNumber) {
    answer(200, package_);
    answer(204, "");
    EXPECT_EQ(remove({"007"}), 0);
    EXPECT_EQ(out_.str(), "Package ID 007 has been deleted from the repository.\n");
    EXPECT_THAT(service().requests, ElementsAre(SentRequest{"GET", URI, ""}, SentRequest{"DELETE", URI, ""}));
    EXPECT_EQ(calls_after_startup()[1], "confirmAction(qvrepo: delete package ID 7 [y/n]? (n) )");
}

TEST_F(Delete, WithoutExactlyOneArgumentPrintsTheHelpAndSendsNothing) {
    for (const auto& arguments : std::vector<std::vector<const char*>>{{}, {"7", "8"}}) {
        out_.str("");
        EXPECT_EQ(remove(arguments), 20);
        EXPECT_EQ(out_.str(), HELP_TEXT);
    }
    EXPECT_THAT(seam().calls, IsEmpty());
}

TEST_F(Delete, ReturnsTheStatusOfAFailedStartup) {
    set_master_config(nullptr);
    EXPECT_EQ(remove({"7"}), 110);
}

TEST_F(Delete, RefusesWhatIsNotAnIdAfterLookingForTheRepository) {
    EXPECT_EQ(remove({"abc"}), 7219);
    EXPECT_EQ(log_.records().back(),
              (LogRecord{16, "validatePackageId", "[abc] is not a valid package ID."}));
    seam().pathExists = [](const char*) { return false; };
    EXPECT_EQ(remove({"abc"}), 7217);
    EXPECT_EQ(
        log_.records().back(),
        (LogRecord{16, DELETE, "Package repository location does not exist: [/usr/ormex/var/global/repo]."}));
    EXPECT_EQ(service().clients, 0);
}

TEST_F(Delete, OfAnUnknownIdAsksNothing) {
    answer_error(404, 227);
    EXPECT_EQ(remove({"007"}), 7220);
    EXPECT_THAT(calls_after_startup(), ElementsAre("pathExists(/usr/ormex/var/global/repo)"));
    const auto records = records_after_startup();
    ASSERT_GE(records.size(), 2U);
    EXPECT_EQ(
        records[records.size() - 2],
        (LogRecord{
            16, DELETE,
            "Failed to retrieve deployment package in the repository. Error code returned from curlSendRequest: 227."}));
    EXPECT_EQ(records.back(), (LogRecord{16, DELETE, "Package ID [007] does not exist in the repository."}));
}

TEST_F(Delete, OfAnIdThatTheServiceDoesNotTakeIsInvalid) {
    answer_error(400, 8626);
    EXPECT_EQ(remove({"+7"}), 7219);
    EXPECT_EQ(log_.records().back(), (LogRecord{16, DELETE, "[+7] is not a valid package ID."}));
}

TEST_F(Delete, ReturnsAnyOtherCodeOfTheFetch) {
    no_exchange(28);
    EXPECT_EQ(remove({"7"}), 28);
    answer_error(403, 8000);
    EXPECT_EQ(remove({"7"}), 8000);
    EXPECT_EQ(service().requests.size(), 2U);
}

TEST_F(Delete, ReturnsTheStatusThatAnUnusableResponseThrows) {
    answer(200, "<html>");
    EXPECT_EQ(remove({"7"}), 9103);
    EXPECT_EQ(
        log_.records().back(),
        (LogRecord{
            16, DELETE,
            "Failed to retrieve deployment package in the repository. Error code returned from QvRepoPackage: 9103."}));
}

TEST_F(Delete, ChangesNothingWhenTheUserSaysNo) {
    answers(0);
    answer(200, package_);
    EXPECT_EQ(remove({"007"}), 7221);
    EXPECT_EQ(out_.str(), "");
    EXPECT_THAT(service().requests, ElementsAre(SentRequest{"GET", URI, ""}));
    EXPECT_EQ(log_.records().back(),
              (LogRecord{4, DELETE, "qvrepo operation aborted. Package ID [007] has not been deleted."}));
}

TEST_F(Delete, LeavesTheFilesWhenTheServiceRefuses) {
    answer(200, package_);
    answer_error(403, 8000);
    EXPECT_EQ(remove({"007"}), 8000);
    EXPECT_EQ(calls_after_startup().back(), "confirmAction(qvrepo: delete package ID 7 [y/n]? (n) )");
    EXPECT_EQ(
        log_.records().back(),
        (LogRecord{
            2, DELETE,
            "Failed to delete deployment package ID: 007 from the repository. Error code returned from curlSendRequest: 8000. "}));
    EXPECT_EQ(out_.str(), "");
}

// They mean an unknown and a malformed ID only where the package is asked for.
TEST_F(Delete, ReturnsTheCodes227And8626OfTheDeletionUnchanged) {
    for (const int code : {227, 8626}) {
        answer(200, package_);
        answer_error(404, code);
        EXPECT_EQ(remove({"7"}), code);
    }
}

TEST_F(Delete, CountsOnly204AsDeleted) {
    answer(200, package_);
    answer(200, "{}");
    EXPECT_EQ(remove({"7"}), 9103);
    EXPECT_EQ(calls_after_startup().back(), "confirmAction(qvrepo: delete package ID 7 [y/n]? (n) )")
        << "no files are deleted";
}

TEST_F(Delete, SucceedsWhenAFileCannotBeDeletedAndLogsIt) {
    files_are_deleted(0);
    answer(200, package_);
    answer(204, "");
    EXPECT_EQ(remove({"7"}), 0);
    EXPECT_EQ(out_.str(), "Package ID 7 has been deleted from the repository.\n");
    const auto records = records_after_startup();
    ASSERT_GE(records.size(), 2U);
    EXPECT_EQ(
        records[records.size() - 2],
        (LogRecord{
            16, DELETE,
            "Package metadata has been deleted, but one or more package file items have not been deleted. "}));
}

TEST_F(Delete, OfAPackageWithoutItemsDeletesNoFiles) {
    answer(200, PackageJson().with("packageItemFilePaths", "[]").response());
    answer(204, "");
    EXPECT_EQ(remove({"7"}), 0);
    EXPECT_EQ(calls_after_startup().back(), "deletePackageItems()");
}

TEST_F(Delete, InterruptedAtTheQuestionEndsAtOnce) {
    seam().confirmAction = [](const std::string&, std::ostream&, std::istream&) {
        return std::raise(SIGTERM) + 1;
    };
    const int ending = in_child([this] {
        answer(200, package_);
        return remove({"7"});
    });
    EXPECT_EQ(ending, 128 + SIGTERM);
    EXPECT_EQ(log_.records().back().text,
              "Successfully retrieved deployment package details from the repository.");
}

TEST_F(Delete, InterruptedWhileTheMetadataIsDeletedDeletesTheFilesFirst) {
    seam().deletePackageItems = [](std::vector<std::string>) { return 0; };
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const int ending = in_child([this, signal] {
            answer(200, package_);
            service().answers.push_back({204, "", 0, 0, signal});
            return remove({"7"});
        });
        EXPECT_EQ(ending, 128 + signal);
        const std::vector<LogRecord> records = log_.records();
        EXPECT_THAT(
            std::vector<LogRecord>(records.end() - 3, records.end()),
            ElementsAre(
                LogRecord{
                    16, DELETE,
                    "Package metadata has been deleted, but one or more package file items have not been deleted. "},
                LogRecord{4, DELETE, "Package ID 7 has been deleted from the repository."},
                LogRecord{16, "DeferredSignals", "qvrepo ends by signal " + std::to_string(signal) + "."}));
    }
}

} // namespace
