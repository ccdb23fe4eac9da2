// SQLite's handles with owners, and its errors as exceptions.

#ifndef MASTER_SQLITE_H
#define MASTER_SQLITE_H

#include "platform/handle.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include <sqlite3.h>

// How long to wait for a lock of another process.
inline constexpr int LOCK_WAIT_MILLISECONDS = 10000;

// The database refuses or fails; the text says what was attempted and SQLite's own reason.
class StoreError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// One connection to a database file. It may move between threads but serves one at a time.
class Database {
  public:
    enum class Access { readOnly, readWrite }; // readWrite creates a missing file

    // Opens `file`; throws StoreError when that fails.
    Database(const std::string& file, Access access);

    // Runs statements whose rows do not matter. Throws StoreError; statements before the failing one stay
    // done.
    void execute(const char* statements);

    // The number of the row inserted last.
    std::int64_t last_insert_id() const { return sqlite3_last_insert_rowid(handle()); }

    // How many rows the last statement inserted or deleted.
    int changed_rows() const { return sqlite3_changes(handle()); }

    sqlite3* handle() const { return handle_.get(); }

  private:
    std::unique_ptr<sqlite3, Release<sqlite3_close_v2>> handle_;
};

// One prepared statement; it must not outlive its database. All members throw StoreError on failure.
class Statement {
  public:
    Statement(Database& database, const std::string& text);

    // Makes the statement ready to run, again too, with these parameters. A text may hold any bytes; it is
    // copied.
    template <typename... Values>
    void start(const Values&... values) {
        reset();
        int index = 0;
        (bind(++index, values), ...);
    }

    // Goes to the next row; false when there is none.
    bool step();

    // Ends the reading of rows, which would keep the transaction from ending.
    void reset();

    // The value of the column `index`, from 0, in the current row.
    std::int64_t number(int index) const { return sqlite3_column_int64(handle_.get(), index); }
    std::string text(int index) const;

  private:
    void bind(int index, std::int64_t number);
    void bind(int index, const std::string& text);
    void check(int result) const;

    sqlite3* database_;
    std::unique_ptr<sqlite3_stmt, Release<sqlite3_finalize>> handle_;
};

// A transaction; its destructor undoes it unless it was committed: for writing, or for reading several times
// from one and the same state.
class Transaction {
  public:
    // A readWrite one takes the database's write lock. Throws StoreError.
    explicit Transaction(Database& database, Database::Access access = Database::Access::readWrite);
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();

    // The changes are on disk when this returns. Throws StoreError when they are not there and never will be;
    // where that cannot be known, as after a failed flush, it ends the process with status 1 and a line on
    // standard error, for a change must not come back that was reported as failed.
    void commit();

  private:
    Database& database_;
};

#endif
