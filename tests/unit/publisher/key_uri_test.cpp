#include "publisher/key_uri.h"

#include "publisher/keys.h"
#include "tests/support/signing_key.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/publisher/user_errors.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

class UriOfAKey : public ::testing::Test {
  protected:
    // The URI without its pin-source and, in brackets, the file that it names; or why it is refused.
    static std::string parsed(const std::string& text) {
        std::string result;
        const std::string error = error_of([&] {
            const KeyUri uri = parse_key_uri(text);
            result = uri.location + (uri.file.empty() ? "" : " [" + uri.file + "]");
        });
        return error == "done" ? result : error;
    }

    static std::string type_check(const std::string& text, KeyHalf half) {
        return error_of([&] { check_object_type(parse_key_uri(text), half); });
    }

    std::string file(const std::string& name, const std::string& bytes) const {
        write_file(directory_.path(name), bytes);
        return directory_.path(name);
    }

    TemporaryDirectory directory_;
};

} // namespace

TEST_F(UriOfAKey, BeginsWithAScheme) {
    for (const char* name : {"file:/key", "pkcs11:", "PKCS11:object=a", "a+b-c.d9:x", "f:", "x:/y"})
        EXPECT_TRUE(is_key_uri(name)) << name;
    for (const char* name : {"", "key", "/key", "./file:/key", "directory/a:b", "/a:b", ":key", "9p:key",
                             "-a:key", "a_b:key", "a b:key", "\xC3\xA4:key"})
        EXPECT_FALSE(is_key_uri(name)) << name;
}

TEST_F(UriOfAKey, MayNameALocalFile) {
    const std::string no_pin = "the pin-source of the key's URI is not a file's absolute path";
    const std::pair<std::string, std::string> cases[] = {
        {"pkcs11:object=a", "pkcs11:object=a"},
        {"PkCs11:object=A", "pkcs11:object=A"},
        {"pkcs11:object=a?", "pkcs11:object=a"},
        {"pkcs11:object=a?pin-source=/p", "pkcs11:object=a [/p]"},
        {"pkcs11:object=a?x=1&pin-source=/p&y=2", "pkcs11:object=a?x=1&y=2 [/p]"},
        {"pkcs11:?pin-source=/%31%4a%4B%25%3g%", "pkcs11: [/1JK%%3g%]"},
        {std::string("pkcs11:?pin-source=/%3\0", 23), std::string("pkcs11: [/%3\0]", 14)},
        {"pkcs11:?pin-source=/a=b?c", "pkcs11: [/a=b?c]"},
        {"pkcs11:?pin-source=file:/p", "pkcs11: [/p]"},
        {"pkcs11:?pin-source=file:///p", "pkcs11: [/p]"},
        {"pkcs11:?pin-source=file%3a/p", "pkcs11: [/p]"},
        {"pkcs11:?pin-sources=/p", "pkcs11:?pin-sources=/p"},
        {"pkcs11:?pin-source=/p&pin-source=/p", "the key's URI names more than one PIN"},
        {"pkcs11:?pin-source=", no_pin},
        {"pkcs11:?pin-source=file:", no_pin},
        {"pkcs11:?pin-source=pin", no_pin},
        {"pkcs11:?pin-source=|cat", no_pin},
        {"file:/a?pin-source=/p", "file:/a?pin-source=/p [/a?pin-source=/p]"},
        {"FILE:///a", "file:///a [/a]"},
        {"file://localhost/a", "file://localhost/a [/a]"},
        {"file:a", "file:a is not a file's absolute path"},
        {"elsewhere:a", "elsewhere:a"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(parsed(text), expected) << text;
}

TEST(Argument, HoldsAPinInAnySpelling) {
    for (const char* argument :
         {"pkcs11:object=a?pin-value=12", "pkcs11:pin-value=", "?PIN-VALUE=1", "?x&pin%2dvalue=1",
          "?%2570in-value=1", "?pin_value =1", "?pin-value%3D1", "--key=pkcs11:;pin-value=1"})
        EXPECT_TRUE(contains_pin(argument)) << argument;
    for (const char* argument : {"", "pkcs11:object=a?pin-source=/pin-value", "pin-value.pem",
                                 "--key=pin-value.pem", "pkcs11:object=value?pin-source=/a", "--pin=value"})
        EXPECT_FALSE(contains_pin(argument)) << argument;
}

TEST_F(UriOfAKey, MayNameTheTypeOfObjectThatIsWanted) {
    for (const char* text : {"pkcs11:object=a", "pkcs11:", "file:/type=cert", "pkcs11:object=type=cert"}) {
        EXPECT_EQ(type_check(text, KeyHalf::PRIVATE), "done") << text;
        EXPECT_EQ(type_check(text, KeyHalf::PUBLIC), "done") << text;
    }
    EXPECT_EQ(type_check("pkcs11:object=a;type=private?x=1", KeyHalf::PRIVATE), "done");
    EXPECT_EQ(type_check("pkcs11:type=public;object=a", KeyHalf::PUBLIC), "done");
    EXPECT_EQ(type_check("pkcs11:object=a;type=private?pin-source=/p", KeyHalf::PUBLIC),
              "pkcs11:object=a;type=private does not name a public key");
    EXPECT_EQ(type_check("pkcs11:type=public", KeyHalf::PRIVATE),
              "pkcs11:type=public does not name a private key");
    EXPECT_EQ(type_check("pkcs11:type=cert", KeyHalf::PRIVATE),
              "pkcs11:type=cert does not name a private key");
}

TEST_F(UriOfAKey, LeadsToTheOnlyKeyOfItsKindInAFile) {
    const std::string publisher = SigningKey::publisher().private_pem();
    const std::string public_half = SigningKey::publisher().public_pem();
    const struct {
        std::string name;
        std::string pem;
        std::string as_private;
        std::string as_public;
    } cases[] = {
        {"private half", publisher, "done", " holds no public key"},
        {"public half", public_half, " holds no private key", "done"},
        {"both halves", publisher + public_half, "done", "done"},
        {"empty", "", " holds no private key", " holds no public key"},
        {"text", "no key\n", " holds no private key", " holds no public key"},
        {"cut off", publisher.substr(0, 2000), " holds no private key", " holds no public key"},
        {"two private halves", publisher + SigningKey::stranger().private_pem(),
         " holds more than one private key", " holds no public key"},
    };
    const std::string uri = "file:" + directory_.path("key");
    const auto after_uri = [&](const std::string& error) {
        return error.compare(0, uri.size(), uri) == 0 ? error.substr(uri.size()) : error;
    };
    for (const auto& c : cases) {
        file("key", c.pem);
        EXPECT_EQ(after_uri(error_of([&] { read_private_key(uri, {}); })), c.as_private) << c.name;
        EXPECT_EQ(after_uri(error_of([&] { read_public_key(uri); })), c.as_public) << c.name;
    }
}

TEST_F(UriOfAKey, LeadsToNoPipe) {
    ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
    const std::string uri = "file:" + directory_.path("pipe");
    EXPECT_EQ(error_of([&] { read_private_key(uri, {}); }), uri + " is not a regular file");
}

TEST_F(UriOfAKey, LeadsToNoKeyOfAnotherSize) {
    const SigningKey small(2048);
    const std::string uri = "file:" + file("key", small.private_pem() + small.public_pem());
    const std::string error = "the key in " + uri + " is not an RSA key of 4096 bits";
    EXPECT_EQ(error_of([&] { read_private_key(uri, {}); }), error);
    EXPECT_EQ(error_of([&] { read_public_key(uri); }), error);
}
