#include "model/QvRepoAddInfo.h"
#include "tests/support/fake_seam.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

constexpr const char* NAME = "QvRepoAddInfo::getPackageAttributesFromFilePath";
constexpr const char* BODY = "QvRepoAddInfo::getJSONPackageDetails";
constexpr const char* GOOD_PATH = "/tmp/dunmarel_qvclient_8.3.0.1_redhat_x64.sja";

class AddInfo : public testing::Test {
  protected:
    void SetUp() override { archive_holds({{"a.txt", 5}}); }
    void TearDown() override { seam().reset(); }

    static void archive_holds(const std::vector<QvRepoPackageItem>& items) {
        seam().readSjaContents = [items](const char*, std::vector<QvRepoPackageItem>& read) {
            read.insert(read.end(), items.begin(), items.end());
            return 0;
        };
    }
    static void archive_is_broken(int status) {
        seam().readSjaContents = [status](const char*, std::vector<QvRepoPackageItem>&) { return status; };
    }
    // The status that building the metadata throws; 0 when it is built.
    static int thrown_for(const char* path) {
        try {
            QvRepoAddInfo info(path);
            return 0;
        } catch (int status) {
            return status;
        }
    }

    LogCapture log_;
};

TEST_F(AddInfo, TakesTypeVersionAndSystemFromTheFileName) {
    const QvRepoAddInfo info(GOOD_PATH);
    EXPECT_EQ(info.packageFileName, "dunmarel_qvclient_8.3.0.1_redhat_x64.sja");
    EXPECT_EQ(info.packageName, "dunmarel_qvclient_8.3.0.1_redhat_x64.sja");
    EXPECT_EQ(info.packageType, "qvclient");
    EXPECT_EQ(info.version, "8.3.0.1");
    EXPECT_EQ(info.os, "redhat_x64");
    ASSERT_EQ(info.packageItems.size(), 1U);
    EXPECT_EQ(info.packageItems[0].fileName, "a.txt");
    EXPECT_EQ(info.packageItems[0].fileSize, 5U);
    EXPECT_THAT(seam().calls, ElementsAre(std::string("readSjaContents(") + GOOD_PATH + ")"));
    EXPECT_TRUE(log_.records().empty());
}

TEST_F(AddInfo, ReadsANameWithoutThePrefixTheSameWay) {
    const QvRepoAddInfo info("qvclient_8.3.0.1_redhat_x64.sja");
    EXPECT_EQ(info.packageFileName, "qvclient_8.3.0.1_redhat_x64.sja");
    EXPECT_EQ(info.packageType, "qvclient");
}

TEST_F(AddInfo, TakesThePrefixOffTheStartOnlyAndComparesItWithLetterCase) {
    EXPECT_EQ(thrown_for("x_dunmarel_qvclient_8.3_redhat_x64.sja"), 7265);
    EXPECT_EQ(thrown_for("dunmarel_dunmarel_qvclient_8.3_redhat_x64.sja"), 7265);
    for (const char* path : {"DUNMAREL_qvclient_8.3_redhat_x64.sja", "Dunmarel_qvclient_8.3_redhat_x64.sja",
                             "dunmareL_qvclient_8.3_redhat_x64.sja"})
        EXPECT_EQ(thrown_for(path), 7265) << path;
}

// A fifth part would make 8.3 an EEB version, and redhat the version.
TEST_F(AddInfo, ReadsOnlyTheFirst127BytesOfANameWithoutItsPrefix) {
    const std::string start = "qvclient_8.3_redhat_x64.";
    const auto named = [&start](std::size_t length) {
        return "dunmarel_" + start + std::string(length - start.length() - 2, 'x') + "_y";
    };
    EXPECT_EQ(thrown_for(named(127).c_str()), 7264) << "the fifth part is just within";
    EXPECT_EQ(thrown_for(named(128).c_str()), 0) << "the fifth part is cut off";
    const std::string longest = named(200);
    EXPECT_EQ(QvRepoAddInfo(longest.c_str()).packageFileName, longest) << "the name itself is not cut";
}

TEST_F(AddInfo, KeepsTheItemsInTheOrderOfTheListing) {
    archive_holds({{"last.sja", 3}, {"middle.sja", 2}, {"first.sja", 1}});
    const QvRepoAddInfo info(GOOD_PATH);
    ASSERT_EQ(info.packageItems.size(), 3U);
    EXPECT_EQ(info.packageItems[0].fileName, "last.sja");
    EXPECT_EQ(info.packageItems[2].fileName, "first.sja");
}

struct Refusal {
    const char* path;
    int code;
    const char* text;
    int status;
};

TEST_F(AddInfo, RefusesANameWithTheStatusOfWhatItLacks) {
    const Refusal refusals[] = {
        {"/tmp/dunmarel_", 1, "Package name was null or empty.", 7216},
        {"/tmp/qvtool_8.3_redhat_x64.sja", 102, "Package type is not supported.", 7265},
        {"/tmp/qvclient_7.6_redhat_x64.sja", 103, "Package version is not supported.", 7264},
        {"/tmp/qvclient_8.3_centos_x64.sja", 104, "Package operating system is not supported.", 7266},
        {"/tmp/qveeb_3.1a_8.3_redhat_x64.sja", 105, "Package EEB version is not supported.", 7267},
    };
    for (const Refusal& refusal : refusals) {
        LogCapture log;
        EXPECT_EQ(thrown_for(refusal.path), refusal.status) << refusal.path;
        EXPECT_THAT(
            log.records(),
            ElementsAre(LogRecord{16, NAME,
                                  "extract_package_details_from_name returned error code [" +
                                      std::to_string(refusal.code) + "]."},
                        LogRecord{16, NAME, "Input file name does not comply with package name standard."},
                        LogRecord{16, NAME, refusal.text}))
            << refusal.path;
    }
}

TEST_F(AddInfo, RefusesANameOfThreePartsAfterTheTwoGeneralLines) {
    EXPECT_EQ(thrown_for("/tmp/qvclient_8.3_redhat.sja"), 7216);
    EXPECT_THAT(
        log_.records(),
        ElementsAre(LogRecord{16, NAME, "extract_package_details_from_name returned error code [101]."},
                    LogRecord{16, NAME, "Input file name does not comply with package name standard."}));
}

TEST_F(AddInfo, RefusesAPathWithoutAFileName) {
    for (const char* path : {static_cast<const char*>(nullptr), "", "/"}) {
        const std::string shown = path == nullptr ? "" : path;
        LogCapture log;
        EXPECT_EQ(thrown_for(path), 104) << shown;
        EXPECT_THAT(log.records(),
                    ElementsAre(LogRecord{16, NAME,
                                          "unable to extract filename from sja file path [" + shown + "]."}));
    }
}

TEST_F(AddInfo, ReadsTheArchiveBeforeTheName) {
    archive_is_broken(7215);
    EXPECT_EQ(thrown_for("/tmp/nonsense"), 7215);
    EXPECT_TRUE(log_.records().empty());
}

TEST_F(AddInfo, RendersTheBodyThatCreatesThePackage) {
    archive_holds({{"b.sja", 4294967296ULL}, {"a.sja", 0}});
    QvRepoAddInfo info(GOOD_PATH);
    const std::string body =
        "{\"data\": {\"type\": \"newPackageAttributes\", \"attributes\": "
        "{\"packageFileName\": \"dunmarel_qvclient_8.3.0.1_redhat_x64.sja\", "
        "\"packageName\": \"dunmarel_qvclient_8.3.0.1_redhat_x64.sja\", \"os\": \"redhat_x64\", "
        "\"version\": \"8.3.0.1\", \"packageType\": \"qvclient\", \"packageItems\": "
        "[{\"fileName\": \"b.sja\", \"fileSize\": 4294967296}, {\"fileName\": \"a.sja\", \"fileSize\": "
        "0}]}}}";
    EXPECT_EQ(info.getJSONPackageDetails(), body);
    EXPECT_THAT(log_.records(), ElementsAre(LogRecord{4, BODY, "Package details in JSON format: " + body}));
}

TEST_F(AddInfo, RendersAnArchiveWithoutItemsAsAnEmptyArray) {
    archive_holds({});
    EXPECT_THAT(QvRepoAddInfo(GOOD_PATH).getJSONPackageDetails(), testing::HasSubstr("\"packageItems\": []"));
}

TEST_F(AddInfo, RendersAnEmptyBodyAndLogsItWhenATextIsNotUtf8) {
    archive_holds({{"a.sja", 1}, {"\xFF.sja", 1}});
    QvRepoAddInfo info(GOOD_PATH);
    EXPECT_EQ(info.getJSONPackageDetails(), "");
    EXPECT_THAT(
        log_.records(),
        ElementsAre(LogRecord{
            16, BODY,
            "Package details of [dunmarel_qvclient_8.3.0.1_redhat_x64.sja] cannot be written as JSON."}));

    archive_holds({{"a.sja", 1}});
    QvRepoAddInfo named(GOOD_PATH);
    named.packageFileName = "\xFF";
    EXPECT_EQ(named.getJSONPackageDetails(), "");
}

} // namespace
