#include "cli/commands.h"
#include "tests/support/command_world.h"
#include "tests/support/flush_record.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* LIST = "listPackagesCmd";
constexpr const char* PACKAGES = "quorvelle/deployment/packages";
constexpr const char* RETRIEVED = "Successfully retrieved deployment package list from the repository.";

class List : public CommandWorld {
  protected:
    int list(std::vector<const char*> arguments) {
        return listPackagesCmd(static_cast<int>(arguments.size()), arguments.data(), out_);
    }
};

TEST_F(List, AloneAsksForAllPackagesAndPrintsTheTable) {
    const std::string body = PackageJson().list();
    answer(200, body);
    EXPECT_EQ(list({}), 0);
    EXPECT_THAT(service().requests, ElementsAre(SentRequest{"GET", PACKAGES, ""}));
    EXPECT_EQ(service().host, "master.example.com");
    EXPECT_EQ(service().port, 1556);
    EXPECT_EQ(out_.str(), "ID Type     Version OS         File Name                           \n"
                          "-- -------- ------- ---------- ------------------------------------\n"
                          "7  client   8.3     redhat_x64 dunmarel_qvclient_8.3_redhat_x64.sja\n");
    EXPECT_THAT(calls_after_startup(), ElementsAre("pathExists(/usr/ormex/var/global/repo)"));
    EXPECT_EQ(records_after_startup(), (exchange_records(PACKAGES, "", body, 200, 200) +
                                        std::vector<LogRecord>{{4, LIST, RETRIEVED}}));
}

TEST_F(List, HoldsItsClientUntilAllIsPrinted) {
    ClientsWhilePrinting printed;
    std::ostream out(&printed);
    answer(200, PackageJson().list());
    EXPECT_EQ(listPackagesCmd(0, nullptr, out), 0);
    EXPECT_EQ(printed.clients, 1);
}

struct FilterCase {
    const char *option, *value, *uri;
};

TEST_F(List, WithAFilterAsksForItWithTheValueAsTyped) {
    const FilterCase cases[] = {
        {"-version", "8.3", "quorvelle/deployment/packages?filter=version%20eq%20'8.3'"},
        {"-os", "linux", "quorvelle/deployment/packages?filter=os%20eq%20'linux'"},
        {"-type", "qveeb", "quorvelle/deployment/packages?filter=package-type%20eq%20'qveeb'"},
        {"-type", "", "quorvelle/deployment/packages?filter=package-type%20eq%20''"},
        {"-os", "red hat's", "quorvelle/deployment/packages?filter=os%20eq%20'red hat's'"},
        {"-os", "%41&x=#\xC3\xA9", "quorvelle/deployment/packages?filter=os%20eq%20'%41&x=#\xC3\xA9'"},
    };
    for (const FilterCase& one : cases) {
        service().requests.clear();
        answer(200, "{\"data\": []}");
        EXPECT_EQ(list({one.option, one.value}), 0);
        EXPECT_THAT(service().requests, ElementsAre(SentRequest{"GET", one.uri, ""}));
    }
}

TEST_F(List, WithWrongArgumentsPrintsTheHelpAndTouchesNothing) {
    const std::vector<std::vector<const char*>> wrong = {
        {"-os"},           {"linux"},        {"-os", "linux", "-type"}, {"-os", "linux", "-type", "qv"},
        {"-name", "x"},    {"-OS", "linux"}, {"os", "linux"},           {"", ""},
        {"-osx", "linux"}, {"linux", "-os"},
    };
    for (const auto& arguments : wrong) {
        out_.str("");
        EXPECT_EQ(list(arguments), 20);
        EXPECT_EQ(out_.str(), HELP_TEXT);
    }
    EXPECT_THAT(seam().calls, IsEmpty());
    EXPECT_THAT(log_.records(), IsEmpty());
    EXPECT_EQ(service().clients, 0);
}

TEST_F(List, ReturnsTheStatusOfAFailedStartup) {
    seam().is_user_admin = [](user_permission_type_t) { return 0; };
    EXPECT_EQ(list({}), 132);
    EXPECT_EQ(out_.str(), "");
    EXPECT_EQ(service().clients, 0);
}

TEST_F(List, StopsWithoutARepositoryBeforeAnyRequest) {
    seam().pathExists = [](const char*) { return false; };
    EXPECT_EQ(list({}), 7217);
    EXPECT_EQ(service().clients, 0);
    EXPECT_THAT(records_after_startup(),
                ElementsAre(LogRecord{
                    16, LIST, "Package repository location does not exist: [/usr/ormex/var/global/repo]."}));
}

TEST_F(List, ReturnsTheCodeOfAFailedRequestAndLogsItAsDetail) {
    no_exchange(7);
    EXPECT_EQ(list({}), 7);
    EXPECT_EQ(
        records_after_startup().back(),
        (LogRecord{
            2, LIST,
            "Failed to list deployment packages in the repository. Error code returned from curlSendRequest: 7."}));
    answer_error(403, 8000);
    EXPECT_EQ(list({}), 8000);
    EXPECT_EQ(
        log_.records().back().text,
        "Failed to list deployment packages in the repository. Error code returned from curlSendRequest: 8000.");
    EXPECT_EQ(out_.str(), "");
}

TEST_F(List, ReturnsTheStatusOfAResponseThatIsNotAPackageListAndLogsItAsDetail) {
    for (const char* body : {"<html>", "{}", "{\"data\": [7]}", "{\"data\": [{}]}"}) {
        answer(200, body);
        EXPECT_EQ(list({}), 9103) << body;
        EXPECT_EQ(
            log_.records().back(),
            (LogRecord{
                2, LIST,
                "Failed to list deployment packages in the repository. Error code returned from parseJSONResponsePackageArray: 9103."}));
    }
    EXPECT_EQ(out_.str(), "");
}

TEST_F(List, SaysThatTheRepositoryIsEmptyAndPrintsNoTable) {
    answer(200, "{\"data\": []}");
    EXPECT_EQ(list({}), 0);
    EXPECT_EQ(out_.str(), "0 deployment packages in the repository.\n");
    const auto records = records_after_startup();
    ASSERT_GE(records.size(), 2U);
    EXPECT_EQ(records[records.size() - 2], (LogRecord{4, LIST, RETRIEVED}));
    EXPECT_EQ(records.back(), (LogRecord{4, LIST, "0 deployment packages in the repository."}));
}

TEST_F(List, FlushesTheLineOfAnEmptyRepository) {
    answer(200, "{\"data\": []}");
    FlushRecord out;
    EXPECT_EQ(listPackagesCmd(0, nullptr, out.stream), 0);
    EXPECT_THAT(out.flushed, ElementsAre("0 deployment packages in the repository.\n"));
}

} // namespace
