#include "master/bad_request.h"
#include "master/package_json.h"

#include <gtest/gtest.h>

namespace {

std::string body_with(const std::string& items, const std::string& fileName = "\"a.sja\"") {
    return R"({"data": {"type": "newPackageAttributes", "attributes": {"packageFileName": )" + fileName +
           R"(, "packageName": "n", "os": "o", "version": "v", "packageType": "t", "packageItems": )" +
           items + "}}}";
}

std::string reason_against(const std::string& body) {
    try {
        read_new_package(body);
        return "none";
    } catch (const BadRequest& error) {
        return error.what();
    }
}

TEST(CreationBody, GivesAllItsMembers) {
    const NewPackage package = read_new_package(
        body_with(R"([{"fileName": "x", "fileSize": 5}, {"fileSize": 0, "fileName": "x"}])"));
    EXPECT_EQ(package.packageFileName, "a.sja");
    EXPECT_EQ(package.packageName, "n");
    EXPECT_EQ(package.os, "o");
    EXPECT_EQ(package.version, "v");
    EXPECT_EQ(package.packageType, "t");
    ASSERT_EQ(package.packageItems.size(), 2U);
    EXPECT_EQ(package.packageItems[0].fileName, "x");
    EXPECT_EQ(package.packageItems[0].fileSize, 5);
    EXPECT_EQ(package.packageItems[1].fileSize, 0);
    EXPECT_EQ(package.size, 5);
}

TEST(CreationBody, MayHoldNoItemsAndSizesUpTo63Bits) {
    EXPECT_EQ(read_new_package(body_with("[]")).size, 0);
    const std::string most = R"({"fileName": "x", "fileSize": 9223372036854775807})";
    EXPECT_EQ(read_new_package(body_with("[" + most + "]")).size, INT64_MAX);
    EXPECT_EQ(reason_against(body_with("[" + most + R"(, {"fileName": "x", "fileSize": 1}])")),
              "the package is too large");
}

TEST(CreationBody, ThatIsUnusableIsRefusedWithTheReason) {
    const struct {
        std::string body;
        std::string reason;
    } rows[] = {
        {"{}", "data must be an object"},
        {"[]", "data must be an object"},
        {R"({"data": "x"})", "data must be an object"},
        {R"({"data": {}})", "type must be a string"},
        {R"({"data": {"type": 1}})", "type must be a string"},
        {R"({"data": {"type": "other"}})", "type must be newPackageAttributes"},
        {R"({"data": {"type": "newPackageAttributes"}})", "attributes must be an object"},
        {R"({"data": {"type": "newPackageAttributes", "attributes": {}}})",
         "packageFileName must be a string"},
        {body_with("[]", "null"), "packageFileName must be a string"},
        {body_with("[]", R"("")"), "packageFileName must be the name of a file"},
        {body_with("[]", R"(".")"), "packageFileName must be the name of a file"},
        {body_with("[]", R"("..")"), "packageFileName must be the name of a file"},
        {body_with("[]", R"("a/b")"), "packageFileName must be the name of a file"},
        {body_with("{}"), "packageItems must be an array"},
        {body_with("[7]"), "packageItems must hold objects"},
        {body_with(R"([{"fileName": "x"}])"), "fileSize must be a number of bytes"},
        {body_with(R"([{"fileName": "x", "fileSize": -1}])"), "fileSize must be a number of bytes"},
        {body_with(R"([{"fileName": "x", "fileSize": 1.0}])"), "fileSize must be a number of bytes"},
        {body_with(R"([{"fileSize": 1}])"), "fileName must be a string"},
        {body_with(R"([{"fileName": "../x", "fileSize": 1}])"), "fileName must be the name of a file"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(reason_against(row.body), row.reason) << row.body;
}

TEST(CreationBody, MayHoldAnythingBesides) {
    const std::string filler = R"("x": [{}, {"data": 1, "packageItems": 2}, null], "y": {"os": 3}, )";
    std::string body = body_with(R"([{"z": {}, "fileName": "x", "fileSize": 5, "w": [1]}])");
    for (std::size_t at = 0; (at = body.find("{\"", at)) != std::string::npos; at += filler.size() + 1)
        body.insert(at + 1, filler);
    EXPECT_EQ(read_new_package(body).packageItems.at(0).fileName, "x");
    EXPECT_EQ(read_new_package(body).size, 5);
}

TEST(CreationBody, MustBeOneJsonTextWithoutNul) {
    for (const std::string& body :
         {std::string(), std::string("{"), body_with("[]") + "x", body_with("[]", R"("a\u0000b")"),
          std::string("\0", 1), std::string(5000, '['), std::string("\"\xff\"")})
        EXPECT_EQ(reason_against(body).substr(0, 21), "the body is not JSON:") << body;
}

TEST(PackageName, IsTheFileNameWithoutPrefixAndEnding) {
    const struct {
        const char* fileName;
        const char* name;
    } rows[] = {
        {"dunmarel_qvclient_8.3_redhat_x64.sja", "qvclient_8.3_redhat_x64"},
        {"qvclient.sja", "qvclient"},
        {"dunmarel_qvclient", "qvclient"},
        {"plain", "plain"},
        {"dunmarel_dunmarel_a.sja.sja", "dunmarel_a.sja"},
        {"x_dunmarel_a.sja.x", "x_dunmarel_a.sja.x"},
        {"Dunmarel_a.SJA", "Dunmarel_a.SJA"},
        {"dunmarel_", ""},
        {".sja", ""},
        {"sja", "sja"},
        {"", ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(package_name(row.fileName), row.name) << row.fileName;
}

TEST(PackageObject, HoldsAllElevenMembers) {
    Package package;
    package.id = 7;
    package.packageName = "n\"";
    package.packageFileName = "f";
    package.packageType = "t";
    package.os = "o";
    package.version = "v";
    package.size = INT64_MAX;
    package.createdDateTimeUTC = "c";
    package.lastModifiedDateTimeUTC = "m";
    package.lastValidatedUTC = "l";
    std::string out = "[";
    append_package_beginning(out, package);
    append_item_path(out, "/repo", "x");
    out += ", ";
    append_item_path(out, "/repo", "y\n");
    append_package_end(out, package);
    EXPECT_EQ(
        out,
        R"([{"type": "package", "id": "7", "attributes": {"packageName": "n\"", "packageFileName": "f", )"
        R"("packageItemFilePaths": ["/repo/x", "/repo/y\u000a"], "packageType": "t", "os": "o", )"
        R"("version": "v", "size": 9223372036854775807, "createdDateTimeUTC": "c", )"
        R"("lastModifiedDateTimeUTC": "m", "lastValidatedUTC": "l"}})");
}

TEST(ErrorBody, HoldsCodeAndMessage) {
    EXPECT_EQ(error_body(227, "a \"b\""), R"({"errorCode": 227, "errorMessage": "a \"b\""})");
}

} // namespace
