#include "publisher/key_uri.h"

#include "publisher/checking_key.h"
#include "publisher/uri_key.h"
#include "tests/support/signing_key.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/publisher/refusals.h"

#include <gtest/gtest.h>

namespace {

class UriOfAKey : public ::testing::Test {
  protected:
    // The URI without its PIN and, in brackets, the PIN; or why it is refused.
    static std::string parsed(const std::string& text) {
        std::string result;
        const std::string refusal = refusal_of([&] {
            const KeyUri uri = parse_key_uri(text);
            result = uri.location + (uri.pin ? " [" + uri.pin->text() + "]" : "");
        });
        return refusal == "done" ? result : refusal;
    }

    static std::string type_check(const std::string& text, KeyHalf half) {
        return refusal_of([&] { check_object_type(parse_key_uri(text), half); });
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
    for (const char* name : {"", "key", "/key", "./file:/key", "folder/a:b", "/a:b", ":key", "9p:key",
                             "-a:key", "a_b:key", "a b:key", "\xC3\xA4:key"})
        EXPECT_FALSE(is_key_uri(name)) << name;
}

TEST_F(UriOfAKey, GivesItsPinAwayToNobodyElse) {
    const std::string percent = "the PIN in the key's URI has a % without two hexadecimal digits";
    const std::pair<std::string, std::string> cases[] = {
        {"pkcs11:object=a", "pkcs11:object=a"},
        {"PkCs11:object=A", "pkcs11:object=A"},
        {"pkcs11:object=a?", "pkcs11:object=a"},
        {"pkcs11:object=a?pin-value=12", "pkcs11:object=a [12]"},
        {"pkcs11:object=a?x=1&pin-value=12&y=2", "pkcs11:object=a?x=1&y=2 [12]"},
        {"pkcs11:object=a?pin-value=%31%4a%4B%25", "pkcs11:object=a [1JK%]"},
        {"pkcs11:object=a?pin-value=a=b?c", "pkcs11:object=a [a=b?c]"},
        {"pkcs11:object=a?pin-values=12", "pkcs11:object=a?pin-values=12"},
        {"pkcs11:object=a?pin-value=", "the PIN in the key's URI is empty"},
        {"pkcs11:object=a?pin-value=%", percent},
        {"pkcs11:object=a?pin-value=12%3", percent},
        {"pkcs11:object=a?pin-value=%3g", percent},
        {"pkcs11:object=a?pin-value=%g3", percent},
        {std::string("pkcs11:object=a?pin-value=%3\0", 29), percent},
        {"pkcs11:object=a?pin-value=1&pin-value=1", "the key's URI names more than one PIN"},
        {"file:/a?pin-value=12", "file:/a?pin-value=12"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(parsed(text), expected) << text;
}

TEST_F(UriOfAKey, TakesItsPinFromTheFirstLineOfAFile) {
    const std::string pin = file("pin", "12 34\nmore\n");
    const std::string no_file = "the pin-source of the key's URI is no file's path from / on";
    const std::pair<std::string, std::string> cases[] = {
        {pin, "pkcs11: [12 34]"},
        {"file:" + pin, "pkcs11: [12 34]"},
        {"file://" + pin, "pkcs11: [12 34]"},
        {"file%3a" + pin, "pkcs11: [12 34]"},
        {directory_.path("missing"),
         "cannot read " + directory_.path("missing") + ": No such file or directory"},
        {file("empty", ""), directory_.path("empty") + " holds no passphrase in its first line"},
        {"", no_file},
        {"file:", no_file},
        {"pin", no_file},
        {"|cat", no_file},
    };
    for (const auto& [source, expected] : cases)
        EXPECT_EQ(parsed("pkcs11:?pin-source=" + source), expected) << source;
    EXPECT_EQ(parsed("pkcs11:?pin-value=1&pin-source=" + pin), "the key's URI names more than one PIN");
}

TEST_F(UriOfAKey, MayNameTheTypeOfObjectThatIsWanted) {
    for (const char* text : {"pkcs11:object=a", "pkcs11:", "file:type=cert", "pkcs11:object=type=cert"}) {
        EXPECT_EQ(type_check(text, KeyHalf::PRIVATE), "done") << text;
        EXPECT_EQ(type_check(text, KeyHalf::PUBLIC), "done") << text;
    }
    EXPECT_EQ(type_check("pkcs11:object=a;type=private?x=1", KeyHalf::PRIVATE), "done");
    EXPECT_EQ(type_check("pkcs11:type=public;object=a", KeyHalf::PUBLIC), "done");
    EXPECT_EQ(type_check("pkcs11:object=a;type=private?pin-value=1", KeyHalf::PUBLIC),
              "pkcs11:object=a;type=private names no public key");
    EXPECT_EQ(type_check("pkcs11:type=public", KeyHalf::PRIVATE), "pkcs11:type=public names no private key");
    EXPECT_EQ(type_check("pkcs11:type=cert", KeyHalf::PRIVATE), "pkcs11:type=cert names no private key");
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
    const auto after_uri = [&](const std::string& refusal) {
        return refusal.compare(0, uri.size(), uri) == 0 ? refusal.substr(uri.size()) : refusal;
    };
    for (const auto& c : cases) {
        file("key", c.pem);
        EXPECT_EQ(after_uri(refusal_of([&] { read_key(parse_key_uri(uri), KeyHalf::PRIVATE); })),
                  c.as_private)
            << c.name;
        EXPECT_EQ(after_uri(refusal_of([&] { read_checking_key(uri); })), c.as_public) << c.name;
    }
}

TEST_F(UriOfAKey, LeadsToNoKeyOfAnotherSize) {
    const SigningKey small(2048);
    const std::string uri = "file:" + file("key", small.private_pem() + small.public_pem());
    const std::string refusal = "the key in " + uri + " is not an RSA key of 4096 bits";
    EXPECT_EQ(refusal_of([&] { read_key(parse_key_uri(uri), KeyHalf::PRIVATE); }), refusal);
    EXPECT_EQ(refusal_of([&] { read_checking_key(uri); }), refusal);
}
