#include "master/service.h"
#include "tests/support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;

const char* const ACCEPT = "application/vnd.quorvelle+json;version=6.0";
const std::string PACKAGES = PACKAGES_PATH;

std::string creation_body(const std::string& fileName, const std::vector<std::string>& items) {
    std::string body =
        R"({"data": {"type": "newPackageAttributes", "attributes": {"packageFileName": ")" + fileName +
        R"(", "packageName": "n", "os": "o", "version": "v", "packageType": "t", "packageItems": [)";
    for (const std::string& item : items)
        body += (&item == &items[0] ? "" : ", ") + (R"({"fileName": ")" + item + R"(", "fileSize": 1})");
    return body + "]}}}";
}

std::string creation_body(const std::string& fileName) {
    return creation_body(fileName, {fileName});
}

// It takes more than a thousand bytes an item in an answer.
std::string large_creation_body(const std::string& fileName, int items) {
    std::vector<std::string> names;
    for (int i = 0; i < items; ++i)
        names.push_back(fileName + std::string(1000, 'x') + std::to_string(i));
    return creation_body(fileName, names);
}

class ServiceTest : public testing::Test {
  protected:
    Answer ask(const std::string& method, const std::string& target, const std::string& body = "",
               const std::string& accept = ACCEPT) {
        return service.answer({method, target, accept, "", body});
    }

    // The whole body of an answer.
    static std::string whole(const Answer& answer) {
        std::string body;
        for (std::string part = answer.body; !part.empty(); part = answer.more ? answer.more() : "")
            body += part;
        return body;
    }

    TemporaryDirectory directory;
    PackageStore store{directory.path("db")};
    Service service{store, "/repo//"};
};

TEST_F(ServiceTest, AnswersEveryKindOfRequestWithItsStatusAndErrorCode) {
    const std::string ok = creation_body("a");
    const struct {
        std::string method;
        std::string target;
        std::string body;
        int status;
        int errorCode; // 0: none
    } rows[] = {
        {"GET", PACKAGES, "", 200, 0},
        {"GET", PACKAGES + "?filter=os%20eq%20'x'", "", 200, 0},
        {"GET", PACKAGES + "?filter=x", "", 400, 20},
        {"GET", PACKAGES + "?", "", 400, 20},
        {"GET", PACKAGES + "/1", "", 404, 227},
        {"GET", PACKAGES + "/x", "", 400, 8626},
        {"GET", PACKAGES + "/", "", 400, 8626},
        {"GET", PACKAGES + "//", "", 404, 9103},
        {"DELETE", PACKAGES + "/1", "", 404, 227},
        {"DELETE", PACKAGES + "/0", "", 400, 8626},
        {"POST", PACKAGES, "", 400, 20},
        {"POST", PACKAGES, ok, 201, 0},
        {"POST", PACKAGES, ok, 409, 7218},
        {"POST", PACKAGES, creation_body("other", {"b", "a"}), 409, 7218},
        {"GET", PACKAGES + "/1", "", 200, 0},
        {"DELETE", PACKAGES + "/1", "", 204, 0},
        {"POST", PACKAGES + "?x", ok, 201, 0},
        {"GET", PACKAGES + "/2?x", "", 200, 0},
        {"PUT", PACKAGES, ok, 405, 9103},
        {"DELETE", PACKAGES, "", 405, 9103},
        {"POST", PACKAGES + "/2", ok, 405, 9103},
        {"PUT", PACKAGES + "/x", ok, 405, 9103},
        {"GET", "/", "", 404, 9103},
        {"GET", "", "", 404, 9103},
        {"GET", PACKAGES + "s/1", "", 404, 9103},
        {"GET", "/" + std::string(MAX_TARGET_SIZE, 'x'), "", 414, 20},
        {"", "", "", 404, 9103},
    };
    for (const auto& row : rows) {
        const Answer answer = ask(row.method, row.target, row.body);
        const std::string what = row.method + " " + row.target.substr(0, 60);
        EXPECT_EQ(answer.status, row.status) << what;
        if (row.errorCode != 0) {
            EXPECT_THAT(answer.body, HasSubstr("{\"errorCode\": " + std::to_string(row.errorCode) + ", "))
                << what;
        }
        EXPECT_EQ(answer.contentType, row.status == 204 ? "" : ACCEPT) << what;
    }
}

TEST_F(ServiceTest, LooksAtAcceptBeforeAnythingElse) {
    for (const char* method : {"GET", "POST", "PUT"})
        for (const std::string& target : {PACKAGES, std::string("/nowhere"), std::string(9000, 'x')})
            EXPECT_EQ(ask(method, target, creation_body("a"), "*/*").status, 406) << method << " " << target;
    EXPECT_EQ(whole(ask("GET", PACKAGES)), R"({"data": []})");
}

TEST_F(ServiceTest, NamesTheMethodsOfAResource) {
    EXPECT_EQ(ask("PUT", PACKAGES).allow, "GET, POST");
    EXPECT_EQ(ask("PUT", PACKAGES + "/1").allow, "GET, DELETE");
    EXPECT_EQ(ask("GET", PACKAGES).allow, "");
}

TEST_F(ServiceTest, NeedsTheBodyOfACreationOnly) {
    const auto needs = [](const std::string& method, const std::string& target, const std::string& accept) {
        return Service::needs_body({method, target, accept, "", ""});
    };
    EXPECT_TRUE(needs("POST", PACKAGES, ACCEPT));
    EXPECT_TRUE(needs("POST", PACKAGES + "?x", ACCEPT));
    EXPECT_FALSE(needs("GET", PACKAGES, ACCEPT));
    EXPECT_FALSE(needs("PUT", PACKAGES, ACCEPT));
    EXPECT_FALSE(needs("POST", PACKAGES + "/1", ACCEPT));
    EXPECT_FALSE(needs("POST", PACKAGES, "text/html"));
    EXPECT_FALSE(needs("POST", PACKAGES + "?" + std::string(MAX_TARGET_SIZE, 'x'), ACCEPT));
}

TEST_F(ServiceTest, PutsItemPathsIntoTheRepositoryDirectory) {
    EXPECT_THAT(ask("POST", PACKAGES, creation_body("a")).body,
                HasSubstr(R"("packageItemFilePaths": ["/repo/a"])"));
    Service atRoot(store, "///");
    EXPECT_THAT(atRoot.answer({"GET", PACKAGES + "/1", ACCEPT, "", ""}).body, HasSubstr(R"(["//a"])"));
}

TEST_F(ServiceTest, GivesAShortListWholeAndALongOneInParts) {
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(ask("POST", PACKAGES, creation_body(std::to_string(i))).status, 201);
    const Answer small = ask("GET", PACKAGES);
    EXPECT_FALSE(small.more);
    for (int i = 100; i < 500; ++i)
        ASSERT_EQ(ask("POST", PACKAGES, creation_body(std::to_string(i))).status, 201);
    const Answer large = ask("GET", PACKAGES);
    ASSERT_TRUE(large.more);
    const std::string body = whole(large);
    EXPECT_THAT(body, testing::StartsWith(small.body.substr(0, small.body.size() - 2) + ", {"));
    EXPECT_THAT(body, testing::EndsWith("}}]}"));
    EXPECT_EQ(large.more(), "");
}

TEST_F(ServiceTest, GivesAHugePackageInParts) {
    const std::string created = ask("POST", PACKAGES, large_creation_body("huge", 1000)).body;
    const Answer details = ask("GET", PACKAGES + "/1");
    EXPECT_LT(details.body.size(), created.size() / 2);
    EXPECT_EQ(whole(details), created);
    const Answer list = ask("GET", PACKAGES);
    EXPECT_LT(list.body.size(), created.size() / 2);
    EXPECT_EQ(whole(list), R"({"data": [)" + created.substr(9, created.size() - 10) + "]}");
}

TEST_F(ServiceTest, LeavesOutOfAListWhatIsDeletedMeanwhileAndBreaksOffWithinAHugePackage) {
    for (const auto& [name, items] : {std::pair("a", 100), std::pair("b", 100), std::pair("huge", 1000)})
        ASSERT_EQ(ask("POST", PACKAGES, large_creation_body(name, items)).status, 201);
    const Answer shortened = ask("GET", PACKAGES);
    const Answer broken = ask("GET", PACKAGES);
    EXPECT_THAT(broken.body, testing::EndsWith("}}"));
    EXPECT_THAT(broken.more(), testing::EndsWith("}}"));
    EXPECT_THAT(broken.more(), HasSubstr(R"("packageFileName": "huge")"));
    ASSERT_EQ(ask("DELETE", PACKAGES + "/3").status, 204);
    EXPECT_THROW(broken.more(), StoreError);
    EXPECT_EQ(whole(shortened), whole(ask("GET", PACKAGES)));
}

TEST_F(ServiceTest, AnswersAndReportsAFailureOfTheStore) {
    Database(directory.path("db"), Database::Access::readWrite).execute("DROP TABLE packageItems");
    testing::internal::CaptureStderr();
    const Answer answer = ask("GET", PACKAGES);
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(answer.body, R"({"errorCode": 9103, "errorMessage": "the packages cannot be reached"})");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qvmaster: the database refuses a statement: no such table: packageItems\n");
}

TEST(ServiceRefusal, IsAnErrorBodyForEveryStatus) {
    const struct {
        int status;
        int errorCode;
    } rows[] = {{400, 9103}, {413, 20}, {414, 20}, {415, 9103}, {431, 20}, {500, 9103}};
    for (const auto& row : rows) {
        const Answer answer = Service::refusal(row.status);
        EXPECT_EQ(answer.status, row.status);
        EXPECT_EQ(answer.contentType, ACCEPT);
        EXPECT_THAT(answer.body,
                    HasSubstr("{\"errorCode\": " + std::to_string(row.errorCode) + ", \"errorMessage\": \""));
    }
}

} // namespace
