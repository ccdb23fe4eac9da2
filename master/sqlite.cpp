#include "master/sqlite.h"

#include "master/log_error.h"

#include <cstdlib>

namespace {

[[noreturn]] void fail(const std::string& attempt, sqlite3* database) {
    const char* const reason = database == nullptr ? "out of memory" : sqlite3_errmsg(database);
    throw StoreError(attempt + ": " + reason);
}

int open_flags(Database::Access access) {
    const int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    if (access == Database::Access::readOnly)
        return flags | SQLITE_OPEN_READONLY;
    return flags | SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
}

// Whether a commit that fails so cannot have written its last log record, the one that makes all others
// count. After any other failure, that of a flush above all, the record may be in the log, and would be found
// at the next start.
bool is_surely_undone(int result) {
    return result == SQLITE_FULL || result == SQLITE_IOERR_WRITE || (result & 0xff) == SQLITE_BUSY;
}

} // namespace

Database::Database(const std::string& file, Access access) {
    sqlite3* handle = nullptr;
    const int result = sqlite3_open_v2(file.c_str(), &handle, open_flags(access), nullptr);
    // A failed sqlite3_open_v2 returns a handle too, which holds the reason and must be closed.
    handle_.reset(handle);
    if (result != SQLITE_OK)
        fail("cannot open the database " + file, handle);
    sqlite3_busy_timeout(handle, LOCK_WAIT_MILLISECONDS);
}

void Database::execute(const char* statements) {
    if (sqlite3_exec(handle(), statements, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail("the database refuses a statement", handle());
}

Statement::Statement(Database& database, const std::string& text) : database_(database.handle()) {
    sqlite3_stmt* handle = nullptr;
    check(sqlite3_prepare_v2(database_, text.c_str(), static_cast<int>(text.size()), &handle, nullptr));
    handle_.reset(handle);
}

void Statement::check(int result) const {
    if (result != SQLITE_OK)
        fail("the database refuses a statement", database_);
}

void Statement::bind(int index, std::int64_t number) {
    check(sqlite3_bind_int64(handle_.get(), index, number));
}

void Statement::bind(int index, const std::string& text) {
    check(sqlite3_bind_text64(handle_.get(), index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

bool Statement::step() {
    const int result = sqlite3_step(handle_.get());
    if (result == SQLITE_ROW)
        return true;
    if (result != SQLITE_DONE)
        fail("the database fails", database_);
    return false;
}

void Statement::reset() {
    // Its result only repeats the failure that the last step has reported already.
    sqlite3_reset(handle_.get());
    check(sqlite3_clear_bindings(handle_.get()));
}

std::string Statement::text(int index) const {
    // The text is asked for first: it may convert the value, and the length is that of the result.
    const unsigned char* const bytes = sqlite3_column_text(handle_.get(), index);
    const int length = sqlite3_column_bytes(handle_.get(), index);
    return std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

Transaction::Transaction(Database& database, Database::Access access) : database_(database) {
    database_.execute(access == Database::Access::readWrite ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction() {
    // There is nothing to undo after a commit, nor where a failed statement has ended the transaction.
    if (sqlite3_get_autocommit(database_.handle()) == 0)
        sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
    const int result = sqlite3_exec(database_.handle(), "COMMIT", nullptr, nullptr, nullptr);
    if (result != SQLITE_OK && !is_surely_undone(result)) {
        log_error(std::string("stopped, for it is not known whether a change is on disk: ") +
                  sqlite3_errmsg(database_.handle()));
        std::_Exit(EXIT_FAILURE);
    }
    if (result != SQLITE_OK)
        fail("the database cannot keep a change", database_.handle());
}
