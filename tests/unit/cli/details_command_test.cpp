#include "cli/commands.h"
#include "tests/support/command_world.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* DETAILS = "getPackageDetailsCmd";

class Details : public CommandWorld {
  protected:
    int details(std::vector<const char*> arguments) {
        return getPackageDetailsCmd(static_cast<int>(arguments.size()), arguments.data(), out_);
    }
};

TEST_F(Details, AsksForThePackageAndPrintsIt) {
    const std::string body = PackageJson().response();
    answer(200, body);
    EXPECT_EQ(details({"7"}), 0);
    EXPECT_THAT(service().requests, ElementsAre(SentRequest{"GET", "quorvelle/deployment/packages/7", ""}));
    EXPECT_EQ(service().host, "master.example.com");
    EXPECT_EQ(service().port, 1556);
    EXPECT_EQ(out_.str(), "                  Package ID: 7\n"
                          "           Package File Name: dunmarel_qvclient_8.3_redhat_x64.sja\n"
                          "                Package Type: client\n"
                          "            Operating System: redhat_x64\n"
                          "             Release Version: 8.3\n"
                          "                Installables: qvclient_8.3\n"
                          "                Package Size: 1.50 KB\n"
                          "     Created Date/Time (UTC): 2021-03-04 05:06:07\n");
    EXPECT_EQ(records_after_startup(),
              (exchange_records("quorvelle/deployment/packages/7", "", body, 200, 200) +
               std::vector<LogRecord>{
                   {4, DETAILS, "Successfully retrieved deployment package details from the repository."}}));
}

// An output that throws a status with the first byte that it is given.
class ThrowingOutput : public std::streambuf {
    int_type overflow(int_type /*byte*/) override { throw 5; }
};

TEST_F(Details, LogsTheSuccessBeforeItPrintsAndReturnsTheStatusThatThePrinterThrows) {
    ThrowingOutput output;
    std::ostream out(&output);
    out.exceptions(std::ios::badbit);
    const char* arguments[] = {"7"};
    answer(200, PackageJson().response());
    EXPECT_EQ(getPackageDetailsCmd(1, arguments, out), 5);
    std::vector<LogRecord> records = log_.records();
    records.erase(records.begin(), records.end() - 2);
    EXPECT_THAT(
        records,
        ElementsAre(
            LogRecord{4, DETAILS, "Successfully retrieved deployment package details from the repository."},
            LogRecord{
                2, DETAILS,
                "Failed to retrieve deployment package in the repository. Error code returned from QvRepoPackage: 5."}));
}

TEST_F(Details, HoldsItsClientUntilAllIsPrinted) {
    ClientsWhilePrinting printed;
    std::ostream out(&printed);
    const char* id = "7";
    answer(200, PackageJson().response());
    EXPECT_EQ(getPackageDetailsCmd(1, &id, out), 0);
    EXPECT_EQ(printed.clients, 1);
}

TEST_F(Details, WithoutExactlyOneArgumentPrintsTheHelpAndSendsNothing) {
    for (const auto& arguments : std::vector<std::vector<const char*>>{{}, {"7", "8"}}) {
        out_.str("");
        EXPECT_EQ(details(arguments), 20);
        EXPECT_EQ(out_.str(), HELP_TEXT);
    }
    EXPECT_THAT(seam().calls, IsEmpty());
    EXPECT_EQ(service().clients, 0);
}

TEST_F(Details, ReturnsTheStatusOfAFailedStartup) {
    seam().QV_read_master_config = [] { return 1; };
    EXPECT_EQ(details({"7"}), 110);
    EXPECT_EQ(service().clients, 0);
}

TEST_F(Details, RefusesWhatIsNotAnIdBeforeAnyRequest) {
    for (const char* id : {"0", "-4", "12x", "", "abc"})
        EXPECT_EQ(details({id}), 7219) << id;
    EXPECT_EQ(service().clients, 0);
    EXPECT_EQ(log_.records().back(),
              (LogRecord{16, "validatePackageId", "[abc] is not a valid package ID."}));
}

TEST_F(Details, ChecksTheRepositoryBeforeTheId) {
    seam().pathExists = [](const char*) { return false; };
    EXPECT_EQ(details({"7"}), 7217);
    EXPECT_EQ(details({"abc"}), 7217);
    EXPECT_EQ(log_.records().back(),
              (LogRecord{16, DETAILS,
                         "Package repository location does not exist: [/usr/ormex/var/global/repo]."}));
}

TEST_F(Details, OfAnUnknownIdSendsTheNumberAndLogsTheIdAsTyped) {
    answer_error(404, 227);
    EXPECT_EQ(details({"007"}), 7220);
    EXPECT_THAT(service().requests, ElementsAre(SentRequest{"GET", "quorvelle/deployment/packages/7", ""}));
    const auto records = records_after_startup();
    ASSERT_GE(records.size(), 2U);
    EXPECT_EQ(
        records[records.size() - 2],
        (LogRecord{
            2, DETAILS,
            "Failed to retrieve deployment package in the repository. Error code returned from curlSendRequest: 227."}));
    EXPECT_EQ(records.back(), (LogRecord{16, DETAILS, "Package ID [007] does not exist in the repository."}));
}

TEST_F(Details, OfAnIdThatTheServiceDoesNotTakeIsInvalid) {
    answer_error(400, 8626);
    EXPECT_EQ(details({"+7"}), 7219);
    EXPECT_EQ(log_.records().back(), (LogRecord{16, DETAILS, "[+7] is not a valid package ID."}));
}

TEST_F(Details, ReturnsAnyOtherCodeUnchanged) {
    no_exchange(35);
    EXPECT_EQ(details({"7"}), 35);
    answer_error(403, 8000);
    EXPECT_EQ(details({"7"}), 8000);
    answer_error(500, 226);
    EXPECT_EQ(details({"7"}), 226);
    EXPECT_EQ(
        log_.records().back().text,
        "Failed to retrieve deployment package in the repository. Error code returned from curlSendRequest: 226.");
    EXPECT_EQ(out_.str(), "");
}

TEST_F(Details, ReturnsTheStatusThatAnUnusableResponseThrows) {
    for (const std::string& body :
         {std::string("<html>"), PackageJson().list(), PackageJson().without("os").response()}) {
        answer(200, body);
        EXPECT_EQ(details({"7"}), 9103) << body;
        EXPECT_EQ(
            log_.records().back(),
            (LogRecord{
                2, DETAILS,
                "Failed to retrieve deployment package in the repository. Error code returned from QvRepoPackage: 9103."}));
    }
    EXPECT_EQ(out_.str(), "");
}

} // namespace
