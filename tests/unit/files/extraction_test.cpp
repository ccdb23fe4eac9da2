#include "tests/support/child_process.h"
#include "tests/unit/files/archive_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using ::testing::ElementsAre;

namespace {

class Extraction : public ::testing::Test {
  protected:
    Extraction() { std::filesystem::create_directory(out_); }

    int extract(const std::string& archive_bytes) {
        write_file(archive_, archive_bytes);
        return do_extract(archive_.c_str(), out_.c_str());
    }

    std::string in_out(const std::string& name) const { return out_ + "/" + name; }
    std::string contents(const std::string& name) const { return read_file(in_out(name)); }

    static mode_t mode_of(const std::string& path) {
        struct stat file = {};
        EXPECT_EQ(lstat(path.c_str(), &file), 0) << path;
        return file.st_mode & 07777;
    }

    // Makes a pipe among the extracted files and opens it as its reader.
    int open_pipe(const std::string& name) const {
        EXPECT_EQ(mkfifo(in_out(name).c_str(), 0600), 0);
        return open(in_out(name).c_str(),
                    O_RDWR); // so that waiting for the writer is not the end of the file
    }

    // Reads `size` bytes of a pipe, or fewer when none come for ten seconds, and returns how many. The last
    // five are left in `tail`.
    static std::uint64_t drain(int pipe, std::uint64_t size, std::string* tail = nullptr) {
        std::vector<char> bytes(1U << 20U);
        std::string last;
        std::uint64_t received = 0;
        pollfd ready = {pipe, POLLIN, 0};
        while (received < size && poll(&ready, 1, 10000) == 1) {
            const ssize_t count =
                read(pipe, bytes.data(), std::min<std::uint64_t>(size - received, bytes.size()));
            received += static_cast<std::uint64_t>(count);
            last.append(bytes.data(), static_cast<std::size_t>(count));
            last.erase(0, last.size() - std::min<std::size_t>(last.size(), 5));
        }
        if (tail != nullptr)
            *tail = last;
        return received;
    }

    TemporaryDirectory directory_;
    std::string archive_ = directory_.path("a.sja");
    std::string out_ = directory_.path("out");
};

} // namespace

TEST_F(Extraction, WritesEveryEntryAndDeletesTheArchive) {
    const std::string large(100000, 'l');
    EXPECT_EQ(extract(sja_bytes({{"one", "12345"}, {"large", large}, {"empty", ""}})), 1);

    EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/empty", "out/large", "out/one"));
    EXPECT_EQ(contents("one"), "12345");
    EXPECT_EQ(contents("large"), large);
    EXPECT_EQ(contents("empty"), "");
    EXPECT_EQ(extractsja_error, 0);
}

TEST_F(Extraction, WorksOnTheSignedForm) {
    EXPECT_EQ(extract(sja_bytes_with_signature_block({{"one", "12345"}})), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/one"));
    EXPECT_EQ(contents("one"), "12345");
}

TEST_F(Extraction, CopiesChunksOfEveryLength) {
    std::vector<SjaEntry> entries;
    for (const std::size_t size : {1U, 4095U, 4096U, 4097U, 8192U, 262143U, 262144U, 262145U})
        entries.push_back({std::to_string(size), std::string(size - 1, 'a') + 'z'});
    ASSERT_EQ(extract(sja_bytes(entries)), 1);
    for (const SjaEntry& entry : entries)
        EXPECT_TRUE(contents(entry.name) == entry.data) << entry.name;
}

TEST_F(Extraction, LeavesTheFirstOfTwoEntriesOfOneName) {
    ASSERT_EQ(extract(sja_bytes({{"twice", "near the start"}, {"twice", "near the end"}})), 1);
    EXPECT_EQ(contents("twice"), "near the start");
}

TEST_F(Extraction, LeavesAFileThatIsNamedLikeAnUnfinishedOne) {
    const std::string name = ".x.0123456789abcdef.part";
    for (const bool earlier : {false, true}) {
        if (earlier)
            write_file(in_out("x"), "earlier");
        EXPECT_EQ(extract(sja_bytes({{"x", "12345"}, {name, "part"}})), 1);
        EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/" + name, "out/x"));
        EXPECT_EQ(contents("x"), "12345");
        EXPECT_EQ(contents(name), "part");
    }
    EXPECT_EQ(extract(sja_bytes({{"x", "of another archive"}})), 1);
    EXPECT_EQ(contents(name), "part");
}

TEST_F(Extraction, SetsTheLow12BitsOfTheStoredModeWhateverTheMask) {
    const mode_t mask = umask(077);
    ASSERT_EQ(extract(sja_bytes({{"plain", "x", 0644},
                                 {"setuid", "x", 04755},
                                 {"everything", "x", 0177777},
                                 {"high bits", "x", 0170640},
                                 {"nothing", "x", 0}})),
              1);
    umask(mask);
    EXPECT_EQ(mode_of(in_out("plain")), 0644U);
    EXPECT_EQ(mode_of(in_out("setuid")), 04755U);
    EXPECT_EQ(mode_of(in_out("everything")), 07777U);
    EXPECT_EQ(mode_of(in_out("high bits")), 0640U);
    EXPECT_EQ(mode_of(in_out("nothing")), 0U);
}

TEST_F(Extraction, WritesAnEntryThatRunsPastTheEndOfTheFileAtItsDeclaredSize) {
    // What the file lacks is filled with what the 4096-byte buffer holds: zeros at first, the last chunk
    // later on.
    ASSERT_EQ(extract("JANK" + sja_entry_header("short", 5000) + "0123456789"), 1);
    EXPECT_EQ(contents("short"),
              "0123456789" + std::string(4086, '\0') + "0123456789" + std::string(904 - 10, '\0'));

    ASSERT_EQ(extract("JANK" + sja_entry_header("nothing", 9)), 1);
    EXPECT_EQ(contents("nothing"), std::string(9, '\0'));
}

TEST_F(Extraction, UsesWhatIsThereOfANameThatIsCutOff) {
    ASSERT_EQ(extract("JANK" + sja_entry_header("package", 3).substr(0, 15)), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/pack"));
    EXPECT_EQ(contents("pack"), std::string(3, '\0'));
}

TEST_F(Extraction, FailsOnWhatIsNotAnArchiveAndKeepsTheFile) {
    for (const std::string& bytes : {std::string(), std::string("JAN"), std::string("JANK"),
                                     std::string("no archive at all"), sja_bytes_with_signature_block({})}) {
        EXPECT_EQ(extract(bytes), 0) << bytes;
        EXPECT_EQ(read_file(archive_), bytes);
    }
    EXPECT_EQ(do_extract(directory_.path("missing").c_str(), out_.c_str()), 0);
    EXPECT_EQ(do_extract(out_.c_str(), out_.c_str()), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
}

TEST_F(Extraction, StopsAtTheEntryThatCannotBeWritten) {
    // A directory has the name of the third entry from the end.
    std::filesystem::create_directory(in_out("three"));
    const std::vector<SjaEntry> kept = {{"one", "1"}, {"two", "22"}, {"three", "333"}};
    std::vector<SjaEntry> all = kept;
    all.push_back({"four", "4444"});
    all.push_back({"five", "55555"});

    EXPECT_EQ(extract(sja_bytes(all)), 0);
    EXPECT_EQ(extractsja_error, 1);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/", "out/five", "out/four", "out/three/"));
    EXPECT_EQ(read_file(archive_), sja_bytes(kept));

    std::filesystem::remove(in_out("three"));
    EXPECT_EQ(do_extract(archive_.c_str(), out_.c_str()), 1);
    EXPECT_EQ(extractsja_error, 0);
    EXPECT_THAT(directory_.names(),
                ElementsAre("out/", "out/five", "out/four", "out/one", "out/three", "out/two"));
}

TEST_F(Extraction, FailsOnANameOfNoLength) {
    const std::string bytes = sja_bytes({{"", "data"}});
    EXPECT_EQ(extract(bytes), 0);
    EXPECT_EQ(do_extract(archive_.c_str(), nullptr), 0);
    EXPECT_EQ(do_extract(archive_.c_str(), ""), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
    EXPECT_EQ(read_file(archive_), bytes);
}

TEST_F(Extraction, FailsWithoutTheDirectory) {
    const std::string bytes = sja_bytes({{"one", "1"}});
    write_file(archive_, bytes);
    EXPECT_EQ(do_extract(archive_.c_str(), directory_.path("missing").c_str()), 0);
    EXPECT_EQ(do_extract(archive_.c_str(), std::string(1025, 'd').c_str()), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
    EXPECT_EQ(read_file(archive_), bytes);
}

TEST_F(Extraction, UsesANameWithADirectoryPartAsItIs) {
    std::filesystem::create_directory(in_out("sub"));
    ASSERT_EQ(extract(sja_bytes({{"sub/inside", "i"}, {"../beside", "b"}})), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("beside", "out/", "out/sub/", "out/sub/inside"));

    EXPECT_EQ(extract(sja_bytes({{"no such directory/x", "x"}})), 0);
    EXPECT_EQ(extract(sja_bytes({{"sub/", "x"}})), 0);
    EXPECT_EQ(extract(sja_bytes({{"new/", "x"}})), 0);
    EXPECT_EQ(extract(sja_bytes({{"..", "x"}})), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "beside", "out/", "out/sub/", "out/sub/inside"));
}

TEST_F(Extraction, WritesToTheWorkingDirectoryWithoutADirectory) {
    write_file(archive_, sja_bytes({{"one", "1"}}));
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(out_);
    EXPECT_EQ(do_extract(archive_.c_str(), nullptr), 1);
    write_file(archive_, sja_bytes({{"two", "2"}}));
    EXPECT_EQ(do_extract(archive_.c_str(), ""), 1);
    std::filesystem::current_path(before);
    EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/one", "out/two"));
}

TEST_F(Extraction, ReplacesAnEarlierFile) {
    write_file(in_out("one"), "an earlier and longer file");
    ASSERT_EQ(extract(sja_bytes({{"one", "new", 0600}})), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("out/", "out/one"));
    EXPECT_EQ(contents("one"), "new");
    EXPECT_EQ(mode_of(in_out("one")), 0600U);
}

TEST_F(Extraction, WritesThroughSymbolicLinks) {
    std::filesystem::create_directory(directory_.path("elsewhere"));
    write_file(directory_.path("elsewhere/there"), "old");
    std::filesystem::create_symlink("../elsewhere/there", in_out("link"));
    std::filesystem::create_symlink(directory_.path("elsewhere/new"), in_out("absolute"));
    std::filesystem::create_symlink("absolute", in_out("two links"));

    ASSERT_EQ(extract(sja_bytes({{"link", "to a file", 0640}, {"two links", "to none", 0600}})), 1);
    EXPECT_THAT(directory_.names(), ElementsAre("elsewhere/", "elsewhere/new", "elsewhere/there", "out/",
                                                "out/absolute", "out/link", "out/two links"));
    EXPECT_TRUE(std::filesystem::is_symlink(in_out("link")));
    EXPECT_TRUE(std::filesystem::is_symlink(in_out("two links")));
    EXPECT_EQ(read_file(directory_.path("elsewhere/there")), "to a file");
    EXPECT_EQ(read_file(directory_.path("elsewhere/new")), "to none");
    EXPECT_EQ(mode_of(directory_.path("elsewhere/there")), 0640U);
    EXPECT_EQ(mode_of(directory_.path("elsewhere/new")), 0600U);
}

TEST_F(Extraction, FailsOnLinksThatLeadNowhere) {
    std::filesystem::create_symlink("loop", in_out("loop"));
    EXPECT_EQ(extract(sja_bytes({{"loop", "x"}})), 0);
    std::filesystem::remove(in_out("loop"));
    std::filesystem::create_symlink("no such directory/file", in_out("dangling"));
    EXPECT_EQ(extract(sja_bytes({{"dangling", "x"}})), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/", "out/dangling"));
}

TEST_F(Extraction, WritesIntoAPipeThatHasTheName) {
    ASSERT_EQ(mkfifo(in_out("pipe").c_str(), 0600), 0);
    const int reader = open(in_out("pipe").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);

    EXPECT_EQ(extract(sja_bytes({{"pipe", "through the pipe"}})), 1);
    char text[64] = {};
    EXPECT_EQ(read(reader, text, sizeof text), 16);
    EXPECT_STREQ(text, "through the pipe");
    close(reader);
    EXPECT_TRUE(std::filesystem::is_fifo(in_out("pipe")));
}

TEST_F(Extraction, FailsOnAPipeWithoutAReaderAndDoesNotWaitForOne) {
    const std::string bytes = sja_bytes({{"pipe", "nobody reads"}});
    ASSERT_EQ(mkfifo(in_out("pipe").c_str(), 0600), 0);
    EXPECT_EQ(extract(bytes), 0);
    EXPECT_EQ(read_file(archive_), bytes);
}

TEST_F(Extraction, WaitsForTheReaderOfAPipeThatIsFull) {
    const int reader = open_pipe("pipe");
    std::uint64_t received = 0;
    std::thread late_reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        received = drain(reader, 300000);
    });
    EXPECT_EQ(extract(sja_bytes({{"pipe", std::string(300000, 'p')}})), 1);
    late_reader.join();
    close(reader);
    EXPECT_EQ(received, 300000U);
}

TEST_F(Extraction, FailsWhileAnotherProcessExtractsTheArchive) {
    const std::string bytes = sja_bytes({{"one", "1"}});
    write_file(archive_, bytes);
    const int other = open(archive_.c_str(), O_RDONLY);
    ASSERT_EQ(flock(other, LOCK_EX), 0);
    EXPECT_EQ(do_extract(archive_.c_str(), out_.c_str()), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/"));
    EXPECT_EQ(read_file(archive_), bytes);
    close(other);
    EXPECT_EQ(do_extract(archive_.c_str(), out_.c_str()), 1);
}

TEST_F(Extraction, KeepsAnotherFileThatTookTheArchivesName) {
    // While the only entry goes into a pipe that cannot hold it, another archive is put in place.
    const int reader = open_pipe("pipe");
    write_file(directory_.path("b.sja"), "another archive");
    std::thread other([&] {
        drain(reader, 1);
        std::filesystem::rename(directory_.path("b.sja"), archive_);
        drain(reader, 299999);
    });
    EXPECT_EQ(extract(sja_bytes({{"pipe", std::string(300000, 'p')}})), 1);
    other.join();
    close(reader);
    EXPECT_EQ(read_file(archive_), "another archive");
}

TEST_F(Extraction, TakesADirectoryOf1024BytesAndNoLongerOne) {
    const std::string bytes = sja_bytes({{"one", "1"}});
    for (const std::size_t length : {1024U, 1025U}) {
        std::string deep = out_;
        while (deep.size() < length)
            deep += "/" + std::string(std::min<std::size_t>(length - deep.size() - 1, 200), 'd');
        // No component may be empty.
        ASSERT_NE(deep.back(), '/');
        std::filesystem::create_directories(deep);
        write_file(archive_, bytes);
        EXPECT_EQ(do_extract(archive_.c_str(), deep.c_str()), length == 1024 ? 1 : 0) << length;
        EXPECT_EQ(std::filesystem::exists(deep + "/one"), length == 1024) << length;
    }
}

TEST_F(Extraction, RefusesToWriteOverTheArchiveItself) {
    const std::string bytes = sja_bytes({{"one", "1"}, {"a.sja", "2"}});
    archive_ = in_out("a.sja");
    EXPECT_EQ(extract(bytes), 0);
    EXPECT_EQ(read_file(archive_), bytes);

    std::filesystem::create_symlink("a.sja", in_out("link"));
    const std::string by_link = sja_bytes({{"link", "2"}});
    EXPECT_EQ(extract(by_link), 0);
    EXPECT_EQ(read_file(archive_), by_link);
}

TEST_F(Extraction, CutsTheArchiveAfterOffsetsOf4GiB) {
    // The first entry cannot be written and stays, so that nothing of its size is copied.
    std::filesystem::create_directory(in_out("huge"));
    const std::uint64_t size = (std::uint64_t{4} << 30) + 5;
    write_sparse_file(archive_, 4 + 15 + size);
    overwrite_at(archive_, 0, "JANK" + sja_entry_header("huge", size));
    overwrite_at(archive_, 4 + 15 + size, SjaEntry{"last", "data of the last"}.bytes());

    EXPECT_EQ(do_extract(archive_.c_str(), out_.c_str()), 0);
    EXPECT_EQ(contents("last"), "data of the last");
    EXPECT_EQ(std::filesystem::file_size(archive_), 4 + 15 + size);
}

TEST_F(Extraction, CopiesEntriesOfMoreThan2GiB) {
    // From a sparse file in memory into a pipe: no disk and no memory is filled.
    archive_ = "/usr/ormex/large.sja";
    const std::uint64_t size = (std::uint64_t{2} << 30) + 4097;
    write_sparse_file(archive_, 4 + 12 + size);
    overwrite_at(archive_, 0, "JANK" + sja_entry_header("b", size));
    overwrite_at(archive_, 4 + 12 + size - 4, "end.");
    const int pipe = open_pipe("b");

    std::uint64_t received = 0;
    std::string tail;
    std::thread reader([&] { received = drain(pipe, size, &tail); });
    EXPECT_EQ(do_extract(archive_.c_str(), out_.c_str()), 1);
    reader.join();
    close(pipe);
    EXPECT_EQ(received, size);
    EXPECT_EQ(tail, std::string("\0end.", 5));
}

TEST_F(Extraction, TakesTheSameMemoryForEverySize) {
    write_file(archive_, sja_bytes({{"small", "s"}}));
    const std::string large = directory_.path("large.sja");
    const std::uint64_t size = std::uint64_t{64} << 20;
    write_sparse_file(large, 4 + 16 + size);
    overwrite_at(large, 0, "JANK" + sja_entry_header("large", size));
    const long growth = memory_growth([this] { do_extract(archive_.c_str(), out_.c_str()); },
                                      [&] { do_extract(large.c_str(), out_.c_str()); });
    EXPECT_GE(growth, 0);
    EXPECT_LT(growth, 1024);
    EXPECT_EQ(std::filesystem::file_size(in_out("large")), size);
}

TEST_F(Extraction, OfOneBlockReturnsTheOneBefore) {
    write_file(archive_, sja_bytes({{"one", "1"}, {"two", "22"}}));
    FILE* archive = std::fopen(archive_.c_str(), "rb+");
    block_info* second = get_blocks(archive, 0);
    ASSERT_NE(second, nullptr);

    block_info* first = extract_block(archive, second, out_.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->index, 1U);
    EXPECT_EQ(read_file(archive_), sja_bytes({{"one", "1"}}));
    EXPECT_EQ(extract_block(archive, first, out_.c_str()), nullptr);
    EXPECT_EQ(read_file(archive_), "JANK");
    EXPECT_EQ(std::fclose(archive), 0);
    EXPECT_THAT(directory_.names(), ElementsAre("a.sja", "out/", "out/one", "out/two"));
}

TEST_F(Extraction, OfOneBlockClosesTheArchiveWhenItFails) {
    write_file(archive_, sja_bytes({{"one", "1"}, {"two", "22"}}));
    std::filesystem::create_directory(in_out("two"));
    FILE* archive = std::fopen(archive_.c_str(), "rb+");
    const int descriptor = fileno(archive);
    block_info* second = get_blocks(archive, 0);

    extractsja_error = 0;
    EXPECT_EQ(extract_block(archive, second, out_.c_str()), nullptr);
    EXPECT_EQ(extractsja_error, 1);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}
