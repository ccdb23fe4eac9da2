#include "master/package_store.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

NewPackage new_package(const std::string& fileName, const std::string& os = "redhat_x64") {
    NewPackage package;
    package.packageFileName = fileName;
    package.packageName = "unused";
    package.os = os;
    package.version = "8.3";
    package.packageType = "qv";
    package.packageItems = {{"z", 3}, {"a", 4}};
    package.size = 7;
    return package;
}

class PackageStoreTest : public testing::Test {
  protected:
    std::vector<std::int64_t> ids(const std::optional<Filter>& filter = std::nullopt) {
        std::vector<std::int64_t> found;
        const auto cursor = store.list(filter);
        while (const auto package = cursor->next())
            found.push_back(package->id);
        return found;
    }

    TemporaryDirectory directory;
    std::string file = directory.path("db");
    PackageStore store{file};
};

using Ids = std::vector<std::int64_t>;

TEST_F(PackageStoreTest, GivesBackWhatItWasGiven) {
    const std::optional<Package> added = store.add(new_package("dunmarel_a.sja"));
    ASSERT_TRUE(added);
    EXPECT_EQ(added->id, 1);
    EXPECT_EQ(added->packageName, "a");
    EXPECT_EQ(added->packageItemFileNames, (std::vector<std::string>{"z", "a"}));
    EXPECT_EQ(added->createdDateTimeUTC.size(), std::string("2026-11-20T23:34:00.123Z").size());
    const std::optional<Package> found = store.find(1);
    ASSERT_TRUE(found);
    std::string expected;
    std::string actual;
    append_package(expected, *added, "");
    append_package(actual, *found, "");
    EXPECT_EQ(actual, expected);
}

TEST_F(PackageStoreTest, HasNoPackageThatWasNotAdded) {
    EXPECT_FALSE(store.find(1));
    EXPECT_FALSE(store.remove(1));
    EXPECT_EQ(ids(), Ids());
}

TEST_F(PackageStoreTest, RefusesASecondPackageOfTheSameFileName) {
    ASSERT_TRUE(store.add(new_package("a")));
    EXPECT_FALSE(store.add(new_package("a", "other")));
    EXPECT_TRUE(store.add(new_package("A")));
    EXPECT_EQ(ids(), (Ids{1, 2}));
}

TEST_F(PackageStoreTest, RemovesAPackageWithItsItems) {
    store.add(new_package("a"));
    EXPECT_TRUE(store.remove(1));
    EXPECT_FALSE(store.remove(1));
    Database database(file, Database::Access::readOnly);
    Statement items(database, "SELECT count(*) FROM packageItems");
    ASSERT_TRUE(items.step());
    EXPECT_EQ(items.number(0), 0);
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
    EXPECT_EQ(ids(Filter{FilterField::os, "one"}), Ids{1});
    EXPECT_EQ(ids(Filter{FilterField::os, "one' OR 1=1 --"}), Ids{3});
    EXPECT_EQ(ids(Filter{FilterField::os, "%"}), Ids());
    EXPECT_EQ(ids(Filter{FilterField::os, std::string("one\0", 4)}), Ids());
    EXPECT_EQ(ids(Filter{FilterField::version, "8.3"}), (Ids{1, 2, 3}));
    EXPECT_EQ(ids(Filter{FilterField::packageType, "qv"}), (Ids{1, 2, 3}));
    EXPECT_EQ(ids(Filter{FilterField::packageType, "8.3"}), Ids());
}

TEST_F(PackageStoreTest, ListsPackagesWithoutItemsToo) {
    NewPackage empty = new_package("a");
    empty.packageItems.clear();
    store.add(empty);
    store.add(new_package("b"));
    const auto cursor = store.list(std::nullopt);
    EXPECT_EQ(cursor->next()->packageItemFileNames, std::vector<std::string>());
    EXPECT_EQ(cursor->next()->packageItemFileNames, (std::vector<std::string>{"z", "a"}));
    EXPECT_FALSE(cursor->next());
    EXPECT_FALSE(cursor->next());
}

TEST_F(PackageStoreTest, GoesOnListingWhatWasThereWhenTheListBegan) {
    store.add(new_package("a"));
    store.add(new_package("b"));
    const auto cursor = store.list(std::nullopt);
    EXPECT_EQ(cursor->next()->id, 1);
    EXPECT_TRUE(store.remove(2));
    EXPECT_TRUE(store.add(new_package("c")));
    EXPECT_EQ(cursor->next()->id, 2);
    EXPECT_FALSE(cursor->next());
    EXPECT_EQ(ids(), (Ids{1, 3}));
}

TEST_F(PackageStoreTest, ListsInOrderOfIdWithoutSorting) {
    Database database(file, Database::Access::readOnly);
    Statement plan(database,
                   "EXPLAIN QUERY PLAN SELECT p.id, i.fileName FROM packages p LEFT JOIN packageItems i ON "
                   "i.packageId = p.id ORDER BY p.id, i.position");
    while (plan.step())
        EXPECT_EQ(plan.text(3).find("TEMP B-TREE"), std::string::npos) << plan.text(3);
}

TEST_F(PackageStoreTest, ServesManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int client = 0; client < 8; ++client)
        threads.emplace_back([this, client] {
            for (int i = 0; i < 20; ++i) {
                const auto added = store.add(new_package(std::to_string(client) + "-" + std::to_string(i)));
                EXPECT_TRUE(store.find(added->id));
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
    other.execute("CREATE TRIGGER full BEFORE INSERT ON packageItems WHEN NEW.fileName = 'a'"
                  " BEGIN SELECT RAISE(FAIL, 'no room'); END");
    EXPECT_THROW(store.add(new_package("f")), StoreError);
    other.execute("DROP TRIGGER full");
    EXPECT_EQ(ids(), Ids());
    EXPECT_EQ(store.add(new_package("f"))->id, 1);
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
