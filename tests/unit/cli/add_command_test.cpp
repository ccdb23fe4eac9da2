#include "cli/commands.h"
#include "model/QvRepoPackage.h"
#include "platform/interruption.h"
#include "tests/support/child_process.h"
#include "tests/support/command_world.h"
#include "tests/support/flush_record.h"

#include <csignal>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* ADD = "addPackagesCmd";
constexpr const char* PACKAGES = "quorvelle/deployment/packages";
constexpr const char* PACKAGE = "/tmp/dunmarel_qvclient_8.3_redhat_x64.sja";
const std::string ANNOUNCEMENT = "Adding package to the repository. This may take a few minutes...\n";
const std::string BODY =
    "{\"data\": {\"type\": \"newPackageAttributes\", \"attributes\": "
    "{\"packageFileName\": \"dunmarel_qvclient_8.3_redhat_x64.sja\", "
    "\"packageName\": \"dunmarel_qvclient_8.3_redhat_x64.sja\", \"os\": \"redhat_x64\", \"version\": "
    "\"8.3\", "
    "\"packageType\": \"qvclient\", \"packageItems\": [{\"fileName\": \"a\", \"fileSize\": 5}]}}}";

class Add : public CommandWorld {
  protected:
    void SetUp() override {
        CommandWorld::SetUp();
        seam().verifySja = [](const char*) { return 0; };
        seam().readSjaContents = [](const char*, std::vector<QvRepoPackageItem>& items) {
            items.push_back({"a", 5});
            return 0;
        };
    }

    int add(std::vector<const char*> arguments) {
        return addPackagesCmd(static_cast<int>(arguments.size()), arguments.data(), out_);
    }

    static std::string single(const std::string& id) {
        return PackageJson().with("id", "\"" + id + "\"").response();
    }
    static std::string bundle(const std::string& id) {
        return PackageJson()
            .with("id", "\"" + id + "\"")
            .with("packageItemFilePaths", "[\"/repo/a.sja\", \"/repo/b.sja\"]")
            .response();
    }
    // The last `count` records.
    std::vector<LogRecord> last_records(std::size_t count) const {
        const std::vector<LogRecord> all = log_.records();
        return {all.end() - static_cast<std::ptrdiff_t>(std::min(count, all.size())), all.end()};
    }
};

TEST_F(Add, HasFlushedItsAnnouncementWhenTheVerificationBegins) {
    FlushRecord out;
    seam().verifySja = [&](const char*) {
        EXPECT_THAT(out.flushed, ElementsAre(ANNOUNCEMENT));
        return 7236;
    };
    const char* arguments[] = {PACKAGE};
    EXPECT_EQ(addPackagesCmd(1, arguments, out.stream), 7236);
}

TEST_F(Add, VerifiesRegistersAndCopiesASinglePackage) {
    seam().copySja = [](const char*) { return 0; };
    answer(201, single("12"));
    EXPECT_EQ(add({PACKAGE}), 0);
    EXPECT_EQ(out_.str(), ANNOUNCEMENT + "Successfully added deployment package ID: 12 to the repository.\n");
    EXPECT_THAT(service().requests, ElementsAre(SentRequest{"POST", PACKAGES, BODY}));
    EXPECT_EQ(service().host, "master.example.com");
    EXPECT_EQ(service().port, 1556);
    const std::string path = PACKAGE;
    EXPECT_THAT(calls_after_startup(), ElementsAre("pathExists(" + path + ")", "verifySja(" + path + ")",
                                                   "readSjaContents(" + path + ")", "copySja(" + path + ")"));
    EXPECT_EQ(records_after_startup(),
              (std::vector<LogRecord>{
                   {4, "QvRepoAddInfo::getJSONPackageDetails", "Package details in JSON format: " + BODY}} +
               exchange_records(PACKAGES, BODY, single("12"), 201, 201) +
               std::vector<LogRecord>{
                   {4, "QvRepoPackage::isBundle",
                    "Package file [dunmarel_qvclient_8.3_redhat_x64.sja] is a single sja."},
                   {4, ADD, "Successfully added deployment package ID: 12 to the repository."}}));
}

TEST_F(Add, HoldsItsClientToTheEndAndASecondOneForTheCleanUp) {
    seam().copySja = [](const char*) {
        EXPECT_EQ(service().alive, 1);
        return 7214;
    };
    answer(201, single("12"));
    answer_error(404, 227);
    EXPECT_EQ(add({PACKAGE}), 7214);
    EXPECT_EQ(service().most_alive, 2);
}

TEST_F(Add, ExtractsABundle) {
    seam().extractSja = [](const char*) { return 0; };
    answer(201, bundle("12"));
    EXPECT_EQ(add({PACKAGE}), 0);
    EXPECT_EQ(calls_after_startup().back(), std::string("extractSja(") + PACKAGE + ")");
    EXPECT_EQ(out_.str(), ANNOUNCEMENT + "Successfully added deployment package ID: 12 to the repository.\n");
}

TEST_F(Add, WithoutExactlyOneArgumentPrintsTheHelpAndNoAnnouncement) {
    for (const auto& arguments : std::vector<std::vector<const char*>>{{}, {PACKAGE, PACKAGE}}) {
        out_.str("");
        EXPECT_EQ(add(arguments), 20);
        EXPECT_EQ(out_.str(), HELP_TEXT);
    }
    EXPECT_THAT(seam().calls, IsEmpty());
}

TEST_F(Add, ReturnsTheStatusOfAFailedStartup) {
    seam().lunt_is_master_server = [](const char*) { return 0; };
    EXPECT_EQ(add({PACKAGE}), 153);
    EXPECT_EQ(out_.str(), "");
}

TEST_F(Add, OfAMissingFileFailsWithoutTheAnnouncement) {
    seam().pathExists = [](const char*) { return false; };
    EXPECT_EQ(add({"/tmp/none.sja"}), 7225);
    EXPECT_EQ(out_.str(), "");
    EXPECT_THAT(
        records_after_startup(),
        ElementsAre(LogRecord{
            16, ADD, "Failed to read package content. Supplied .sja file [/tmp/none.sja] does not exist."}));
    EXPECT_EQ(service().clients, 0);
}

TEST_F(Add, OfAFileThatFailsVerificationAnnouncesAndSendsNothing) {
    for (int status : {7225, 7235, 7236, 7237}) {
        out_.str("");
        seam().verifySja = [status](const char*) { return status; };
        EXPECT_EQ(add({PACKAGE}), status);
        EXPECT_EQ(out_.str(), ANNOUNCEMENT);
    }
    EXPECT_EQ(service().clients, 0);
    EXPECT_EQ(seam().calls.back(), std::string("verifySja(") + PACKAGE + ")");
}

TEST_F(Add, ReturnsTheStatusOfUnreadableContentsAtOnceAndWithoutALineOfItsOwn) {
    seam().readSjaContents = [](const char*, std::vector<QvRepoPackageItem>&) { return 7215; };
    EXPECT_EQ(add({PACKAGE}), 7215);
    EXPECT_EQ(service().clients, 0);
    EXPECT_THAT(records_after_startup(), IsEmpty());
}

TEST_F(Add, ReturnsTheStatusOfARefusedName) {
    EXPECT_EQ(add({"/tmp/qvtool_8.3_redhat_x64.sja"}), 7265);
    EXPECT_EQ(service().clients, 0);
}

TEST_F(Add, ReturnsTheServicesRefusalAndTouchesNoFiles) {
    answer_error(409, 7218);
    EXPECT_EQ(add({PACKAGE}), 7218);
    EXPECT_EQ(calls_after_startup().back(), std::string("readSjaContents(") + PACKAGE + ")");
    EXPECT_THAT(
        last_records(1),
        ElementsAre(LogRecord{
            16, ADD,
            "Failed to add deployment package metadata. Error code returned from curlSendRequest: 7218."}));
    EXPECT_EQ(out_.str(), ANNOUNCEMENT);
}

TEST_F(Add, ReturnsTheCodes227And8626OfTheRegistrationUnchanged) {
    for (const int code : {227, 8626}) {
        answer_error(404, code);
        EXPECT_EQ(add({PACKAGE}), code);
    }
}

TEST_F(Add, CountsOnly201AsRegistered) {
    answer(200, single("12"));
    EXPECT_EQ(add({PACKAGE}), 9103);
    EXPECT_EQ(service().requests.size(), 1U);
}

TEST_F(Add, RemovesTheRegistrationWhenTheExtractionFails) {
    seam().extractSja = [](const char*) { return 7252; };
    answer(201, bundle("12"));
    const std::string gone = R"({"errorCode": 227, "errorMessage": "x"})";
    answer(404, gone);
    EXPECT_EQ(add({PACKAGE}), 7252);
    EXPECT_THAT(service().requests,
                ElementsAre(SentRequest{"POST", PACKAGES, BODY},
                            SentRequest{"DELETE", "quorvelle/deployment/packages/12", ""}));
    EXPECT_EQ(service().clients, 2);
    EXPECT_EQ(
        last_records(5),
        (std::vector<LogRecord>{
             {16, ADD,
              "Failed to extract deployment package items to the repository. Error code returned from QvRepoAddInfo:extractSja: 7252."},
             {4, ADD, "Deleting the stale package metadata."}} +
         exchange_records("quorvelle/deployment/packages/12", "", gone, 404, 404)));
    EXPECT_EQ(out_.str(), ANNOUNCEMENT);
}

TEST_F(Add, RemovesTheRegistrationWhenTheCopyFailsWithTheWordingOfTheExtraction) {
    seam().copySja = [](const char*) { return 7214; };
    answer(201, single("12"));
    answer_error(404, 227);
    EXPECT_EQ(add({PACKAGE}), 7214);
    EXPECT_THAT(
        log_.records(),
        testing::Contains(LogRecord{
            16, ADD,
            "Failed to extract deployment package items to the repository. Error code returned from QvRepoAddInfo:extractSja: 7214."}));
    EXPECT_EQ(service().requests.back(), (SentRequest{"DELETE", "quorvelle/deployment/packages/12", ""}));
}

TEST_F(Add, ExpectsA404FromTheCleanUpSoThatAPlainSuccessIsLoggedAsAFailure) {
    seam().copySja = [](const char*) { return 7214; };
    answer(201, single("12"));
    answer(204, "");
    EXPECT_EQ(add({PACKAGE}), 7214) << "the copy's status, never the clean-up's";
    EXPECT_THAT(
        last_records(1),
        ElementsAre(LogRecord{
            16, ADD,
            "Package was not added into the repository, but qvrepo failed to remove its metadata. Status code returned from curlSendRequest: 9103."}));
}

TEST_F(Add, ReturnsTheFileStatusWhenTheCleanUpCannotBeSent) {
    seam().extractSja = [](const char*) { return 7252; };
    answer(201, bundle("12"));
    no_exchange(7);
    EXPECT_EQ(add({PACKAGE}), 7252);
    EXPECT_THAT(log_.records().back().text,
                testing::EndsWith("Status code returned from curlSendRequest: 7."));
}

TEST_F(Add, LeavesTheRegistrationWhenItsAnswerCannotBeRead) {
    answer(201, "<html>");
    EXPECT_EQ(add({PACKAGE}), 9103);
    EXPECT_EQ(service().requests.size(), 1U) << "no clean-up";
    EXPECT_THAT(
        last_records(1),
        ElementsAre(LogRecord{
            16, ADD,
            "Failed to add deployment package to repository location. Error code returned from QvRepoPackage: 0. "}));
}

TEST_F(Add, LeavesTheRegistrationWhenTheFileStepThrows) {
    seam().copySja = [](const char*) -> int { throw 4711; };
    answer(201, single("12"));
    EXPECT_EQ(add({PACKAGE}), 4711);
    EXPECT_EQ(service().requests.size(), 1U);
    EXPECT_THAT(
        last_records(1),
        ElementsAre(LogRecord{
            16, ADD,
            "Failed to add deployment package to repository location. Error code returned from QvRepoPackage: 0. "}));
}

TEST_F(Add, LogsTheFileStatusWhenTheCleanUpThrows) {
    seam().copySja = [](const char*) { return 7214; };
    answer(201, single("12"));
    service().answers.push_back({0, "", 0, 4711});
    EXPECT_EQ(add({PACKAGE}), 4711);
    EXPECT_THAT(
        last_records(1),
        ElementsAre(LogRecord{
            16, ADD,
            "Failed to add deployment package to repository location. Error code returned from QvRepoPackage: 7214. "}));
}

TEST_F(Add, ReportsTheIdThatTheServiceAssigned) {
    seam().copySja = [](const char*) { return 0; };
    answer(201, single("a strange id"));
    EXPECT_EQ(add({PACKAGE}), 0);
    EXPECT_EQ(out_.str(),
              ANNOUNCEMENT + "Successfully added deployment package ID: a strange id to the repository.\n");
}

// Signals

class InterruptedAdd : public Add {
  protected:
    void SetUp() override {
        Add::SetUp();
        seam().copySja = [](const char*) { return interruption_noted() ? 7214 : 0; };
    }

    // Adds a package in a process of its own; how that ended, 128 + the signal.
    int ending(const std::vector<ScriptedAnswer>& answers) {
        return in_child([this, &answers] {
            service().answers.assign(answers.begin(), answers.end());
            return add({PACKAGE});
        });
    }

    std::vector<std::string> log_texts() const {
        std::vector<std::string> texts;
        for (const LogRecord& record : records_after_startup())
            texts.push_back(record.text);
        return texts;
    }
};

TEST_F(InterruptedAdd, BeforeTheRegistrationEndsAtOnce) {
    seam().verifySja = [](const char*) { return std::raise(SIGTERM); };
    EXPECT_EQ(ending({}), 128 + SIGTERM);
    EXPECT_THAT(records_after_startup(), IsEmpty());
}

TEST_F(InterruptedAdd, DuringTheRegistrationReadsItsAnswerRemovesItAndEndsByTheSignal) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const std::string gone = R"({"errorCode": 227, "errorMessage": "x"})";
        EXPECT_EQ(ending({{201, single("12"), 0, 0, signal}, {404, gone}}), 128 + signal);
        EXPECT_EQ(last_records(5),
                  (std::vector<LogRecord>{{4, ADD, "Deleting the stale package metadata."}} +
                   exchange_records("quorvelle/deployment/packages/12", "", gone, 404, 404) +
                   std::vector<LogRecord>{
                       {16, "DeferredSignals", "qvrepo ends by signal " + std::to_string(signal) + "."}}));
    }
}

TEST_F(InterruptedAdd, AfterItsFilesAreInPlaceReportsItsSuccessFirst) {
    seam().copySja = [](const char*) { return std::raise(SIGTERM); };
    EXPECT_EQ(ending({{201, single("12")}}), 128 + SIGTERM);
    EXPECT_THAT(log_texts(),
                testing::Contains("Successfully added deployment package ID: 12 to the repository."));
}

} // namespace
