#include "master/sqlite.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

class SqliteTest : public testing::Test {
  protected:
    SqliteTest() { database.execute("CREATE TABLE t (number INTEGER, text TEXT)"); }

    std::int64_t count() {
        Statement statement(database, "SELECT count(*) FROM t");
        return statement.step() ? statement.number(0) : -1;
    }

    TemporaryDirectory directory;
    Database database{directory.path("db"), Database::Access::readWrite};
};

TEST_F(SqliteTest, KeepsNumbersAndTextsOfAnyBytes) {
    Statement insert(database, "INSERT INTO t VALUES (?, ?)");
    for (const std::string& text : {""s, "a\0b"s, "\xff"s}) {
        insert.start(INT64_MIN, text);
        EXPECT_FALSE(insert.step());
    }
    Statement select(database, "SELECT number, text, NULL FROM t ORDER BY rowid");
    for (const std::string& text : {""s, "a\0b"s, "\xff"s}) {
        ASSERT_TRUE(select.step());
        EXPECT_EQ(select.number(0), INT64_MIN);
        EXPECT_EQ(select.text(1), text);
        EXPECT_EQ(select.text(2), "");
    }
    EXPECT_FALSE(select.step());
}

TEST_F(SqliteTest, SaysWhyAStatementIsRefused) {
    try {
        const Statement statement(database, "SELECT * FROM nowhere");
        FAIL() << "accepted";
    } catch (const StoreError& error) {
        EXPECT_STREQ(error.what(), "the database refuses a statement: no such table: nowhere");
    }
    EXPECT_THROW(database.execute("nonsense"), StoreError);
    Statement statement(database, "SELECT 1");
    EXPECT_THROW(statement.start(std::int64_t{1}), StoreError);
}

TEST_F(SqliteTest, UndoesATransactionThatWasNotCommitted) {
    {
        Transaction transaction(database);
        database.execute("INSERT INTO t VALUES (1, 'a')");
    }
    EXPECT_EQ(count(), 0);
    Transaction transaction(database);
    database.execute("INSERT INTO t VALUES (1, 'a')");
    transaction.commit();
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(database.last_insert_id(), 1);
    EXPECT_EQ(database.changed_rows(), 1);
}

TEST_F(SqliteTest, EndsATransactionThatAFailureHasEndedAlready) {
    {
        Transaction transaction(database);
        database.execute("ROLLBACK");
    }
    Transaction next(database);
    next.commit();
}

TEST_F(SqliteTest, DoesNotWriteThroughAConnectionForReading) {
    Database reader(directory.path("db"), Database::Access::readOnly);
    EXPECT_THROW(reader.execute("INSERT INTO t VALUES (1, 'a')"), StoreError);
}

TEST(SqliteFile, ThatCannotBeOpenedIsNamed) {
    TemporaryDirectory directory;
    const std::string file = directory.path("missing/db");
    try {
        const Database opened(file, Database::Access::readWrite);
        FAIL() << "opened";
    } catch (const StoreError& error) {
        EXPECT_EQ(error.what(), "cannot open the database " + file + ": unable to open database file");
    }
    EXPECT_THROW(Database(directory.path("db"), Database::Access::readOnly), StoreError);
    EXPECT_EQ(directory.names(), std::vector<std::string>());
}

} // namespace
