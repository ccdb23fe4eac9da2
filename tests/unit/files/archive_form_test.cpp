#include "tests/unit/files/archive_files.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

int form_of(const std::string& bytes) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("a.sja");
    write_file(path, bytes);
    const FileStream archive(std::fopen(path.c_str(), "rb"));
    return verify_jank_archive(archive.get());
}

} // namespace

TEST(ArchiveForm, FollowsFromThePlaceOfTheMagic) {
    const std::string block(512, '\0');
    const struct {
        const char* what;
        std::string bytes;
        int form;
    } cases[] = {
        {"magic at the start", "JANK", 0},
        {"magic at the start with entries", sja_bytes({{"a", "x"}}), 0},
        {"magic after the signature block", block + "JANK", 1},
        {"magic after the signature block with entries", sja_bytes_with_signature_block({{"a", "x"}}), 1},
        {"magic at both places", "JANK" + std::string(508, '\0') + "JANK", 0},
        {"nothing", "", 2},
        {"fewer bytes than the magic", "JAN", 2},
        {"four other bytes", "JUNK", 2},
        {"lower case", "jank", 2},
        {"magic one byte late", " JANK", 2},
        {"signature block alone", block, 2},
        {"half a magic after the signature block", block + "JA", 2},
        {"other bytes after the signature block", block + "KNAJ", 2},
        {"magic one byte before its second place", std::string(511, '\0') + "JANK.", 2},
        {"magic one byte past its second place", std::string(513, '\0') + "JANK", 2},
    };
    for (const auto& c : cases)
        EXPECT_EQ(form_of(c.bytes), c.form) << c.what;
}

TEST(ArchiveForm, DoesNotDependOnTheStreamsPosition) {
    const TemporaryDirectory directory;
    write_file(directory.path("a.sja"), sja_bytes({{"a", "x"}}));
    const FileStream archive(std::fopen(directory.path("a.sja").c_str(), "rb"));
    ASSERT_EQ(std::fseek(archive.get(), 0, SEEK_END), 0);
    EXPECT_EQ(std::fgetc(archive.get()), EOF);

    EXPECT_EQ(verify_jank_archive(archive.get()), 0);
}

TEST(ArchiveForm, OfADirectoryIsNotAnArchive) {
    const TemporaryDirectory directory;
    const FileStream stream(std::fopen(directory.path().c_str(), "rb"));
    ASSERT_TRUE(stream);

    EXPECT_EQ(verify_jank_archive(stream.get()), 2);
}

TEST(ArchiveForm, OfAPipeIsNotAnArchive) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const FileStream reading(fdopen(ends[0], "rb"));
    const FileStream writing(fdopen(ends[1], "wb"));

    EXPECT_EQ(verify_jank_archive(reading.get()), 2);
}

TEST(LittleEndian, WordsTakeTheirLowByteFirst) {
    EXPECT_EQ(little_endian_word(0x00, 0x00), 0);
    EXPECT_EQ(little_endian_word(0xA4, 0x01), 0644);
    EXPECT_EQ(little_endian_word(0x01, 0x00), 1);
    EXPECT_EQ(little_endian_word(0x00, 0x01), 256);
    EXPECT_EQ(little_endian_word(0xFF, 0xFF), 0xFFFF);
}

TEST(LittleEndian, QuadwordsTakeTheirLowByteFirst) {
    for (const std::uint64_t number :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{0x80}, std::uint64_t{0x0123456789ABCDEF},
          std::uint64_t{0x8000000000000000}, std::uint64_t{0xFFFFFFFFFFFFFFFF}}) {
        const std::string bytes = little_endian(number, 8);
        EXPECT_EQ(little_endian_qword(reinterpret_cast<const unsigned char*>(bytes.data())), number);
    }
    const unsigned char counted[] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(little_endian_qword(counted), 0x0807060504030201U);
}

TEST(BoundedLength, StopsAt1024) {
    EXPECT_EQ(sja_strnlen(nullptr), 0U);
    EXPECT_EQ(sja_strnlen(""), 0U);
    EXPECT_EQ(sja_strnlen("repo"), 4U);
    EXPECT_EQ(sja_strnlen(std::string(1023, 'd').c_str()), 1023U);
    EXPECT_EQ(sja_strnlen(std::string(1024, 'd').c_str()), 1024U);
    EXPECT_EQ(sja_strnlen(std::string(5000, 'd').c_str()), 1024U);
}
