#include "model/QvRepoPackage.h"
#include "tests/support/log_capture.h"
#include "tests/support/package_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* DETAILS = "QvRepoPackage::parseJSONResponsePackageDetails";
constexpr const char* LIST = "QvRepoPackage::parseJSONResponsePackage";
constexpr const char* CONSTRUCTOR_FAILED =
    "Error reading package details in response. Error code returned from parseJSONpackageDetails: 9103.";

// The status that building a record from the response throws; 0 when it is built.
int thrown_by(const std::string& response) {
    try {
        QvRepoPackage package(response);
        return 0;
    } catch (int status) {
        return status;
    }
}

int parse_list(const std::string& response, std::vector<QvRepoPackage>& packages) {
    return QvRepoPackage::parseJSONResponsePackageArray(response, packages);
}

std::vector<std::string> installables(const PackageJson& json) {
    return QvRepoPackage(json.response()).installables;
}

PackageJson package_of(const std::string& type, const std::string& version, const std::string& name) {
    return PackageJson()
        .with("packageType", "\"" + type + "\"")
        .with("version", "\"" + version + "\"")
        .with("packageName", "\"" + name + "\"");
}

TEST(PackageRecord, HoldsEveryMemberOfTheResponse) {
    const QvRepoPackage package(PackageJson().response());
    EXPECT_EQ(package.id, "7");
    EXPECT_EQ(package.packageName, "qvclient_8.3_redhat_x64");
    EXPECT_EQ(package.packageFileName, "dunmarel_qvclient_8.3_redhat_x64.sja");
    EXPECT_EQ(package.packageType, "qvclient");
    EXPECT_EQ(package.os, "redhat_x64");
    EXPECT_EQ(package.version, "8.3");
    EXPECT_EQ(package.size, 1536U);
    EXPECT_THAT(package.packageItemFilePaths,
                ElementsAre("/usr/ormex/var/global/repo/dunmarel_qvclient_8.3_redhat_x64.sja"));
    EXPECT_EQ(package.createdDateTimeUTC, "2021-03-04T05:06:07.890Z");
    EXPECT_EQ(package.lastModifiedDateTimeUTC, "2022-03-04T05:06:07.890Z");
    EXPECT_EQ(package.lastValidatedUTC, "2023-03-04T05:06:07.890Z");
    EXPECT_THAT(package.installables, ElementsAre("qvclient_8.3"));
}

TEST(PackageRecord, RefusesAResponseThatLacksAnyOneMember) {
    for (const char* member :
         {"id", "packageName", "packageFileName", "packageItemFilePaths", "packageType", "os", "version",
          "size", "createdDateTimeUTC", "lastModifiedDateTimeUTC", "lastValidatedUTC"}) {
        LogCapture log;
        EXPECT_EQ(thrown_by(PackageJson().without(member).response()), 9103) << member;
        const auto records = log.records();
        ASSERT_EQ(records.size(), 2U) << member;
        EXPECT_EQ(records[0].level, 16);
        EXPECT_EQ(records[0].function, DETAILS);
        EXPECT_EQ(records[0].text, std::string("Error parsing response: Object item not found: ") + member);
        EXPECT_EQ(records[1], (LogRecord{16, "QvRepoPackage", CONSTRUCTOR_FAILED}));
    }
}

TEST(PackageRecord, RefusesAMemberOfAnotherType) {
    const std::pair<const char*, const char*> wrong[] = {{"id", "7"},          {"packageName", "null"},
                                                         {"size", "\"1536\""}, {"size", "1.5"},
                                                         {"os", "[]"},         {"version", "8.3"}};
    for (const auto& [member, value] : wrong) {
        LogCapture log;
        EXPECT_EQ(thrown_by(PackageJson().with(member, value).response()), 9103) << member << " " << value;
        ASSERT_FALSE(log.records().empty());
        EXPECT_THAT(log.records()[0].text, StartsWith("Error parsing response: ")) << member;
    }
}

TEST(PackageRecord, AcceptsAnEmptyListOfItems) {
    EXPECT_THAT(
        QvRepoPackage(PackageJson().with("packageItemFilePaths", "[]").response()).packageItemFilePaths,
        IsEmpty());
}

TEST(PackageRecord, RefusesItemsThatAreNotAnArrayOfTexts) {
    for (const char* items : {"\"/repo/a.sja\"", "{}", "null", "[\"/repo/a.sja\", 7]", "[[]]"}) {
        LogCapture log;
        EXPECT_EQ(thrown_by(PackageJson().with("packageItemFilePaths", items).response()), 9103) << items;
        EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, DETAILS, "No package items in response."},
                                               LogRecord{16, "QvRepoPackage", CONSTRUCTOR_FAILED}))
            << items;
    }
}

TEST(PackageRecord, KeepsTheItemsReadBeforeAFailure) {
    json_t* object = json_loads(
        PackageJson().with("packageItemFilePaths", "[\"/repo/a.sja\", 7]").object().c_str(), 0, nullptr);
    QvRepoPackage package;
    EXPECT_EQ(package.parseJSONpackageDetails(object), 9103);
    EXPECT_THAT(package.packageItemFilePaths, ElementsAre("/repo/a.sja"));
    EXPECT_EQ(package.id, "");
    json_decref(object);
}

TEST(PackageRecord, BuiltFromAnObjectHoldsItsMembers) {
    json_t* object = json_loads(PackageJson().object().c_str(), 0, nullptr);
    const QvRepoPackage package(object);
    EXPECT_EQ(package.id, "7");
    EXPECT_THAT(package.installables, ElementsAre("qvclient_8.3"));
    json_decref(object);
}

TEST(PackageRecord, BuiltFromAnObjectThrowsTheParserStatus) {
    LogCapture log;
    json_t* object = json_loads(PackageJson().without("os").object().c_str(), 0, nullptr);
    try {
        QvRepoPackage package(object);
        ADD_FAILURE() << "no status thrown";
    } catch (int status) {
        EXPECT_EQ(status, 9103);
    }
    EXPECT_EQ(log.records().back(), (LogRecord{16, "QvRepoPackage", CONSTRUCTOR_FAILED}));
    json_decref(object);
}

TEST(PackageRecord, ProvidesClientAndServerForTheFullProduct) {
    EXPECT_THAT(installables(package_of("qv", "8.3", "x")), ElementsAre("qvclient_8.3", "qvserver_8.3"));
}

TEST(PackageRecord, ProvidesBothMaintenancePacksForTheCommonOne) {
    EXPECT_THAT(installables(package_of("maint.qv", "8.3.0.1", "x")),
                ElementsAre("maint.qvclient_8.3.0.1", "maint.qvserver_8.3.0.1"));
}

TEST(PackageRecord, ProvidesTypeAndVersionForAnyOtherType) {
    EXPECT_THAT(installables(package_of("maint.qvclient", "8.3.0.1", "x")),
                ElementsAre("maint.qvclient_8.3.0.1"));
    EXPECT_THAT(installables(package_of("QV", "8.3", "x")), ElementsAre("QV_8.3"));
    EXPECT_THAT(installables(package_of("", "8.3", "x")), ElementsAre("_8.3"));
    EXPECT_THAT(installables(package_of("qveeb.both", "8.3", "x")), ElementsAre("qveeb.both_8.3"));
}

TEST(PackageRecord, ProvidesTheFirstThreePartsOfAnEebName) {
    for (const char* type : {"qveeb", "qveeb.client", "qveeb.server"})
        EXPECT_THAT(installables(package_of(type, "8.3", "qveeb_ET123_linux_extra")),
                    ElementsAre("qveeb_ET123_linux"))
            << type;
    EXPECT_THAT(installables(package_of("qveeb", "8.3", "__a__b__c__d")), ElementsAre("a_b_c"));
}

TEST(PackageRecord, TakesAnEebNameOf128BytesAndRefusesALongerOne) {
    const std::string start = "qveeb_ET123_";
    const std::string longest = start + std::string(128 - start.length(), 'x');
    EXPECT_THAT(installables(package_of("qveeb", "8.3", longest)), ElementsAre(longest));
    EXPECT_EQ(thrown_by(package_of("qveeb", "8.3", longest + "x").response()), 9103);
}

TEST(PackageRecord, RefusesAnEebNameOfFewerThanThreeParts) {
    for (const char* name : {"qveeb_ET123", "qveeb", "", "___", "a_b___"}) {
        LogCapture log;
        EXPECT_EQ(thrown_by(package_of("qveeb.server", "8.3", name).response()), 9103) << name;
        EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, DETAILS,
                                                         "Error parsing response: [" + std::string(name) +
                                                             "] is not the name of an EEB package."},
                                               LogRecord{16, "QvRepoPackage", CONSTRUCTOR_FAILED}))
            << name;
    }
}

TEST(PackageResponse, IsRefusedWhenItIsNotJson) {
    LogCapture log;
    EXPECT_EQ(thrown_by("<html>"), 9103);
    EXPECT_THAT(
        log.records(),
        ElementsAre(LogRecord{
            16, "QvRepoPackage",
            "Failed to parse package details from response received from server. Error: '[' or '{' expected near '<'."}));
}

TEST(PackageResponse, IsRefusedWhenItsDataIsMissingOrNotAnObject) {
    for (const std::string& response :
         {std::string("{}"), std::string("{\"data\": null}"), PackageJson().list(), std::string("[]")}) {
        LogCapture log;
        EXPECT_EQ(thrown_by(response), 9103) << response;
        EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, "QvRepoPackage", "No data in response."}))
            << response;
    }
}

TEST(PackageResponse, MayHaveTextAfterTheObject) {
    EXPECT_EQ(thrown_by(PackageJson().response() + " and more"), 0);
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list(PackageJson().list() + "}}}", packages), 0);
    EXPECT_EQ(packages.size(), 1U);
}

TEST(PackageListResponse, AppendsARecordPerElement) {
    std::vector<QvRepoPackage> packages(1);
    const std::string two =
        "{\"data\": [" + PackageJson().object() + ", " + PackageJson().with("id", "\"8\"").object() + "]}";
    EXPECT_EQ(parse_list(two, packages), 0);
    ASSERT_EQ(packages.size(), 3U);
    EXPECT_EQ(packages[1].id, "7");
    EXPECT_EQ(packages[2].id, "8");
}

TEST(PackageListResponse, WithAnEmptyArrayIsNoRecordsAndSuccess) {
    LogCapture log;
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list("{\"data\": []}", packages), 0);
    EXPECT_THAT(packages, IsEmpty());
    EXPECT_THAT(log.records(), IsEmpty());
}

TEST(PackageListResponse, IsRefusedWithItsWholeTextWhenItIsNotJson) {
    LogCapture log;
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list("{\"data\": [", packages), 9103);
    EXPECT_THAT(
        log.records(),
        ElementsAre(LogRecord{
            16, LIST,
            "Failed to parse package details from response received from server and the response is: {\"data\": [."}));
}

TEST(PackageListResponse, IsRefusedWhenItsDataIsNotAnArray) {
    for (const char* response : {"{\"data\": {}}", "{}", "[]", "{\"data\": null}"}) {
        LogCapture log;
        std::vector<QvRepoPackage> packages;
        EXPECT_EQ(parse_list(response, packages), 9103) << response;
        EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, LIST, "No data in response."})) << response;
    }
}

TEST(PackageListResponse, IsRefusedWhenAnElementIsNotAnObject) {
    LogCapture log;
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list("{\"data\": [" + PackageJson().object() + ", 7]}", packages), 9103);
    EXPECT_THAT(log.records(), ElementsAre(LogRecord{16, LIST, "No package details in response."}));
    EXPECT_EQ(packages.size(), 1U) << "what was read before stays";
}

TEST(PackageListResponse, ReturnsTheStatusOfARecordThatCannotBeBuilt) {
    LogCapture log;
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list(PackageJson().without("size").list(), packages), 9103);
    EXPECT_THAT(
        log.records(),
        ElementsAre(LogRecord{16, DETAILS, "Error parsing response: Object item not found: size"},
                    LogRecord{16, "QvRepoPackage", CONSTRUCTOR_FAILED},
                    LogRecord{16, LIST, "Error reading package details in response. Error code: 9103."}));
}

struct ListShape {
    std::string text;
    std::size_t records;
};

// Lists in the service's own form are taken element by element, all others whole; no reader may see the
// difference.
TEST(PackageListResponse, IsReadAlikeInWhateverShapeItComes) {
    const std::string one = PackageJson().object();
    const ListShape shapes[] = {
        {"{\"data\": [" + one + "]}", 1},
        {" \n{\t\"data\"\r:[ " + one + " , " + one + " ] } ", 2},
        {"{\"data\": [" + one + "]} trailing", 1},
        {"{\"data\": [" + one + "], \"more\": 1}", 1},
        {"{\"more\": 1, \"data\": [" + one + "]}", 1},
        {"{\"\\u0064ata\": [" + one + "]}", 1},
        {"{\"data\": [" + one + ", " + one + "], \"data\": [" + one + "]}", 1}, // the last of its name counts
        {"{\"data\": [" + PackageJson().with("os", "\"\xC3\xA9 ]}\\\" \"").object() + "]}", 1},
        {"{\"data\": [ ] }", 0},
        {std::string("{\"data\": []}\0x", 14), 0},
    };
    for (const ListShape& shape : shapes) {
        LogCapture log;
        std::vector<QvRepoPackage> packages(1);
        EXPECT_EQ(parse_list(shape.text, packages), 0) << shape.text;
        EXPECT_EQ(packages.size(), 1 + shape.records) << shape.text;
        EXPECT_THAT(log.records(), IsEmpty()) << shape.text;
    }
}

// Whether the list comes in the service's own form, with other members beside it, or twice makes no
// difference to what is reported.
TEST(PackageListResponse, IsRefusedAlikeInWhateverShapeItComes) {
    const std::string one = PackageJson().object();
    const std::string bad = PackageJson().without("os").object();
    const std::vector<LogRecord> no_os = {
        {16, DETAILS, "Error parsing response: Object item not found: os"},
        {16, "QvRepoPackage", CONSTRUCTOR_FAILED},
        {16, LIST, "Error reading package details in response. Error code: 9103."}};
    const std::vector<LogRecord> no_object = {{16, LIST, "No package details in response."}};
    const struct {
        std::string list;
        std::vector<LogRecord> records;
    } lists[] = {
        {"[" + one + ", " + bad + ", 7]", no_os},
        {"[" + one + ", 7, " + bad + "]", no_object},
        {"[" + one + ", null]", no_object},
        {"[" + one + ", [[" + one + "]]]", no_object},
    };
    const std::pair<const char*, const char*> shapes[] = {
        {R"({"data": )", "}"},
        {R"({"links": {"data": [1]}, "data": )", R"(, "n": -1.5, "x": null, "t": "]}"})"},
        {R"({"data": [1], "data": )", "}"},
        {R"({"data": )", R"(} {"data": []})"},
    };
    for (const auto& [list, records] : lists) {
        for (const auto& [start, end] : shapes) {
            const std::string response = start + list + end;
            LogCapture log;
            std::vector<QvRepoPackage> packages;
            EXPECT_EQ(parse_list(response, packages), 9103) << response;
            EXPECT_EQ(packages.size(), 1U) << response;
            EXPECT_EQ(log.records(), records) << response;
        }
    }
}

TEST(PackageListResponse, WithWrongSyntaxBesideItsListIsNotJson) {
    const std::string one = PackageJson().object();
    for (const char* end :
         {",}", ", \"x\"}", ", \"x\": }", ", x: 1}", ", \"x\": 1", " \"x\": 1}", ", 1: 1}", "]"}) {
        LogCapture log;
        std::vector<QvRepoPackage> packages;
        EXPECT_EQ(parse_list("{\"data\": [" + one + "]" + end, packages), 9103) << end;
        EXPECT_THAT(packages, IsEmpty()) << end;
        ASSERT_EQ(log.records().size(), 1U) << end;
        EXPECT_THAT(log.records()[0].text, StartsWith("Failed to parse package details from response"))
            << end;
    }
}

TEST(PackageListResponse, IsNestedNoDeeperThanAWholeDocument) {
    const std::string one = PackageJson().object();
    const auto list_around = [&](std::size_t depth) {
        const std::string nested = std::string(depth, '[') + std::string(depth, ']');
        return "{\"data\": [{\"deep\": " + nested + ", " + one.substr(1) + "]}";
    };
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list(list_around(2048 - 3), packages), 0);
    EXPECT_EQ(parse_list(list_around(2048 - 2), packages), 9103);
}

TEST(PackageListResponse, IsNotJsonWhereverItBreaksOff) {
    const std::string whole = "{\"data\": [" + PackageJson().object() + ", " + PackageJson().object() + "]}";
    for (std::size_t length = 0; length < whole.length(); ++length) {
        LogCapture log;
        std::vector<QvRepoPackage> packages;
        EXPECT_EQ(parse_list(whole.substr(0, length), packages), 9103) << length;
        EXPECT_THAT(packages, IsEmpty()) << length;
        EXPECT_THAT(
            log.records(),
            ElementsAre(LogRecord{
                16, LIST,
                "Failed to parse package details from response received from server and the response is: " +
                    whole.substr(0, length) + "."}));
    }
}

TEST(PackageListResponse, WithWrongSyntaxAfterAWrongElementIsNotJson) {
    for (const char* list : {"[7, {]", "[{}, {]", "[{} {}]", "[{},]", "[,{}]", "[{}}"}) {
        LogCapture log;
        std::vector<QvRepoPackage> packages;
        EXPECT_EQ(parse_list(std::string("{\"data\": ") + list + "}", packages), 9103) << list;
        ASSERT_EQ(log.records().size(), 1U) << list;
        EXPECT_THAT(log.records()[0].text, StartsWith("Failed to parse package details from response"))
            << list;
    }
}

// The JSON library takes documents of up to 2048 levels, two of which are the list's own and one the
// package's.
TEST(PackageListResponse, MayBeAsDeepAsADocumentAndNoDeeper) {
    const auto list_with_array_of = [](std::size_t levels) {
        return PackageJson().with("nested", std::string(levels, '[') + std::string(levels, ']')).list();
    };
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list(list_with_array_of(2044), packages), 0);
    EXPECT_EQ(packages.size(), 1U);
    for (const std::size_t levels : {2045U, 2046U, 3000U}) {
        LogCapture log;
        EXPECT_EQ(parse_list(list_with_array_of(levels), packages), 9103) << levels;
        EXPECT_EQ(packages.size(), 1U) << levels;
        EXPECT_EQ(log.records().size(), 1U) << levels;
    }
}

TEST(PackageListResponse, MayHoldAPackageOfManyItemsAndALongMemberBesideTheList) {
    std::string items = "\"/repo/x.sja\"";
    for (int i = 1; i < 500000; ++i)
        items += ", \"/repo/x.sja\"";
    const std::string many = PackageJson().with("packageItemFilePaths", "[" + items + "]").object();
    const std::string more = "\"" + std::string(std::size_t{32} * 1024 * 1024, 'x') + "\"";
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list("{\"data\": [" + PackageJson().object() + ", " + many + "], \"more\": " + more + "}",
                         packages),
              0);
    ASSERT_EQ(packages.size(), 2U);
    EXPECT_EQ(packages[1].packageItemFilePaths.size(), 500000U);
}

TEST(PackageListResponse, MayHoldAnyNumberOfBracketsInItsTexts) {
    std::vector<QvRepoPackage> packages;
    EXPECT_EQ(parse_list(PackageJson().with("os", "\"" + std::string(5000, '[') + "\"").list(), packages), 0);
    ASSERT_EQ(packages.size(), 1U);
    EXPECT_EQ(packages[0].os, std::string(5000, '['));
}

} // namespace
