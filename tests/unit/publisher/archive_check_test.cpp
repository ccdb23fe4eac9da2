#include "publisher/archive_check.h"

#include "tests/support/signing_key.h"
#include "tests/support/sja_builder.h"
#include "tests/unit/publisher/refusals.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

class ArchiveCheck : public ::testing::Test {
  protected:
    ArchiveCheck() {
        write_file(key_, SigningKey::publisher().public_pem());
        write_file(path_, SigningKey::publisher().signed_bytes(archive_));
    }

    std::string verify() const {
        return refusal_of([this] { verify_archive(path_, key_, nullptr); });
    }

    TemporaryDirectory directory_;
    std::string path_ = directory_.path("a.sja");
    std::string key_ = directory_.path("pubkey.pem");
    std::string archive_ = sja_bytes({{"one", std::string(600000, '1')}});
    std::string invalid_ = "the signature of " + path_ + " is not valid for the key in " + key_;
};

} // namespace

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
    EXPECT_EQ(verify(), path_ + " is a folder");
}

TEST_F(ArchiveCheck, RefusesAKeyFileThatAMasterServerDoesNotRead) {
    write_file(key_, SigningKey::publisher().public_pem() + std::string(65536, '\n'));
    EXPECT_EQ(verify(), "a master server cannot read " + key_ + ": it is no file of up to 65535 bytes");
    write_file(key_, "no key");
    EXPECT_EQ(verify(), key_ + " holds no public key");
}

TEST_F(ArchiveCheck, DrawsProgress) {
    std::ostringstream terminal;
    verify_archive(path_, key_, &terminal);
    EXPECT_NE(terminal.str().find("] 100%"), std::string::npos);
    EXPECT_EQ(terminal.str().substr(terminal.str().size() - 4), "\r\x1b[K");
}
