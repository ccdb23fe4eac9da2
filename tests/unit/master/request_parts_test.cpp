#include "master/request_parts.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(Target, IsSplitAtItsFirstQuestionMark) {
    const struct {
        std::string raw;
        std::string path;
        std::optional<std::string> query;
    } rows[] = {
        {"", "", std::nullopt},        {"/a/b", "/a/b", std::nullopt}, {"/a?", "/a", ""},
        {"/a?b=c&d", "/a", "b=c&d"},   {"/a?b?c", "/a", "b?c"},        {"?", "", ""},
        {"/%41%2F?%41", "/A/", "%41"}, {"/a#b", "/a#b", std::nullopt},
    };
    for (const auto& row : rows) {
        const Target target = read_target(row.raw);
        EXPECT_EQ(target.path, row.path) << row.raw;
        EXPECT_EQ(target.query, row.query) << row.raw;
    }
}

TEST(PercentDecoding, ReplacesCodesOnceAndLeavesAllElse) {
    const struct {
        std::string text;
        std::string decoded;
    } rows[] = {
        {"", ""},
        {"plain", "plain"},
        {"%41%5a%5A", "AZZ"},
        {"a+b", "a+b"},
        {"%2B", "+"},
        {"%2541", "%41"},
        {"%", "%"},
        {"%4", "%4"},
        {"%4x%x4", "%4x%x4"},
        {"%%41", "%A"},
        {"%00"s, "\0"s},
        {"%fF", "\xff"},
        {"%u0041", "%u0041"},
        {"100%", "100%"},
        {"%-1% 1", "%-1% 1"},
        {"\xc3\xbc", "\xc3\xbc"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(percent_decode(row.text), row.decoded) << row.text;
}

TEST(PackageId, IsAPositiveNumberInDigitsAlone) {
    const struct {
        std::string text;
        std::optional<std::int64_t> id;
    } rows[] = {
        {"1", 1},
        {"7", 7},
        {"007", 7},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", std::nullopt},
        {"18446744073709551617", std::nullopt},
        {"", std::nullopt},
        {"0", std::nullopt},
        {"000", std::nullopt},
        {"-1", std::nullopt},
        {"+1", std::nullopt},
        {" 1", std::nullopt},
        {"1 ", std::nullopt},
        {"1a", std::nullopt},
        {"0x1", std::nullopt},
        {"1.0", std::nullopt},
        {"1\0"s, std::nullopt},
        {"\xd9\xa1", std::nullopt}, // an Arabic digit
    };
    for (const auto& row : rows)
        EXPECT_EQ(read_package_id(row.text), row.id) << row.text;
}

TEST(FilterQuery, GivesColumnAndValue) {
    const struct {
        std::string query;
        std::string column;
        std::string value;
    } rows[] = {
        {"filter=version eq '8.3'", "version", "8.3"},
        {"filter=os eq 'redhat_x64'", "os", "redhat_x64"},
        {"filter=package-type eq 'maint.qv'", "packageType", "maint.qv"},
        {"filter=os%20eq%20'a%20b'", "os", "a b"},
        {"filter=%6Fs%20eq%20%27a%27", "os", "a"},
        {"filter=os eq ''", "os", ""},
        {"filter=os eq '''", "os", "'"},
        {"filter=os eq ''''", "os", "''"},
        {"filter=os eq 'it's'", "os", "it's"},
        {"filter=os eq 'a' or os eq 'b'", "os", "a' or os eq 'b"},
        {"filter=os eq 'a&filter=b+c?d#e'", "os", "a&filter=b+c?d#e"},
        {"filter=os eq '50%'", "os", "50%"},
        {"filter=os eq '%2541'", "os", "%41"},
        {"filter=os eq 'a%00b'", "os", "a\0b"s},
        {"filter=os eq ' '", "os", " "},
    };
    for (const auto& row : rows) {
        const Filter filter = read_filter_query(row.query);
        EXPECT_EQ(filter.column, row.column) << row.query;
        EXPECT_EQ(filter.value, row.value) << row.query;
    }
}

TEST(FilterQuery, OfAnyOtherFormIsUnusable) {
    const char* const queries[] = {
        "",
        "filter",
        "filter=",
        "filter=os",
        "filter=os eq",
        "filter=os eq ",
        "filter=os eq '",
        "filter=os eq 'a",
        "filter=os eq a'",
        "filter=os eq 'a' ",
        "filter=os eq 'a'b",
        "filter= os eq 'a'",
        "filter=os  eq 'a'",
        "filter=os eq  'a'",
        "filter=os+eq+'a'",
        "filter=os\teq 'a'",
        "filter=os ne 'a'",
        "filter=os Eq 'a'",
        "filter=Os eq 'a'",
        "filter=oss eq 'a'",
        "filter=package-type eq \"a\"",
        "filter=packageType eq 'a'",
        "Filter=os eq 'a'",
        "os eq 'a'",
        "x&filter=os eq 'a'",
        "filter==os eq 'a'",
        "filter%3Dos eq 'a'",
    };
    for (const char* query : queries)
        EXPECT_THROW(read_filter_query(query), BadRequest) << query;
}

TEST(AcceptHeader, NamesOneOfThreeVersions) {
    const struct {
        const char* accept;
        const char* mediaType;
    } rows[] = {
        {"application/vnd.quorvelle+json;version=4.0", "application/vnd.quorvelle+json;version=4.0"},
        {"application/vnd.quorvelle+json;version=5.0", "application/vnd.quorvelle+json;version=5.0"},
        {"application/vnd.quorvelle+json;version=6.0", "application/vnd.quorvelle+json;version=6.0"},
        {" \tapplication/vnd.quorvelle+json \t; \tversion=4.0 ",
         "application/vnd.quorvelle+json;version=4.0"},
        {"APPLICATION/VND.QUORVELLE+JSON;VERSION=6.0", "application/vnd.quorvelle+json;version=6.0"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(accepted_media_type(row.accept), std::optional<std::string>(row.mediaType)) << row.accept;
}

TEST(AcceptHeader, ThatNamesAnythingElseIsNotAccepted) {
    const char* const headers[] = {
        "",
        " ",
        ";",
        "*/*",
        "application/json",
        "application/json;version=6.0",
        "application/vnd.quorvelle+json",
        "application/vnd.quorvelle+json;",
        "application/vnd.quorvelle+json;version",
        "application/vnd.quorvelle+json;version=",
        "application/vnd.quorvelle+json;version=3.0",
        "application/vnd.quorvelle+json;version=7.0",
        "application/vnd.quorvelle+json;version=6",
        "application/vnd.quorvelle+json;version=6.00",
        "application/vnd.quorvelle+json;version=06.0",
        "application/vnd.quorvelle+json;version = 6.0",
        "application/vnd.quorvelle+json;version=\"6.0\"",
        "application/vnd.quorvelle+json;version=6.0;q=1",
        "application/vnd.quorvelle+json;version=6.0, */*",
        "application/vnd.quorvelle+json,version=6.0",
        "application/vnd.quorvelle+jsonx;version=6.0",
        "xapplication/vnd.quorvelle+json;version=6.0",
    };
    for (const char* header : headers)
        EXPECT_EQ(accepted_media_type(header), std::nullopt) << header;
}

TEST(LatestMediaType, IsAcceptedItself) {
    EXPECT_EQ(LATEST_MEDIA_TYPE, "application/vnd.quorvelle+json;version=6.0");
    EXPECT_EQ(accepted_media_type(LATEST_MEDIA_TYPE), LATEST_MEDIA_TYPE);
}

} // namespace
