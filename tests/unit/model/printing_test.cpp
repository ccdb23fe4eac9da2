#include "model/QvRepoPackage.h"
#include "tests/support/flush_record.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using testing::ElementsAre;

QvRepoPackage package_of(const std::string& id, const std::string& type,
                         const std::string& fileName = "f.sja") {
    QvRepoPackage package;
    package.id = id;
    package.packageType = type;
    package.version = "8.3";
    package.os = "redhat_x64";
    package.packageFileName = fileName;
    package.packageName = fileName;
    return package;
}

std::string table(const std::vector<QvRepoPackage>& packages) {
    std::ostringstream out;
    QvRepoPackage::printPackageList(packages, out);
    return out.str();
}

TEST(PackageTable, OfNoPackagesIsNothingAtAll) {
    EXPECT_EQ(table({}), "");
}

TEST(PackageTable, HasHeaderRuleAndRowsPaddedToTheirColumns) {
    EXPECT_EQ(table({package_of("1", "qvserver"), package_of("1000", "qvclient", "longer_name.sja")}),
              "ID   Type     Version OS         File Name      \n"
              "---- -------- ------- ---------- ---------------\n"
              "1    server   8.3     redhat_x64 f.sja          \n"
              "1000 client   8.3     redhat_x64 longer_name.sja\n");
}

TEST(PackageTable, IsAsWideAsItsHeadersWhereTheTextsAreShorter) {
    QvRepoPackage package = package_of("1", "abc", "f");
    package.os = "";
    package.version = "8";
    EXPECT_EQ(table({package}), "ID Type Version OS File Name\n"
                                "-- ---- ------- -- ---------\n"
                                "1  c    8          f        \n");
}

TEST(PackageTable, KeepsTheOrderOfTheRecords) {
    EXPECT_EQ(table({package_of("2", "qvclient"), package_of("1", "qvclient")}),
              "ID Type     Version OS         File Name\n"
              "-- -------- ------- ---------- ---------\n"
              "2  client   8.3     redhat_x64 f.sja    \n"
              "1  client   8.3     redhat_x64 f.sja    \n");
}

TEST(PackageTable, MeasuresTheTypeAnewAtAPackageForBothSides) {
    const std::string rule13 = "-- ------------- ------- ---------- ---------\n";
    const std::string rule14 = "-- -------------- ------- ---------- ---------\n";
    EXPECT_EQ(table({package_of("1", "maint.qvclient"), package_of("2", "qv")}),
              "ID Type          Version OS         File Name\n" + rule13 +
                  "1  client        8.3     redhat_x64 f.sja    \n"
                  "2  server+client 8.3     redhat_x64 f.sja    \n");
    EXPECT_EQ(table({package_of("1", "qv"), package_of("2", "maint.qvclient")}),
              "ID Type           Version OS         File Name\n" + rule14 +
                  "1  server+client  8.3     redhat_x64 f.sja    \n"
                  "2  client         8.3     redhat_x64 f.sja    \n");
    EXPECT_EQ(table({package_of("1", "maint.qvinstallagent"), package_of("2", "maint.qv")}),
              "ID Type          Version OS         File Name\n" + rule13 +
                  "1  int.qvinstallagent 8.3     redhat_x64 f.sja    \n"
                  "2  server+client 8.3     redhat_x64 f.sja    \n");
}

TEST(PackageTable, TakesNoAccountOfATypeOfOneCharacterAndItsRowIsWider) {
    EXPECT_EQ(table({package_of("1", "q")}), "ID Type Version OS         File Name\n"
                                             "-- ---- ------- ---------- ---------\n"
                                             "1  server+client 8.3     redhat_x64 f.sja    \n");
}

TEST(PackageTable, IsFlushedAfterEveryLine) {
    FlushRecord out;
    QvRepoPackage::printPackageList({package_of("1", "qv")}, out.stream);
    const std::string header = "ID Type          Version OS         File Name\n";
    const std::string rule = "-- ------------- ------- ---------- ---------\n";
    const std::string row = "1  server+client 8.3     redhat_x64 f.sja    \n";
    EXPECT_THAT(out.flushed, ElementsAre(header, header + rule, header + rule + row));
}

TEST(PackageTable, LeavesTheStreamAsItWas) {
    std::ostringstream out;
    QvRepoPackage::printPackageList({package_of("1", "qv")}, out);
    out.str("");
    out << 7 << "|";
    EXPECT_EQ(out.str(), "7|");
    EXPECT_EQ(out.fill(), ' ');
}

TEST(PackageDetails, AreLabelledWithValuesFromColumn31) {
    QvRepoPackage package = package_of("7", "qv", "dunmarel_qv_8.3_redhat_x64.sja");
    package.size = 3414444441ULL;
    package.createdDateTimeUTC = "2021-03-04T05:06:07.890Z";
    package.installables = {"qvclient_8.3", "qvserver_8.3", "third_8.3"};
    std::ostringstream out;
    package.printPackageDetails(out);
    EXPECT_EQ(out.str(), "                  Package ID: 7\n"
                         "           Package File Name: dunmarel_qv_8.3_redhat_x64.sja\n"
                         "                Package Type: server+client\n"
                         "            Operating System: redhat_x64\n"
                         "             Release Version: 8.3\n"
                         "                Installables: qvclient_8.3\n"
                         "                              qvserver_8.3\n"
                         "                              third_8.3\n"
                         "                Package Size: 3.18 GB\n"
                         "     Created Date/Time (UTC): 2021-03-04 05:06:07\n");
}

struct TypeCase {
    const char *type, *name, *shown;
};

TEST(FormatPackageType, NamesTheSideThatThePackageIsFor) {
    const TypeCase cases[] = {
        {"", "x", "server+client"},
        {"q", "x", "server+client"},
        {"qv", "x", "server+client"},
        {"maint.qv", "x", "server+client"},
        {"maint.qvclient", "x", "client"},
        {"maint.qvclient", "qveeb.server_1", "client"},
        {"qveeb", "qveeb.client_1", "client eeb"},
        {"qveeb.server", "qveeb.client_1", "client eeb"},
        {"qveeb.client", "qveeb.server_1", "server eeb"},
        {"qvclient", "a qveeb.server b", "server eeb"},
        {"qveeb.client", "x", "eeb.client"},
        {"qvclient", "x", "client"},
        {"qvserver", "x", "server"},
        {"maint.qvserver", "x", "int.qvserver"},
        {"mongotc", "x", "ngotc"},
        {"abc", "x", "c"},
    };
    for (const TypeCase& one : cases) {
        QvRepoPackage package = package_of("1", one.type);
        package.packageName = one.name;
        EXPECT_EQ(package.formatPackageType(), one.shown) << one.type << " " << one.name;
    }
}

struct TimeCase {
    const char *utc, *shown;
};

TEST(FormatDateTime, DropsTheFirstTheLetterTAndZAndTheFraction) {
    const TimeCase cases[] = {
        {"2021-03-04T05:06:07.890Z", "2021-03-04 05:06:07"},
        {"2020-01-01T00:00:00Z", "2020-01-01 00:00:00"},
        {"yesterday", "yesterday"},
        {"", ""},
        {"TTZZ", " TZ"},
        {"a.b.c", "a"},
        {".", ""},
    };
    for (const TimeCase& one : cases)
        EXPECT_EQ(QvRepoPackage().formatDateTime(one.utc), one.shown) << one.utc;
}

TEST(IsBundle, IsFalseForOneItemThatBearsThePackagesFileName) {
    LogCapture log;
    QvRepoPackage package = package_of("1", "qv", "a.sja");
    package.packageItemFilePaths = {"/usr/ormex/var/global/repo/a.sja"};
    EXPECT_FALSE(package.isBundle());
    EXPECT_THAT(log.records(), ElementsAre(LogRecord{4, "QvRepoPackage::isBundle",
                                                     "Package file [a.sja] is a single sja."}));
}

TEST(IsBundle, IsTrueForAnythingElse) {
    const std::vector<std::vector<std::string>> itemLists = {
        {}, {"/repo/b.sja"}, {"/repo/A.sja"}, {"/repo/a.sja", "/repo/a.sja"}, {""}, {"/"}, {"/repo/a.sja/x"}};
    for (const auto& items : itemLists) {
        LogCapture log;
        QvRepoPackage package = package_of("1", "qv", "a.sja");
        package.packageItemFilePaths = items;
        EXPECT_TRUE(package.isBundle()) << testing::PrintToString(items);
        EXPECT_THAT(log.records(), ElementsAre(LogRecord{4, "QvRepoPackage::isBundle",
                                                         "Package file [a.sja] is an sja envelope."}));
    }
}

} // namespace
