#include "master/media_type.h"

#include <gtest/gtest.h>

namespace {

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
    EXPECT_EQ(latest_media_type(), "application/vnd.quorvelle+json;version=6.0");
    EXPECT_EQ(accepted_media_type(latest_media_type()), latest_media_type());
}

} // namespace
