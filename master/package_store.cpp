#include "master/package_store.h"

#include "platform/utc_time.h"

#include <algorithm>

namespace {

// "qvma" as a number, which marks the files of this service.
const char* const APPLICATION_ID = "1903586657";
constexpr std::size_t IDLE_READERS = 16;

// AUTOINCREMENT, for the ID of a deleted package must not come back, not even after a restart.
const char* const SCHEMA = R"sql(
    CREATE TABLE packages (
        id INTEGER PRIMARY KEY AUTOINCREMENT,
        packageFileName TEXT NOT NULL UNIQUE,
        packageName TEXT NOT NULL,
        packageType TEXT NOT NULL,
        os TEXT NOT NULL,
        version TEXT NOT NULL,
        size INTEGER NOT NULL,
        createdDateTimeUTC TEXT NOT NULL,
        lastModifiedDateTimeUTC TEXT NOT NULL,
        lastValidatedUTC TEXT NOT NULL
    ) STRICT;
    CREATE TABLE packageItems (
        packageId INTEGER NOT NULL REFERENCES packages (id),
        position INTEGER NOT NULL,
        fileName TEXT NOT NULL,
        fileSize INTEGER NOT NULL,
        PRIMARY KEY (packageId, position)
    ) STRICT, WITHOUT ROWID;
    PRAGMA application_id = 1903586657;
    PRAGMA user_version = 1;
)sql";

// Not unique: databases of earlier versions may hold packages that share an item name, and are served all the
// same.
const char* const ITEM_NAME_INDEX = "CREATE INDEX IF NOT EXISTS packageItemNames ON packageItems (fileName)";

// After a commit that leaves so many pages in the write-ahead log, they are copied into the database; where
// there are too many, because readers that follow upon each other never let the log begin anew, those reading
// now are waited for.
constexpr int CHECKPOINT_PAGES = 1000;
constexpr int MAX_LOG_PAGES = 4000;
constexpr int READER_WAIT_MILLISECONDS = 500;

// What stays on disk of a log that was longer, in bytes.
const char* const LIMIT_LOG_FILE = "PRAGMA journal_size_limit = 16777216";

const char* const SELECT_PACKAGES = "SELECT id, packageName, packageFileName, packageType, os, version, size,"
                                    " createdDateTimeUTC, lastModifiedDateTimeUTC, lastValidatedUTC"
                                    " FROM packages WHERE id > ?1 AND id <= ?2";
const char* const SELECT_ITEMS =
    "SELECT position, fileName FROM packageItems WHERE packageId = ? AND position > ? ORDER BY position";

// The first column of the first row.
std::string single_value(Database& database, const char* query) {
    Statement statement(database, query);
    return statement.step() ? statement.text(0) : "";
}

// A failure leaves the log as it is, for the next time.
int shorten_log(void*, sqlite3* database, const char* name, int pages) {
    if (pages < CHECKPOINT_PAGES)
        return SQLITE_OK;
    const int mode = pages < MAX_LOG_PAGES ? SQLITE_CHECKPOINT_PASSIVE : SQLITE_CHECKPOINT_RESTART;
    sqlite3_busy_timeout(database, READER_WAIT_MILLISECONDS);
    sqlite3_wal_checkpoint_v2(database, name, mode, nullptr, nullptr);
    sqlite3_busy_timeout(database, LOCK_WAIT_MILLISECONDS);
    return SQLITE_OK;
}

void prepare_schema(Database& database) {
    Transaction transaction(database);
    if (single_value(database, "SELECT count(*) FROM sqlite_schema") == "0")
        database.execute(SCHEMA);
    if (single_value(database, "PRAGMA application_id") != APPLICATION_ID)
        throw StoreError("the database belongs to another program");
    if (single_value(database, "PRAGMA user_version") != "1")
        throw StoreError("the database comes from another version of qvmaster");
    database.execute(ITEM_NAME_INDEX);
    transaction.commit();
}

Database open_for_writing(const std::string& file) {
    Database database(file, Database::Access::readWrite);
    try {
        // Readers then never wait for the writer nor the writer for them; FULL puts each commit on disk.
        if (single_value(database, "PRAGMA journal_mode = WAL") != "wal")
            throw StoreError("its file system cannot hold a write-ahead log");
        database.execute("PRAGMA synchronous = FULL");
        database.execute(LIMIT_LOG_FILE);
        sqlite3_wal_hook(database.handle(), shorten_log, nullptr);
        prepare_schema(database);
        const std::string verdict = single_value(database, "PRAGMA quick_check(1)");
        if (verdict != "ok")
            throw StoreError("the database is damaged: " + verdict);
    } catch (const StoreError& error) {
        throw StoreError("cannot use the database " + file + ": " + error.what());
    }
    return database;
}

Package package_of_row(const Statement& row) {
    Package package;
    package.id = row.number(0);
    package.packageName = row.text(1);
    package.packageFileName = row.text(2);
    package.packageType = row.text(3);
    package.os = row.text(4);
    package.version = row.text(5);
    package.size = row.number(6);
    package.createdDateTimeUTC = row.text(7);
    package.lastModifiedDateTimeUTC = row.text(8);
    package.lastValidatedUTC = row.text(9);
    return package;
}

Package new_record(const NewPackage& package) {
    Package record;
    record.packageFileName = package.packageFileName;
    record.packageName = package_name(package.packageFileName);
    record.packageType = package.packageType;
    record.os = package.os;
    record.version = package.version;
    record.size = package.size;
    record.createdDateTimeUTC = utc_timestamp();
    record.lastModifiedDateTimeUTC = record.createdDateTimeUTC;
    record.lastValidatedUTC = record.createdDateTimeUTC;
    return record;
}

// Whether a row has the value. Left at its row, it would keep the transaction from ending.
bool finds_row(Statement& query, const std::string& value) {
    query.start(value);
    const bool found = query.step();
    query.reset();
    return found;
}

} // namespace

ReaderPool::ReaderPool(std::string file) : file_(std::move(file)) {
    // Giving back must not fail for want of memory.
    idle_.reserve(IDLE_READERS);
}

std::shared_ptr<Database> ReaderPool::take() {
    std::unique_ptr<Database> reader;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!idle_.empty()) {
            reader = std::move(idle_.back());
            idle_.pop_back();
        }
    }
    if (!reader) {
        reader = std::make_unique<Database>(file_, Database::Access::readOnly);
        // There may be many at once, so its page cache is kept small (in KiB, when negative).
        reader->execute("PRAGMA cache_size = -512");
    }
    return {reader.release(), [this](Database* used) {
                std::unique_ptr<Database> returned(used);
                const std::lock_guard<std::mutex> lock(mutex_);
                if (idle_.size() < IDLE_READERS)
                    idle_.push_back(std::move(returned));
            }};
}

// Ends in the opposite order: the statements, the transaction, the loan.
struct PackageCursor::Snapshot {
    Snapshot(ReaderPool& readers, const std::optional<Filter>& filter)
        : reader(readers.take()), transaction(*reader, Database::Access::readOnly),
          packages(*reader, std::string(SELECT_PACKAGES) +
                                (filter ? " AND " + filter->column + " = ?3" : "") + " ORDER BY id"),
          items(*reader, SELECT_ITEMS) {}

    std::int64_t highest_id() const {
        Statement statement(*reader, "SELECT max(id) FROM packages");
        return statement.step() ? statement.number(0) : 0;
    }

    std::shared_ptr<Database> reader;
    Transaction transaction;
    Statement packages;
    Statement items;
};

PackageCursor::PackageCursor(ReaderPool& readers, std::int64_t after, std::optional<std::int64_t> last,
                             std::optional<Filter> filter)
    : readers_(readers), after_(after), last_(last), filter_(std::move(filter)) {}

PackageCursor::~PackageCursor() = default;

// The open snapshot, or a new one at the same place.
PackageCursor::Snapshot& PackageCursor::snapshot() {
    if (snapshot_)
        return *snapshot_;
    auto snapshot = std::make_unique<Snapshot>(readers_, filter_);
    if (!last_)
        last_ = snapshot->highest_id();
    const std::int64_t after = in_package_ ? package_.id - 1 : after_;
    if (filter_)
        snapshot->packages.start(after, *last_, filter_->value);
    else
        snapshot->packages.start(after, *last_);
    if (in_package_) {
        if (!snapshot->packages.step() || snapshot->packages.number(0) != package_.id)
            throw StoreError("package " + std::to_string(package_.id) + " was deleted while it was read");
        snapshot->items.start(package_.id, item_);
    }
    snapshot_ = std::move(snapshot);
    return *snapshot_;
}

bool PackageCursor::next_package() {
    Snapshot& now = snapshot();
    in_package_ = now.packages.step();
    if (!in_package_) {
        // A statement past its last row would start again.
        after_ = *last_;
        pause();
        return false;
    }
    package_ = package_of_row(now.packages);
    after_ = package_.id;
    item_ = -1;
    now.items.start(package_.id, item_);
    return true;
}

std::optional<std::string> PackageCursor::next_item() {
    if (!in_package_)
        return std::nullopt;
    Statement& items = snapshot().items;
    in_package_ = items.step();
    if (!in_package_)
        return std::nullopt;
    item_ = items.number(0);
    return items.text(1);
}

void PackageCursor::pause() {
    snapshot_.reset();
}

PackageStore::PackageStore(const std::string& file)
    : writer_(open_for_writing(file)), readers_(file),
      same_file_name_(writer_, "SELECT 1 FROM packages WHERE packageFileName = ?"),
      same_item_name_(writer_, "SELECT 1 FROM packageItems WHERE fileName = ?"),
      insert_package_(writer_, "INSERT INTO packages (packageFileName, packageName, packageType, os, version,"
                               " size, createdDateTimeUTC, lastModifiedDateTimeUTC, lastValidatedUTC)"
                               " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)"),
      insert_item_(writer_,
                   "INSERT INTO packageItems (packageId, position, fileName, fileSize) VALUES (?, ?, ?, ?)"),
      delete_items_(writer_, "DELETE FROM packageItems WHERE packageId = ?"),
      delete_package_(writer_, "DELETE FROM packages WHERE id = ?") {}

bool PackageStore::is_taken(const NewPackage& package) {
    return finds_row(same_file_name_, package.packageFileName) ||
           std::any_of(package.packageItems.begin(), package.packageItems.end(),
                       [this](const PackageItem& item) { return finds_row(same_item_name_, item.fileName); });
}

std::optional<Package> PackageStore::add(const NewPackage& package) {
    Package record = new_record(package);
    const std::lock_guard<std::mutex> lock(writing_);
    Transaction transaction(writer_);
    if (is_taken(package))
        return std::nullopt;
    insert_package_.start(record.packageFileName, record.packageName, record.packageType, record.os,
                          record.version, record.size, record.createdDateTimeUTC,
                          record.lastModifiedDateTimeUTC, record.lastValidatedUTC);
    insert_package_.step();
    record.id = writer_.last_insert_id();
    std::int64_t position = 0;
    for (const PackageItem& item : package.packageItems) {
        insert_item_.start(record.id, position++, item.fileName, item.fileSize);
        insert_item_.step();
    }
    transaction.commit();
    return record;
}

std::unique_ptr<PackageCursor> PackageStore::find(std::int64_t id) {
    return std::make_unique<PackageCursor>(readers_, id - 1, id, std::nullopt);
}

bool PackageStore::remove(std::int64_t id) {
    const std::lock_guard<std::mutex> lock(writing_);
    Transaction transaction(writer_);
    for (Statement* const deletion : {&delete_items_, &delete_package_}) {
        deletion->start(id);
        deletion->step();
    }
    const bool found = writer_.changed_rows() > 0;
    transaction.commit();
    return found;
}

std::unique_ptr<PackageCursor> PackageStore::list(const std::optional<Filter>& filter) {
    return std::make_unique<PackageCursor>(readers_, 0, std::nullopt, filter);
}
