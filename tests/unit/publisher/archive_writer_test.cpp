#include "publisher/archive_writer.h"

#include "tests/support/child_process.h"
#include "tests/support/signing_key.h"
#include "tests/support/sja_builder.h"
#include "tests/support/small_volume.h"
#include "tests/unit/publisher/user_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <sstream>

#include <sys/stat.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class ArchiveWriter : public ::testing::Test {
  protected:
    // A file of the directory with exactly these permission bits.
    std::string file(const std::string& name, const std::string& bytes, mode_t mode = 0644) const {
        std::string path = directory_.path(name);
        write_file(path, bytes);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }

    std::string create(const std::vector<std::string>& paths,
                       const SignatureSource& signature = nullptr) const {
        return error_of([&] { create_archive(out_, paths, signature, nullptr); });
    }
    std::string sign() const {
        return error_of([&] { sign_archive(out_, by_publisher_, nullptr); });
    }

    static mode_t mode_of(const std::string& path) {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    TemporaryDirectory directory_;
    std::string out_ = directory_.path("out.sja");
    SignatureSource by_publisher_ = signature_by(SigningKey::publisher().get());
};

} // namespace

TEST_F(ArchiveWriter, PutsFilesIntoTheirOrderUnderTheirBaseNamesWithTheirModes) {
    std::filesystem::create_directory(directory_.path("deep"));
    const std::string large(700000, 'l');
    ASSERT_EQ(
        create({file("deep/second", large, 0755), file("a first", "12345", 04640), file("empty", "", 0)}),
        "done");
    EXPECT_TRUE(read_file(out_) ==
                sja_bytes({{"second", large, 0755}, {"a first", "12345", 04640}, {"empty", "", 0}}));
}

TEST_F(ArchiveWriter, SignsEverythingBehindTheSignature) {
    ASSERT_EQ(create({file("one", "12345")}, by_publisher_), "done");
    EXPECT_EQ(read_file(out_), SigningKey::publisher().signed_bytes(sja_bytes({{"one", "12345"}})));
}

TEST_F(ArchiveWriter, MakesTheArchiveWithTheUsualModeLessTheMask) {
    const mode_t mask = umask(027);
    ASSERT_EQ(create({file("one", "1")}), "done");
    umask(mask);
    EXPECT_EQ(mode_of(out_), 0640U);
}

TEST_F(ArchiveWriter, TakesTheLongestNameThatTheFormatHolds) {
    const std::string name(255, 'n');
    ASSERT_EQ(create({file(name, "x")}), "done");
    EXPECT_EQ(read_file(out_), sja_bytes({{name, "x"}}));
}

TEST_F(ArchiveWriter, ReplacesAnEarlierArchive) {
    file("out.sja", "an earlier archive");
    ASSERT_EQ(create({file("one", "1")}), "done");
    EXPECT_EQ(read_file(out_), sja_bytes({{"one", "1"}}));
    EXPECT_THAT(directory_.names(), ElementsAre("one", "out.sja"));
}

TEST_F(ArchiveWriter, RefusesWhatTheFormatCannotHold) {
    std::filesystem::create_directory(directory_.path("directory"));
    std::filesystem::create_directory(directory_.path("other"));
    ASSERT_EQ(mkfifo(directory_.path("pipe").c_str(), 0600), 0);
    const std::string one = file("one", "1");
    const std::string same_name = file("other/one", "2");

    EXPECT_EQ(create({one, directory_.path("directory")}), directory_.path("directory") + " is a directory");
    EXPECT_EQ(create({one, "/"}), "/ is a directory");
    EXPECT_EQ(create({one, directory_.path("pipe")}), directory_.path("pipe") + " is not a regular file");
    EXPECT_EQ(create({one, "/dev/null"}), "/dev/null is not a regular file");
    EXPECT_EQ(create({one, same_name}), "the name one comes twice");
    EXPECT_EQ(create({one, one}), "the name one comes twice");
    EXPECT_EQ(create({one, directory_.path("missing")}),
              "cannot read " + directory_.path("missing") + ": No such file or directory");
    EXPECT_FALSE(std::filesystem::exists(out_));
}

TEST_F(ArchiveWriter, RefusesAnOutputThatIsOneOfTheFiles) {
    const std::string one = file("one", "1");
    std::filesystem::create_hard_link(one, out_);
    EXPECT_EQ(create({one}), out_ + " is one of the files to put into it");
    EXPECT_EQ(read_file(out_), "1");
}

TEST_F(ArchiveWriter, RefusesAnOutputThatIsNoRegularFile) {
    const std::string one = file("one", "1");
    std::filesystem::create_directory(out_);
    EXPECT_EQ(create({one}), out_ + " is not a regular file");
    EXPECT_EQ(error_of([&] { create_archive("/dev/null", {one}, nullptr, nullptr); }),
              "/dev/null is not a regular file");
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    EXPECT_EQ(error_of([&] { create_archive(directory_.path("no/out"), {one}, nullptr, nullptr); }),
              "cannot write " + directory_.path("no/out") + ": No such file or directory");
}

TEST_F(ArchiveWriter, LeavesNothingOnAFullDisk) {
    const SmallVolume volume("size=128k");
    const std::string large = file("large", std::string(300000, 'l'));
    EXPECT_EQ(error_of([&] { create_archive(volume.path("out.sja"), {large}, nullptr, nullptr); }),
              "cannot write " + volume.path("out.sja") + ": No space left on device");
    EXPECT_THAT(volume.names(), IsEmpty());
}

TEST_F(ArchiveWriter, LeavesNothingAfterAKillInTheMiddle) {
    const std::string large = file("large", std::string(600000, 'l'));
    EXPECT_EQ(with_file_size_limit(300000,
                                   [&] {
                                       create({large});
                                       return 1;
                                   }),
              128 + SIGXFSZ);
    EXPECT_THAT(directory_.names(), ElementsAre("large"));
}

TEST_F(ArchiveWriter, LeavesNothingWhenTheDiskFailsAtTheEnd) {
    const std::string one = file("one", "1");
    EXPECT_EQ(
        with_failing_syscall(
            SYS_fsync, EIO, [&] { return create({one}) == "cannot write " + out_ + ": Input/output error"; }),
        1);
    EXPECT_THAT(directory_.names(), ElementsAre("one"));
}

TEST_F(ArchiveWriter, DrawsProgressOverTheWholeArchive) {
    std::ostringstream terminal;
    create_archive(out_, {file("one", std::string(1000000, '1'))}, nullptr, &terminal);
    EXPECT_NE(terminal.str().find("] 100%"), std::string::npos);
    EXPECT_EQ(terminal.str().substr(terminal.str().size() - 4), "\r\x1b[K");
}

TEST_F(ArchiveWriter, GivesSizesOfMoreThan4GiBTheirPlaceInTheHeader) {
    const std::string large = directory_.path("large");
    write_sparse_file(large, (std::uint64_t{5} << 30) + 3);
    EXPECT_EQ(entry_header(examine_source(large)),
              sja_entry_header("large", (std::uint64_t{5} << 30) + 3, 0644));
}

TEST_F(ArchiveWriter, SignsAnUnsignedArchive) {
    const std::string archive = sja_bytes({{"one", "12345"}, {"two.sja", std::string(300000, 't')}});
    file("out.sja", archive, 0640);
    ASSERT_EQ(sign(), "done");
    EXPECT_TRUE(read_file(out_) == SigningKey::publisher().signed_bytes(archive));
    EXPECT_EQ(mode_of(out_), 0640U);
    EXPECT_THAT(directory_.names(), ElementsAre("out.sja"));
}

TEST_F(ArchiveWriter, ReplacesTheSignatureOfASignedArchive) {
    const std::string archive = sja_bytes({{"one", "12345"}});
    write_file(out_, SigningKey::stranger().signed_bytes(archive));
    ASSERT_EQ(sign(), "done");
    EXPECT_EQ(read_file(out_), SigningKey::publisher().signed_bytes(archive));
    write_file(out_, sja_bytes_with_signature_block({{"one", "12345"}}));
    ASSERT_EQ(sign(), "done");
    EXPECT_EQ(read_file(out_), SigningKey::publisher().signed_bytes(archive));
}

TEST_F(ArchiveWriter, SignsBehindASymbolicLink) {
    const std::string archive = sja_bytes({{"one", "12345"}});
    std::filesystem::create_directory(directory_.path("real"));
    file("real/archive", archive);
    std::filesystem::create_symlink("real/archive", out_);
    ASSERT_EQ(sign(), "done");
    EXPECT_TRUE(std::filesystem::is_symlink(out_));
    EXPECT_EQ(read_file(directory_.path("real/archive")), SigningKey::publisher().signed_bytes(archive));
}

TEST_F(ArchiveWriter, SignsNothingThatIsNoWholeArchive) {
    const std::string whole = sja_bytes({{"one", "12345"}});
    const struct {
        std::string bytes;
        std::string error;
    } cases[] = {
        {"", " is not an .sja archive"},
        {"some text", " is not an .sja archive"},
        {"JANK", " has no entry"},
        {"JANK1234", " is damaged: the magic is followed by bytes that are not an entry"},
        {whole.substr(0, whole.size() - 1), " is damaged: the last entry runs past the end of the file"},
        {whole + "x", " is damaged: the last entry is followed by bytes that are not an entry"},
        {whole.substr(0, 4 + 11 + 2), " is damaged: the name of the last entry is cut off"},
        {"JANK" + sja_entry_header("a", UINT64_MAX),
         " is damaged: the last entry runs past the end of the file"},
    };
    for (const auto& c : cases) {
        write_file(out_, c.bytes);
        EXPECT_EQ(sign(), out_ + c.error);
        EXPECT_EQ(read_file(out_), c.bytes);
    }
    std::filesystem::remove(out_);
    EXPECT_EQ(sign(), "cannot read " + out_ + ": No such file or directory");
    std::filesystem::create_directory(out_);
    EXPECT_EQ(sign(), out_ + " is a directory");
}

TEST_F(ArchiveWriter, KeepsTheArchiveAsItWasWhenSigningFails) {
    const std::string archive = sja_bytes({{"one", std::string(500000, '1')}});
    write_file(out_, archive);
    EXPECT_EQ(with_file_size_limit(300000,
                                   [&] {
                                       sign();
                                       return 1;
                                   }),
              128 + SIGXFSZ);
    EXPECT_EQ(with_failing_syscall(SYS_pwrite64, EIO, [&] { return sign() == "done" ? 1 : 2; }), 2);
    EXPECT_EQ(with_failing_syscall(SYS_fchmod, EPERM, [&] { return sign() == "done" ? 1 : 2; }), 2);
    EXPECT_TRUE(read_file(out_) == archive);
    EXPECT_THAT(directory_.names(), ElementsAre("out.sja"));
}

TEST_F(ArchiveWriter, KeepsAnArchiveThatItMayNotGiveAway) {
    write_file(out_, sja_bytes({{"one", "1"}}));
    EXPECT_EQ(with_failing_syscall(SYS_fchown, EPERM, [&] { return sign() == "done" ? 1 : 2; }), 1);
    EXPECT_EQ(read_file(out_), SigningKey::publisher().signed_bytes(sja_bytes({{"one", "1"}})));
}

TEST_F(ArchiveWriter, TakesTheSameMemoryForEverySize) {
    const std::string small = file("small", "s");
    const std::string large = directory_.path("large");
    write_sparse_file(large, std::uint64_t{64} << 20);
    const auto create_and_sign = [this](const std::string& path) {
        create_archive(out_, {path}, by_publisher_, nullptr);
        sign_archive(out_, signature_by(SigningKey::stranger().get()), nullptr);
    };
    const long growth = memory_growth([&] { create_and_sign(small); }, [&] { create_and_sign(large); });
    EXPECT_GE(growth, 0);
    EXPECT_LT(growth, 1024);
}
