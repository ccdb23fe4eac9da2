// The seam's real units, linked as the program links them, on a product root of the test's own.

#include "files/extractsja.h"
#include "model/QvRepoPackage.h"
#include "seam/T.h"
#include "tests/support/product_root.h"
#include "tests/support/signing_key.h"
#include "tests/support/sja_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class RealSeam : public ::testing::Test {
  protected:
    RealSeam() {
        ProductRoot::install_key(SigningKey::publisher().public_pem());
        write_file(single_, SigningKey::publisher().signed_bytes(sja_bytes({{"setup", "12345"}})));
        write_file(envelope_,
                   SigningKey::publisher().signed_bytes(sja_bytes({{"one.sja", "1"}, {"two.sja", "22"}})));
    }

    ProductRoot root_;
    TemporaryDirectory directory_;
    std::string single_ = directory_.path("single.sja");
    std::string envelope_ = directory_.path("envelope.sja");
};

} // namespace

TEST_F(RealSeam, AsksThePlatform) {
    // Root in the sandbox, without a master configuration and without a log directory.
    EXPECT_NE(T::is_user_admin(user_permission_type_t{}), 0);
    EXPECT_NE(T::QV_read_master_config(), 0);
    EXPECT_EQ(T::lunt_is_master_server("no.such.host.example"), 0);
    int status = 0;
    T::open_debug_log("/usr/ormex/no/such/directory", "qvrepo", "qvrepo", 0666, &status);
    EXPECT_NE(status, 0);
}

TEST_F(RealSeam, MeasuresTheVolume) {
    float percent = -1;
    unsigned long megabytes = 0;
    EXPECT_EQ(T::getFreeSpace(ProductRoot::repository().c_str(), &percent, &megabytes), 0);
    EXPECT_GT(percent, 0.0F);
    EXPECT_LE(percent, 100.0F);
    EXPECT_EQ(T::getFreeSpace("/no/such/place", &percent, &megabytes), 11);
}

TEST_F(RealSeam, ChecksPathsAndSignatures) {
    EXPECT_TRUE(T::pathExists(single_.c_str()));
    EXPECT_FALSE(T::pathExists(directory_.path("missing").c_str()));
    EXPECT_EQ(T::verifySja(single_.c_str()), 0);
    flip_byte(single_, std::filesystem::file_size(single_) - 1);
    EXPECT_EQ(T::verifySja(single_.c_str()), 7236);
    EXPECT_EQ(T::verifySja(directory_.path("missing").c_str()), 7225);
}

TEST_F(RealSeam, CopiesASinglePackage) {
    EXPECT_EQ(T::copySja(single_.c_str()), 0);
    EXPECT_EQ(read_file(ProductRoot::in_repository("single.sja")), read_file(single_));
    std::string destination;
    EXPECT_EQ(T::copySja(single_.c_str(), destination, "tmp_"), 0);
    EXPECT_EQ(destination, ProductRoot::in_repository("tmp_single.sja"));
    EXPECT_THAT(root_.repository_names(), ElementsAre("single.sja", "tmp_single.sja"));
}

TEST_F(RealSeam, ExtractsAnEnvelope) {
    EXPECT_EQ(T::extractSja(envelope_.c_str()), 0);
    EXPECT_THAT(root_.repository_names(), ElementsAre("one.sja", "two.sja"));
    EXPECT_EQ(read_file(ProductRoot::in_repository("one.sja")), "1");
    EXPECT_EQ(read_file(ProductRoot::in_repository("two.sja")), "22");
    EXPECT_EQ(T::verifySja(envelope_.c_str()), 0);
}

TEST_F(RealSeam, KeepsARefusedPackageOutOfTheRepository) {
    for (const std::string& package : {single_, envelope_}) {
        flip_byte(package, 520);
        EXPECT_EQ(T::copySja(package.c_str()), 7236);
        EXPECT_EQ(T::extractSja(package.c_str()), 7236);
    }
    EXPECT_THAT(root_.repository_names(), IsEmpty());
}

TEST_F(RealSeam, ListsAndExtractsArchives) {
    std::vector<QvRepoPackageItem> items;
    EXPECT_EQ(T::readSjaContents(envelope_.c_str(), items), 0);
    ASSERT_EQ(items.size(), 2U);
    EXPECT_EQ(items[0].fileName, "two.sja");
    EXPECT_EQ(items[1].fileSize, 1U);

    stat_array* listing = T::stat_archive(single_.c_str());
    ASSERT_NE(listing, nullptr);
    EXPECT_EQ(listing->count, 1U);
    free_stat_array(listing);
    EXPECT_EQ(T::stat_archive(directory_.path("missing").c_str()), nullptr);

    EXPECT_EQ(T::do_extract(single_.c_str(), directory_.path().c_str()), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("envelope.sja", "setup"));
}

TEST_F(RealSeam, CopiesAndDeletesFiles) {
    EXPECT_EQ(T::fileCOPY(single_.c_str(), directory_.path("copy").c_str()), 0);
    EXPECT_EQ(read_file(directory_.path("copy")), read_file(single_));
    EXPECT_EQ(T::fileDELETE(directory_.path("copy").c_str()), 0);
    EXPECT_EQ(T::fileDELETE(directory_.path("copy").c_str()), ENOENT);
    EXPECT_EQ(T::deletePackageItems({single_, envelope_}), 1);
    EXPECT_EQ(T::deletePackageItems({single_}), 0);
    EXPECT_THAT(directory_.names(), IsEmpty());
}

TEST_F(RealSeam, AsksForConfirmation) {
    std::istringstream in("yes\n");
    std::ostringstream out;
    EXPECT_EQ(T::confirmAction("Sure? ", out, in), 1);
    EXPECT_EQ(out.str(), "Sure? ");
}
