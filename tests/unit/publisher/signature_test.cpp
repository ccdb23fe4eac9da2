#include "publisher/signature.h"

#include "publisher/archive_writer.h"
#include "tests/support/child_process.h"
#include "tests/support/signing_key.h"
#include "tests/support/sja_builder.h"
#include "tests/unit/publisher/user_errors.h"

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
        return error_of([&] { sign_archive(path_, signature_in(signature_, key), nullptr); });
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

class ArchiveCheck : public ::testing::Test {
  protected:
    ArchiveCheck() {
        write_file(key_, SigningKey::publisher().public_pem());
        write_file(path_, SigningKey::publisher().signed_bytes(archive_));
    }

    std::string verify() const {
        return error_of([this] { verify_archive(path_, key_, nullptr); });
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("a.sja");
    std::string key_ = directory_.path("pubkey.pem");
    std::string archive_ = sja_bytes({{"one", std::string(600000, '1')}});
    std::string invalid_ = "the signature of " + path_ + " is not valid for the key in " + key_;
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
    const std::string error =
        "the signature in " + signature_ + " is not valid for the archive and the key in " + key_;
    for (const std::string& wrong :
         {SigningKey::stranger().signature_of(archive_), SigningKey::publisher().signature_of(archive_ + "x"),
          std::string(512, '\0'), std::string(512, '\xff')}) {
        write_file(signature_, wrong);
        EXPECT_EQ(attach(key_), error);
        EXPECT_TRUE(read_file(path_) == archive_);
        EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "pubkey.pem", "signature"));
    }
}

TEST_F(OfflineSigning, KeepsTheArchiveFromWhatIsNoSignature) {
    for (const std::size_t size : {0U, 1U, 511U, 513U, 1024U}) {
        write_file(signature_, std::string(size, 's'));
        EXPECT_EQ(attach(), signature_ + " is not a signature: it has " + std::to_string(size) +
                                " bytes, a signature has 512");
    }
    write_sparse_file(signature_, std::uint64_t{1} << 40);
    EXPECT_EQ(attach(), signature_ + " is not a signature: it has 1099511627776 bytes, a signature has 512");
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

TEST_F(ArchiveCheck, AcceptsAValidSignature) {
    EXPECT_EQ(verify(), "done");
}

TEST_F(ArchiveCheck, RefusesAnyChange) {
    for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{520}, std::uint64_t{600000}}) {
        flip_byte(path_, offset);
        EXPECT_EQ(verify(), invalid_) << offset;
        flip_byte(path_, offset);
    }
    cut_last_byte(path_);
    EXPECT_EQ(verify(), invalid_);
}

TEST_F(ArchiveCheck, RefusesAnotherKey) {
    write_file(key_, SigningKey::stranger().public_pem());
    EXPECT_EQ(verify(), invalid_);
}

TEST_F(ArchiveCheck, TellsUnsignedArchivesAndOtherFiles) {
    write_file(path_, archive_);
    EXPECT_EQ(verify(), path_ + " is not signed");
    write_file(path_, std::string(600, 'x'));
    EXPECT_EQ(verify(), path_ + " is not an .sja archive");
    std::filesystem::remove(path_);
    EXPECT_EQ(verify(), "cannot read " + path_ + ": No such file or directory");
    std::filesystem::create_directory(path_);
    EXPECT_EQ(verify(), path_ + " is a directory");
}

TEST_F(ArchiveCheck, RefusesAKeyFileThatAMasterServerDoesNotRead) {
    write_file(key_, SigningKey::publisher().public_pem() + std::string(65536, '\n'));
    EXPECT_EQ(verify(), "a master server cannot read " + key_ + ": it has more than 65535 bytes");
    write_file(key_, "no key");
    EXPECT_EQ(verify(), key_ + " holds no public key");
}

TEST_F(ArchiveCheck, DrawsProgress) {
    std::ostringstream terminal;
    verify_archive(path_, key_, &terminal);
    EXPECT_NE(terminal.str().find("] 100%"), std::string::npos);
    EXPECT_EQ(terminal.str().substr(terminal.str().size() - 4), "\r\x1b[K");
}

TEST(SignatureByAKey, IsThatOfTheBytesThatWentBy) {
    const SignatureSource signature = signature_by(SigningKey::publisher().get());
    Digest digest;
    digest.update("first ", 6);
    digest.update("", 0);
    digest.update("second", 6);
    EXPECT_EQ(signature(digest.finish()), SigningKey::publisher().signature_of("first second"));
    EXPECT_EQ(signature(Digest().finish()), SigningKey::publisher().signature_of(""));
}
