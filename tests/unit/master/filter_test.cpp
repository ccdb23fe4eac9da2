#include "master/bad_request.h"
#include "master/filter.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

TEST(FilterQuery, GivesFieldAndValue) {
    const struct {
        std::string query;
        FilterField field;
        std::string value;
    } rows[] = {
        {"filter=version eq '8.3'", FilterField::version, "8.3"},
        {"filter=os eq 'redhat_x64'", FilterField::os, "redhat_x64"},
        {"filter=package-type eq 'maint.qv'", FilterField::packageType, "maint.qv"},
        {"filter=os%20eq%20'a%20b'", FilterField::os, "a b"},
        {"filter=%6Fs%20eq%20%27a%27", FilterField::os, "a"},
        {"filter=os eq ''", FilterField::os, ""},
        {"filter=os eq '''", FilterField::os, "'"},
        {"filter=os eq ''''", FilterField::os, "''"},
        {"filter=os eq 'it's'", FilterField::os, "it's"},
        {"filter=os eq 'a' or os eq 'b'", FilterField::os, "a' or os eq 'b"},
        {"filter=os eq 'a&filter=b+c?d#e'", FilterField::os, "a&filter=b+c?d#e"},
        {"filter=os eq '50%'", FilterField::os, "50%"},
        {"filter=os eq '%2541'", FilterField::os, "%41"},
        {"filter=os eq 'a%00b'", FilterField::os, "a\0b"s},
        {"filter=os eq ' '", FilterField::os, " "},
    };
    for (const auto& row : rows) {
        const Filter filter = read_filter_query(row.query);
        EXPECT_EQ(filter.field, row.field) << row.query;
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

} // namespace
