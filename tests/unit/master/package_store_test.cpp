#include "master/package_store.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include <cerrno>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// What the disk does to the database from now on.
bool failing_flush = false;
bool full_disk = false;
std::atomic<int> flushes = 0;

} // namespace

// These stand in for the C library's, which SQLite calls.
extern "C" int fdatasync(int descriptor) {
    ++flushes;
    errno = EIO;
    return failing_flush ? -1 : static_cast<int>(syscall(SYS_fdatasync, descriptor));
}

extern "C" ssize_t pwrite64(int descriptor, const void* bytes, size_t size, off64_t offset) {
    errno = ENOSPC;
    return full_disk ? -1 : syscall(SYS_pwrite64, descriptor, bytes, size, offset);
}

namespace {

NewPackage new_package(const std::string& fileName, const std::string& os = "redhat_x64") {
    NewPackage package;
    package.packageFileName = fileName;
    package.packageName = "unused";
    package.os = os;
    package.version = "8.3";
    package.packageType = "qv";
    package.packageItems = {{fileName + "-z", 3}, {fileName + "-a", 4}};
    package.size = 7;
    return package;
}

constexpr std::uintmax_t MIB = 1024UL * 1024;

using Ids = std::vector<std::int64_t>;
using Names = std::vector<std::string>;

// The file names of the present package's items that are still to be read.
Names rest_of_items(PackageCursor& cursor) {
    Names names;
    while (const auto name = cursor.next_item())
        names.push_back(*name);
    return names;
}

Ids ids_in(PackageStore& store, const std::optional<Filter>& filter = std::nullopt) {
    Ids found;
    const auto cursor = store.list(filter);
    while (cursor->next_package())
        found.push_back(cursor->package().id);
    return found;
}

class PackageStoreTest : public testing::Test {
  protected:
    Ids ids(const std::optional<Filter>& filter = std::nullopt) { return ids_in(store, filter); }

    // What a start would find now if the process were killed.
    Ids ids_after_a_kill() const {
        TemporaryDirectory copies;
        for (const char* part : {"", "-wal"})
            std::filesystem::copy_file(file + part, copies.path("db") + part);
        PackageStore found(copies.path("db"));
        return ids_in(found);
    }

    // The most bytes that the write-ahead log takes while a package of a megabyte is added and removed time
    // and again.
    std::uintmax_t longest_log_of_changes(int times) {
        NewPackage large = new_package("large");
        large.packageItems.assign(1000, {std::string(1000, 'x'), 1});
        std::uintmax_t longest = 0;
        for (int i = 0; i < times; ++i) {
            store.remove(store.add(large)->id);
            longest = std::max(longest, std::filesystem::file_size(file + "-wal"));
        }
        return longest;
    }

    std::int64_t count_items() {
        Database database(file, Database::Access::readOnly);
        Statement items(database, "SELECT count(*) FROM packageItems");
        return items.step() ? items.number(0) : -1;
    }

    TemporaryDirectory directory;
    std::string file = directory.path("db");
    PackageStore store{file};
};

TEST_F(PackageStoreTest, GivesBackWhatItWasGiven) {
    const std::optional<Package> added = store.add(new_package("dunmarel_a.sja"));
    ASSERT_TRUE(added);
    EXPECT_EQ(added->id, 1);
    EXPECT_EQ(added->packageName, "a");
    EXPECT_EQ(added->createdDateTimeUTC.size(), std::string("2026-11-20T23:34:00.123Z").size());
    store.add(new_package("b"));
    const auto found = store.find(1);
    ASSERT_TRUE(found->next_package());
    std::string expected;
    std::string actual;
    for (const auto append : {append_package_beginning, append_package_end}) {
        append(expected, *added);
        append(actual, found->package());
    }
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(rest_of_items(*found), (Names{"dunmarel_a.sja-z", "dunmarel_a.sja-a"}));
    EXPECT_FALSE(found->next_package());
}

TEST_F(PackageStoreTest, HasNoPackageThatWasNotAdded) {
    EXPECT_FALSE(store.find(1)->next_package());
    EXPECT_FALSE(store.remove(1));
    EXPECT_EQ(ids(), Ids());
}

TEST_F(PackageStoreTest, RefusesASecondPackageOfTheSameFileName) {
    ASSERT_TRUE(store.add(new_package("a")));
    EXPECT_FALSE(store.add(new_package("a", "other")));
    EXPECT_TRUE(store.add(new_package("A")));
    EXPECT_EQ(ids(), (Ids{1, 2}));
}

TEST_F(PackageStoreTest, RefusesAnItemNameThatAnotherPackageHas) {
    const auto with_items = [](const std::string& fileName, const std::vector<PackageItem>& items) {
        NewPackage package = new_package(fileName);
        package.packageItems = items;
        return package;
    };
    // Of an archive that holds a name twice, the later file stays.
    EXPECT_TRUE(store.add(with_items("bundle", {{"x", 1}, {"y", 1}, {"x", 2}})));
    EXPECT_TRUE(store.add(with_items("single", {{"single", 1}})));
    EXPECT_FALSE(store.add(with_items("x", {{"x", 1}})));
    EXPECT_FALSE(store.add(with_items("other", {{"z", 1}, {"y", 1}})));
    EXPECT_FALSE(store.add(with_items("other", {{"z", 1}, {"single", 1}})));
    EXPECT_EQ(count_items(), 4);
    EXPECT_TRUE(store.add(with_items("y", {{"Y", 1}, {"z", 1}})));
    EXPECT_TRUE(store.remove(1));
    EXPECT_TRUE(store.add(with_items("x", {{"x", 1}})));
    EXPECT_EQ(ids(), (Ids{2, 3, 4}));
}

TEST_F(PackageStoreTest, LetsOnlyOneOfManyThreadsHaveAnItemName) {
    std::atomic<int> added = 0;
    std::vector<std::thread> threads;
    for (int client = 0; client < 8; ++client)
        threads.emplace_back([this, client, &added] {
            NewPackage package = new_package(std::to_string(client));
            package.packageItems.push_back({"shared", 1});
            added += store.add(package) ? 1 : 0;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(added, 1);
    EXPECT_EQ(count_items(), 3);
}

TEST_F(PackageStoreTest, OpensAndServesADatabaseOfBeforeInWhichPackagesShareAnItemName) {
    store.add(new_package("a"));
    Database before(file, Database::Access::readWrite);
    before.execute("DROP INDEX packageItemNames;"
                   "INSERT INTO packages SELECT 2, 'b', 'b', 'qv', 'o', 'v', 1, 't', 't', 't';"
                   "INSERT INTO packageItems VALUES (2, 0, 'a-z', 1)");
    PackageStore reopened(file);
    EXPECT_EQ(ids(), (Ids{1, 2}));
    NewPackage third = new_package("c");
    third.packageItems = {{"a-z", 1}};
    EXPECT_FALSE(reopened.add(third));
    EXPECT_TRUE(reopened.remove(1));
    EXPECT_FALSE(reopened.add(third));
    EXPECT_TRUE(reopened.remove(2));
    EXPECT_TRUE(reopened.add(third));
}

TEST_F(PackageStoreTest, LooksItemNamesUpInAnIndex) {
    Database database(file, Database::Access::readOnly);
    Statement plan(database, "EXPLAIN QUERY PLAN SELECT 1 FROM packageItems WHERE fileName = ?");
    ASSERT_TRUE(plan.step());
    EXPECT_NE(plan.text(3).find("SEARCH packageItems USING COVERING INDEX"), std::string::npos)
        << plan.text(3);
}

TEST_F(PackageStoreTest, RemovesAPackageWithItsItems) {
    store.add(new_package("a"));
    EXPECT_TRUE(store.remove(1));
    EXPECT_FALSE(store.remove(1));
    EXPECT_EQ(count_items(), 0);
}

TEST_F(PackageStoreTest, RemovesNothingOfAPackageThatCannotBeRemoved) {
    store.add(new_package("a"));
    Database(file, Database::Access::readWrite)
        .execute("CREATE TRIGGER kept BEFORE DELETE ON packages BEGIN SELECT RAISE(FAIL, 'no'); END");
    EXPECT_THROW(store.remove(1), StoreError);
    EXPECT_EQ(count_items(), 2);
    EXPECT_EQ(ids(), Ids{1});
}

TEST_F(PackageStoreTest, WaitsForAnotherProcessThatWrites) {
    Database other(file, Database::Access::readWrite);
    auto writing = std::make_unique<Transaction>(other);
    std::thread ending([&writing] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        writing.reset();
    });
    EXPECT_NO_THROW(store.add(new_package("a")));
    ending.join();
    EXPECT_EQ(ids(), Ids{1});
}

TEST_F(PackageStoreTest, NeverGivesAnIdTwiceEvenAfterReopening) {
    store.add(new_package("a"));
    store.add(new_package("b"));
    store.remove(2);
    PackageStore reopened(file);
    EXPECT_EQ(reopened.add(new_package("c"))->id, 3);
}

TEST_F(PackageStoreTest, ListsWhatMatchesTheFilterExactly) {
    store.add(new_package("a", "one"));
    store.add(new_package("b", "One"));
    store.add(new_package("c", "one' OR 1=1 --"));
    EXPECT_EQ(ids(Filter{"os", "one"}), Ids{1});
    EXPECT_EQ(ids(Filter{"os", "one' OR 1=1 --"}), Ids{3});
    EXPECT_EQ(ids(Filter{"os", "%"}), Ids());
    EXPECT_EQ(ids(Filter{"os", std::string("one\0", 4)}), Ids());
    EXPECT_EQ(ids(Filter{"version", "8.3"}), (Ids{1, 2, 3}));
    EXPECT_EQ(ids(Filter{"packageType", "qv"}), (Ids{1, 2, 3}));
    EXPECT_EQ(ids(Filter{"packageType", "8.3"}), Ids());
}

TEST_F(PackageStoreTest, ListsPackagesWithoutItemsToo) {
    NewPackage empty = new_package("a");
    empty.packageItems.clear();
    store.add(empty);
    store.add(new_package("b"));
    const auto cursor = store.list(std::nullopt);
    EXPECT_TRUE(cursor->next_package());
    EXPECT_EQ(rest_of_items(*cursor), Names());
    EXPECT_TRUE(cursor->next_package());
    EXPECT_EQ(rest_of_items(*cursor), (Names{"b-z", "b-a"}));
    EXPECT_FALSE(cursor->next_package());
    EXPECT_FALSE(cursor->next_package());
    EXPECT_FALSE(cursor->next_item());
}

TEST_F(PackageStoreTest, ListsOneStateUpToAPauseAndThenWhatIsLeftOfIt) {
    for (const char* name : {"a", "b", "c", "d"})
        store.add(new_package(name));
    const auto cursor = store.list(std::nullopt);
    EXPECT_TRUE(cursor->next_package());
    EXPECT_TRUE(store.remove(2));
    EXPECT_TRUE(cursor->next_package());
    EXPECT_EQ(cursor->package().id, 2);
    EXPECT_EQ(rest_of_items(*cursor), (Names{"b-z", "b-a"}));
    cursor->pause();
    EXPECT_TRUE(store.remove(3));
    EXPECT_TRUE(store.add(new_package("e")));
    EXPECT_TRUE(cursor->next_package());
    EXPECT_EQ(cursor->package().id, 4);
    EXPECT_FALSE(cursor->next_package());
    EXPECT_EQ(ids(), (Ids{1, 4, 5}));
}

TEST_F(PackageStoreTest, GoesOnWithinAPackageAfterAPauseOrFailsWhereItIsGone) {
    store.add(new_package("a"));
    store.add(new_package("b"));
    for (const bool gone : {false, true}) {
        const auto cursor = store.list(Filter{"version", "8.3"});
        EXPECT_TRUE(cursor->next_package());
        cursor->pause();
        EXPECT_EQ(cursor->next_item(), "a-z");
        cursor->pause();
        if (gone) {
            EXPECT_TRUE(store.remove(1));
            EXPECT_THROW(cursor->next_item(), StoreError);
        } else {
            EXPECT_EQ(rest_of_items(*cursor), (Names{"a-a"}));
            cursor->pause();
            EXPECT_TRUE(cursor->next_package());
            EXPECT_EQ(rest_of_items(*cursor), (Names{"b-z", "b-a"}));
        }
    }
}

TEST_F(PackageStoreTest, KeepsItsLogShortBesideAListThatIsPaused) {
    store.add(new_package("a"));
    store.add(new_package("b"));
    const auto cursor = store.list(std::nullopt);
    EXPECT_TRUE(cursor->next_package());
    cursor->pause();
    EXPECT_LT(longest_log_of_changes(15), 10U * MIB);
    EXPECT_TRUE(cursor->next_package());
    EXPECT_EQ(cursor->package().id, 2);
}

TEST_F(PackageStoreTest, KeepsItsLogShortBesideListsThatNeverCease) {
    store.add(new_package("a"));
    std::atomic<bool> done = false;
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 8; ++reader)
        readers.emplace_back([this, &done] {
            while (!done) {
                const auto cursor = store.list(std::nullopt);
                EXPECT_TRUE(cursor->next_package());
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    EXPECT_LT(longest_log_of_changes(30), 24U * MIB);
    done = true;
    for (std::thread& reader : readers)
        reader.join();
}

TEST_F(PackageStoreTest, CutsItsLogAfterALargeChange) {
    NewPackage large = new_package("large");
    for (char first = 'a'; first <= 't'; ++first)
        large.packageItems.push_back({first + std::string(MIB, 'x'), 1});
    store.add(large);
    EXPECT_GT(std::filesystem::file_size(file + "-wal"), 20U * MIB);
    store.add(new_package("a"));
    EXPECT_LE(std::filesystem::file_size(file + "-wal"), 16U * MIB);
}

TEST_F(PackageStoreTest, ListsInOrderWithoutSorting) {
    Database database(file, Database::Access::readOnly);
    for (const char* query : {"SELECT os FROM packages WHERE id > ? AND id <= ? AND os = ? ORDER BY id",
                              "SELECT fileName FROM packageItems WHERE packageId = ? AND position > ?"
                              " ORDER BY position"}) {
        Statement plan(database, std::string("EXPLAIN QUERY PLAN ") + query);
        ASSERT_TRUE(plan.step());
        EXPECT_EQ(plan.text(3).find("SEARCH"), 0U) << plan.text(3);
        EXPECT_FALSE(plan.step()) << plan.text(3);
    }
}

TEST_F(PackageStoreTest, ServesManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int client = 0; client < 8; ++client)
        threads.emplace_back([this, client] {
            for (int i = 0; i < 20; ++i) {
                const auto added = store.add(new_package(std::to_string(client) + "-" + std::to_string(i)));
                EXPECT_TRUE(store.find(added->id)->next_package());
                EXPECT_FALSE(ids().empty());
                if (i % 2 == 0) {
                    EXPECT_TRUE(store.remove(added->id));
                }
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(ids().size(), 80U);
}

TEST_F(PackageStoreTest, ChangesNothingWhenAnItemCannotBeStored) {
    Database other(file, Database::Access::readWrite);
    other.execute("CREATE TRIGGER full BEFORE INSERT ON packageItems WHEN NEW.fileName = 'f-a'"
                  " BEGIN SELECT RAISE(FAIL, 'no room'); END");
    EXPECT_THROW(store.add(new_package("f")), StoreError);
    other.execute("DROP TRIGGER full");
    EXPECT_EQ(ids(), Ids());
    EXPECT_EQ(store.add(new_package("f"))->id, 1);
}

TEST_F(PackageStoreTest, ChangesNothingWhenTheDiskIsFull) {
    full_disk = true;
    EXPECT_THROW(store.add(new_package("a")), StoreError);
    full_disk = false;
    EXPECT_EQ(ids_after_a_kill(), Ids());
    EXPECT_EQ(store.add(new_package("a"))->id, 1);
    EXPECT_EQ(ids_after_a_kill(), Ids{1});
}

TEST_F(PackageStoreTest, IsOnDiskWhenAChangeReturns) {
    store.add(new_package("a"));
    const int before = flushes;
    store.add(new_package("b"));
    EXPECT_EQ(flushes, before + 1);
    store.remove(1);
    EXPECT_EQ(flushes, before + 2);
}

// The record of the change is in the log then, and a start would find it.
TEST_F(PackageStoreTest, EndsTheProcessWhenAChangeMayOrMayNotLast) {
    const auto change_with_failing_flush = [this](bool removal) {
        PackageStore other(file);
        failing_flush = true;
        if (removal)
            other.remove(1);
        else
            other.add(new_package("b"));
    };
    store.add(new_package("a"));
    for (const bool removal : {false, true})
        EXPECT_EXIT(change_with_failing_flush(removal), testing::ExitedWithCode(1),
                    "^qvmaster: stopped, for it is not known whether a change is on disk: disk I/O error\n$");
}

TEST(PackageStoreFile, OfAnotherProgramIsRefused) {
    TemporaryDirectory directory;
    const std::string file = directory.path("db");
    Database(file, Database::Access::readWrite).execute("CREATE TABLE other (x)");
    EXPECT_THROW(PackageStore{file}, StoreError);
}

TEST(PackageStoreFile, ThatIsNoDatabaseIsRefusedAndLeftAlone) {
    TemporaryDirectory directory;
    const std::string content(5000, 'x');
    write_file(directory.path("db"), content);
    EXPECT_THROW(PackageStore{directory.path("db")}, StoreError);
    EXPECT_EQ(read_file(directory.path("db")), content);
    EXPECT_EQ(directory.names(), std::vector<std::string>{"db"});
}

} // namespace
