// The signature check of a package file, with the key where the product installs it.

#include "files/QvRepoHelper.h"

#include "platform/interruption.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_root.h"
#include "tests/support/real_helpers.h"
#include "tests/support/signing_key.h"
#include "tests/support/sja_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

using ::testing::ElementsAre;

namespace {

class PackageVerification : public ::testing::Test {
  protected:
    PackageVerification() {
        seam_with_real_helpers();
        ProductRoot::install_key(SigningKey::publisher().public_pem());
        write_file(path_, SigningKey::publisher().signed_bytes(sja_bytes({{"one", "12345"}})));
    }

    LogRecord record(int level, const std::string& text) const {
        return {level, "QvRepoHelper::verifySja", text};
    }
    LogRecord trying() const { return record(4, "Trying to get Pubkey [" + ProductRoot::key_file() + "]"); }
    LogRecord found() const { return record(4, "Public key found. Proceeding with verification"); }
    LogRecord no_key() const { return record(16, "Public key [" + ProductRoot::key_file() + "] not found."); }
    LogRecord invalid() const { return record(16, "Signature invalid for SJA file [" + path_ + "]."); }

    static LogRecord record_of_the_signal() { return {16, "DeferredSignals", "qvrepo ends by signal 2."}; }

    int verify() const { return QvRepoHelper::verifySja(path_.c_str()); }

    ProductRoot root_;
    TemporaryDirectory directory_;
    std::string path_ = directory_.path("pack.sja");
    LogCapture log_;
};

} // namespace

TEST_F(PackageVerification, AcceptsASignedPackage) {
    EXPECT_EQ(verify(), 0);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), found(),
                                            record(4, "Signature of SJA file [" + path_ + "] is verified.")));
    EXPECT_THAT(seam().calls,
                ElementsAre("pathExists(" + path_ + ")", "pathExists(" + ProductRoot::key_file() + ")"));
}

TEST_F(PackageVerification, Reports7225ForAMissingPackage) {
    std::filesystem::remove(path_);
    EXPECT_EQ(verify(), 7225);
    EXPECT_THAT(
        log_.records(),
        ElementsAre(record(16, "Failed to read package content. Supplied .sja file does not exist: [" +
                                   path_ + "].")));
    EXPECT_EQ(QvRepoHelper::verifySja(nullptr), 7225);
}

TEST_F(PackageVerification, Reports7237ForAMissingKey) {
    std::filesystem::remove(ProductRoot::key_file());
    EXPECT_EQ(verify(), 7237);
    EXPECT_THAT(log_.records(), ElementsAre(no_key()));
}

TEST_F(PackageVerification, Reports7237ForAnEmptyKeyFile) {
    ProductRoot::install_key("");
    EXPECT_EQ(verify(), 7237);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), no_key()));
}

TEST_F(PackageVerification, ReadsAKeyFileOf65535BytesAndReports7237ForOneByteMore) {
    const std::string pem = SigningKey::publisher().public_pem();
    ProductRoot::install_key(pem + std::string(65535 - pem.size(), '\n'));
    EXPECT_EQ(verify(), 0);
    ProductRoot::install_key(pem + std::string(65536 - pem.size(), '\n'));
    EXPECT_EQ(verify(), 7237);
}

TEST_F(PackageVerification, Reports7237ForAKeyThatIsADirectory) {
    std::filesystem::remove(ProductRoot::key_file());
    std::filesystem::create_directory(ProductRoot::key_file());
    EXPECT_EQ(verify(), 7237);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), no_key()));
}

TEST_F(PackageVerification, Reports7236ForAKeyFileWithoutAKey) {
    ProductRoot::install_key("no key, but of a reasonable size\n");
    EXPECT_EQ(verify(), 7236);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), found(), invalid()));
}

TEST_F(PackageVerification, Reports7236ForAnotherKey) {
    ProductRoot::install_key(SigningKey::stranger().public_pem());
    EXPECT_EQ(verify(), 7236);
}

TEST_F(PackageVerification, Reports7236ForAChangedPackage) {
    flip_byte(path_, std::filesystem::file_size(path_) - 1);
    EXPECT_EQ(verify(), 7236);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), found(), invalid()));
}

TEST_F(PackageVerification, CallsNoSignatureInvalidWhenItIsInterrupted) {
    const int ending = in_child([this] {
        const DeferredSignals deferred;
        static_cast<void>(std::raise(SIGINT));
        if (verify() != 7236)
            _exit(1);
        return 0;
    });
    EXPECT_EQ(ending, 128 + SIGINT);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), found(), record_of_the_signal()));
}

TEST_F(PackageVerification, Reports7236ForAnUnsignedPackage) {
    write_file(path_, sja_bytes({{"one", std::string(2000, 'x')}}));
    EXPECT_EQ(verify(), 7236);
}

TEST_F(PackageVerification, Reports7236ForAShortFileAndForADirectory) {
    write_file(path_, std::string(511, 's'));
    EXPECT_EQ(verify(), 7236);
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    EXPECT_EQ(verify(), 7236);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), found(), invalid(), trying(), found(), invalid()));
}

TEST_F(PackageVerification, OpensAQuotedPathWithoutItsQuotes) {
    // The path as given is only asked for its existence, and named in the success message.
    const std::string quoted = "\"" + path_ + "\"";
    seam().pathExists = [](const char*) { return true; };
    EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 0);
    EXPECT_THAT(
        log_.records(),
        ElementsAre(trying(), found(), record(4, "Signature of SJA file [" + quoted + "] is verified.")));

    flip_byte(path_, 0);
    EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 7236);
    EXPECT_EQ(log_.records().back(), invalid());
}

TEST_F(PackageVerification, ChecksTheFileUnderAQuotedPathToo) {
    std::filesystem::create_directory(directory_.path("x"));
    std::filesystem::create_directory(directory_.path("x\""));
    std::filesystem::copy(path_, directory_.path("x/pack.sja"));
    for (const char* name : {"x\"/pack.sja", "pa\"ck.sja", "\"pack.sja\""}) {
        const std::string quoted = directory_.path(name);
        write_file(quoted, std::string(600, 'u'));
        EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 7236) << name;
        EXPECT_EQ(log_.records().back(), record(16, "Signature invalid for SJA file [" + quoted + "]."));

        write_file(quoted, read_file(path_));
        EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 0) << name;
        EXPECT_EQ(log_.records().back(), record(4, "Signature of SJA file [" + quoted + "] is verified."));
    }
}

TEST_F(PackageVerification, KeepsAnUnsignedFileUnderAQuotedPathOutOfTheRepository) {
    std::filesystem::create_directory(directory_.path("x\""));
    const std::string quoted = directory_.path("x\"/pack.sja");
    std::filesystem::create_directory(directory_.path("x"));
    std::filesystem::copy(path_, directory_.path("x/pack.sja"));
    write_file(quoted, sja_bytes({{"inner.sja", "unsigned"}}));
    std::string destination;
    EXPECT_EQ(QvRepoHelper::copySja(quoted.c_str()), 7236);
    EXPECT_EQ(QvRepoHelper::copySja(quoted.c_str(), destination, ""), 7236);
    EXPECT_EQ(QvRepoHelper::extractSja(quoted.c_str()), 7236);
    EXPECT_THAT(root_.repository_names(), ElementsAre());
}

TEST_F(PackageVerification, ChecksAFileOnceThatHasBothAQuotedPathAndTheOneWithoutQuotes) {
    const std::string quoted = directory_.path("\"pack.sja");
    std::filesystem::create_symlink("pack.sja", quoted);
    EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 0);
    std::filesystem::remove(path_);
    EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 7225) << "a link to nowhere";
}

TEST_F(PackageVerification, RefusesAQuotedPathToWhatHasNoSignature) {
    const std::string quoted = directory_.path("pack.sja\"");
    std::filesystem::create_directory(quoted);
    EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 7236);
    std::filesystem::remove(quoted);
    ASSERT_EQ(mkfifo(quoted.c_str(), 0600), 0);
    EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 7236);
}

TEST_F(PackageVerification, Reports7235ForAPipeAndDoesNotWaitForItsWriter) {
    std::filesystem::remove(path_);
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(verify(), 7235);
    EXPECT_EQ(log_.records().back(), record(16, "Could not open SJA file at path [" + path_ + "]."));
}

TEST_F(PackageVerification, Reports7237ForAKeyThatIsAPipeAndDoesNotWaitForItsWriter) {
    std::filesystem::remove(ProductRoot::key_file());
    ASSERT_EQ(mkfifo(ProductRoot::key_file().c_str(), 0600), 0);
    EXPECT_EQ(verify(), 7237);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), no_key()));
}

TEST_F(PackageVerification, Reports7235ForAPackageThatCannotBeOpened) {
    std::filesystem::remove(path_);
    const std::string quoted = "\"" + path_ + "\"";
    seam().pathExists = [](const char*) { return true; };
    EXPECT_EQ(QvRepoHelper::verifySja(quoted.c_str()), 7235);
    EXPECT_THAT(log_.records(), ElementsAre(trying(), found(),
                                            record(16, "Could not open SJA file at path [" + path_ + "].")));
}

TEST_F(PackageVerification, LeavesThePackageAlone) {
    const std::string before = read_file(path_);
    verify();
    EXPECT_EQ(read_file(path_), before);
    EXPECT_THAT(directory_.names(), ElementsAre("pack.sja"));
}
