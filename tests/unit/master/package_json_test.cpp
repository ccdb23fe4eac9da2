#include "master/package_json.h"
#include "master/request_parts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {

thread_local std::size_t in_use = 0;
thread_local std::size_t peak = 0;

} // namespace

void* operator new(std::size_t size) {
    void* const block = std::malloc(size);
    if (block == nullptr)
        throw std::bad_alloc();
    in_use += malloc_usable_size(block);
    peak = std::max(peak, in_use);
    return block;
}

void operator delete(void* block) noexcept {
    in_use -= malloc_usable_size(block);
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

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

bool is_refused_as_json(const std::string& body) {
    return reason_against(body).rfind("the body is not JSON: ", 0) == 0;
}

bool is_json_to_jansson(const std::string& text) {
    json_t* const value = json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr);
    json_decref(value);
    return value != nullptr;
}

TEST(CreationBody, IsJsonWhereJanssonReadsIt) {
    const std::string deepest = std::string(2048, '[') + std::string(2048, ']');
    const std::vector<std::string> texts = {
        "",
        " ",
        "{}",
        "[]",
        " \t\r\n[ 1 , -2.5e3 , \"a\" , true , false , null , { } ] ",
        R"({"a": {"b": [{}]}, "a": 1})",
        R"("\u00e9\n\\")",
        "\"\xc3\xa9\"",
        "9223372036854775807",
        "{",
        "[",
        "[1",
        "[1,",
        "[1,]",
        "[,1]",
        "[1 2]",
        "[1}",
        "]",
        "}",
        "{]",
        R"({"a"})",
        R"({"a":})",
        R"({"a": 1,})",
        R"({"a" 1})",
        "{1: 2}",
        "{[]: 2}",
        "{,}",
        "[1]]",
        "[] x",
        "01",
        "1x",
        "truefalse",
        "nul",
        "+1",
        ".5",
        "1.",
        "'a'",
        "\"a",
        R"("\x")",
        "\"\n\"",
        "\"\xff\"",
        R"("\u0000")",
        R"({"\u0000": 1})",
        R"({"/\u0000": 1})",
        R"("\ud800")",
        R"("\udc00")",
        R"({"\udc00": 1})",
        "9223372036854775808",
        "1e999",
        "[\xc2\xa0]",
        std::string("[]\0", 3),
        std::string("\0", 1),
        std::string("[\0]", 3),
        "\xef\xbb\xbf[]",
        deepest,
        "[" + deepest + "]",
    };
    for (const std::string& text : texts)
        EXPECT_EQ(!is_refused_as_json(text), is_json_to_jansson(text)) << text.substr(0, 80);
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

TEST(CreationBody, HasItsMembersAtTheirPlacesOnly) {
    for (const char* body :
         {R"({"data/type": 1, "data": {}})", R"({"data": [{"type": "newPackageAttributes"}]})",
          R"([{"data": {"type": "newPackageAttributes"}}])", R"({"": {"data": {"type": "x"}}})",
          R"({"x": {"data": {}}, "data/type": "newPackageAttributes", "data": {}})"})
        EXPECT_THAT(reason_against(body), testing::AnyOf("data must be an object", "type must be a string"))
            << body;
}

TEST(CreationBody, IsNotKeptWhereItDoesNotMatter) {
    for (const std::string pattern : {"{},", "1,", R"("a",)", R"({"a": [1.5, null]},)"}) {
        std::string body = R"({"x": [)";
        for (int i = 0; i < 10000; ++i)
            body += pattern;
        body.back() = ']';
        body += '}';
        const std::size_t before = in_use;
        peak = in_use;
        EXPECT_EQ(reason_against(body), "data must be an object");
        // The parser itself copies punctuation, for its messages.
        EXPECT_LT(peak - before, 2 * body.size()) << pattern;
    }
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
