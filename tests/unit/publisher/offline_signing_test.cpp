#include "publisher/archive_writer.h"
#include "publisher/digest.h"
#include "publisher/given_signature.h"

#include "tests/support/child_process.h"
#include "tests/support/signing_key.h"
#include "tests/support/sja_builder.h"
#include "tests/unit/publisher/refusals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include <openssl/sha.h>

using ::testing::ElementsAre;

namespace {

class OfflineSigning : public ::testing::Test {
  protected:
    OfflineSigning() {
        write_file(path_, archive_);
        write_file(signature_, SigningKey::publisher().signature_of(archive_));
        write_file(key_, SigningKey::publisher().public_pem());
    }

    // Attaches the signature, checked with the key of this name unless that is empty.
    std::string attach(const std::string& key = "") const {
        return refusal_of([&] {
            GivenSignature signature(signature_, key);
            sign_archive(path_, signature, nullptr);
        });
    }

    static std::string sha512(const std::string& bytes) {
        std::string digest(SHA512_DIGEST_LENGTH, '\0');
        SHA512(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
               reinterpret_cast<unsigned char*>(digest.data()));
        return digest;
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("a.sja");
    std::string signature_ = directory_.path("signature");
    std::string key_ = directory_.path("pubkey.pem");
    std::string archive_ = sja_bytes({{"one", std::string(600000, '1')}, {"two", "2"}});
};

} // namespace

TEST_F(OfflineSigning, BeginsWithTheDigestOfEverythingButTheSignature) {
    EXPECT_EQ(archive_digest(path_, nullptr), sha512(archive_));
    write_file(path_, SigningKey::stranger().signed_bytes(archive_));
    EXPECT_EQ(archive_digest(path_, nullptr), sha512(archive_));
    EXPECT_EQ(Digest().finish(), sha512(""));
}

TEST_F(OfflineSigning, DrawsProgressOverTheDigest) {
    std::ostringstream terminal;
    archive_digest(path_, &terminal);
    EXPECT_NE(terminal.str().find("] 100%"), std::string::npos);
}

TEST_F(OfflineSigning, WritesHexadecimalDigits) {
    EXPECT_EQ(hexadecimal(""), "");
    EXPECT_EQ(hexadecimal(std::string("\x00\x0f\x10\x7f\x80\xff", 6)), "000f107f80ff");
}

TEST_F(OfflineSigning, TakesADigestWithItsAlgorithmsName) {
    // What a key pads and signs without knowing what it is, gives the signature of the digest.
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(SigningKey::publisher().get(), nullptr), &EVP_PKEY_CTX_free);
    const std::string info = digest_info(sha512(archive_));
    std::string signature(512, '\0');
    std::size_t length = signature.size();
    ASSERT_EQ(EVP_PKEY_sign_init(context.get()), 1);
    ASSERT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING), 1);
    ASSERT_EQ(EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                            reinterpret_cast<const unsigned char*>(info.data()), info.size()),
              1);
    EXPECT_EQ(signature, SigningKey::publisher().signature_of(archive_));
}

TEST_F(OfflineSigning, EndsWithTheBytesThatTheKeyItselfWouldGive) {
    for (const std::string& key : {std::string(), key_, "file:" + key_}) {
        write_file(path_, archive_);
        EXPECT_EQ(attach(key), "done");
        EXPECT_TRUE(read_file(path_) == SigningKey::publisher().signed_bytes(archive_)) << key;
        EXPECT_EQ(attach(key), "done");
        EXPECT_TRUE(read_file(path_) == SigningKey::publisher().signed_bytes(archive_)) << key;
    }
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "pubkey.pem", "signature"));
}

TEST_F(OfflineSigning, KeepsTheArchiveFromASignatureThatDoesNotFit) {
    const std::string refusal =
        "the signature in " + signature_ + " is not valid for the archive and the key in " + key_;
    for (const std::string& wrong :
         {SigningKey::stranger().signature_of(archive_), SigningKey::publisher().signature_of(archive_ + "x"),
          std::string(512, '\0'), std::string(512, '\xff')}) {
        write_file(signature_, wrong);
        EXPECT_EQ(attach(key_), refusal);
        EXPECT_TRUE(read_file(path_) == archive_);
        EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "pubkey.pem", "signature"));
    }
}

TEST_F(OfflineSigning, KeepsTheArchiveFromWhatIsNoSignature) {
    for (const std::size_t size : {0U, 1U, 511U, 513U, 1024U}) {
        write_file(signature_, std::string(size, 's'));
        EXPECT_EQ(attach(), signature_ + " is no signature: it has " + std::to_string(size) +
                                " bytes, a signature has 512");
    }
    write_sparse_file(signature_, std::uint64_t{1} << 40);
    EXPECT_EQ(attach(), signature_ + " is no signature: it has 1099511627776 bytes, a signature has 512");
    EXPECT_TRUE(read_file(path_) == archive_);
}

TEST_F(OfflineSigning, TakesTheSameMemoryForEverySize) {
    const std::string small = sja_bytes({{"s", "s"}});
    const auto digest_and_attach = [this] {
        archive_digest(path_, nullptr);
        // Not valid, but only after all bytes have gone by.
        attach(key_);
        attach();
    };
    const long growth = memory_growth(
        [&] {
            write_file(path_, small);
            digest_and_attach();
        },
        [&] {
            const std::uint64_t size = std::uint64_t{64} << 20;
            const std::string head = "JANK" + sja_entry_header("large", size, 0644);
            write_file(path_, head);
            std::filesystem::resize_file(path_, head.size() + size);
            digest_and_attach();
        });
    EXPECT_GE(growth, 0);
    // A sanitizer holds back the buffers of each run; the archive has 65536 KiB.
    EXPECT_LT(growth, 4096);
}
