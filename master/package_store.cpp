#include "master/package_store.h"

#include "master/present_time.h"

#include <algorithm>

namespace {

// "qvma": tells this service's files from those of other programs.
constexpr std::int64_t APPLICATION_ID = 0x71766d61;
constexpr std::int64_t SCHEMA_VERSION = 1;
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

std::int64_t pragma(Database& database, const std::string& name) {
    Statement statement(database, "PRAGMA " + name);
    return statement.step() ? statement.number(0) : 0;
}

bool is_empty(Database& database) {
    Statement statement(database, "SELECT count(*) FROM sqlite_schema");
    return statement.step() && statement.number(0) == 0;
}

void check_integrity(Database& database) {
    Statement statement(database, "PRAGMA quick_check(1)");
    const std::string verdict = statement.step() ? statement.text(0) : "no verdict";
    if (verdict != "ok")
        throw StoreError("the database is damaged: " + verdict);
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

// Readers then never wait for the writer nor the writer for them; FULL puts each commit on disk.
void choose_journal(Database& database) {
    Statement statement(database, "PRAGMA journal_mode = WAL");
    if (!statement.step() || statement.text(0) != "wal")
        throw StoreError("its file system cannot hold a write-ahead log");
    database.execute("PRAGMA synchronous = FULL");
    database.execute(LIMIT_LOG_FILE);
    sqlite3_wal_hook(database.handle(), shorten_log, nullptr);
}

void prepare_schema(Database& database) {
    Transaction transaction(database);
    if (is_empty(database))
        database.execute(SCHEMA);
    if (pragma(database, "application_id") != APPLICATION_ID)
        throw StoreError("the database belongs to another program");
    if (pragma(database, "user_version") != SCHEMA_VERSION)
        throw StoreError("the database comes from another version of qvmaster");
    database.execute(ITEM_NAME_INDEX);
    transaction.commit();
}

Database open_for_writing(const std::string& file) {
    Database database(file, Database::Access::readWrite);
    try {
        choose_journal(database);
        prepare_schema(database);
        check_integrity(database);
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
    record.createdDateTimeUTC = present_time();
    record.lastModifiedDateTimeUTC = record.createdDateTimeUTC;
    record.lastValidatedUTC = record.createdDateTimeUTC;
    return record;
}

void insert_record(Statement& insert, const Package& record) {
    insert.reset();
    insert.bind(1, record.packageFileName);
    insert.bind(2, record.packageName);
    insert.bind(3, record.packageType);
    insert.bind(4, record.os);
    insert.bind(5, record.version);
    insert.bind(6, record.size);
    insert.bind(7, record.createdDateTimeUTC);
    insert.bind(8, record.lastModifiedDateTimeUTC);
    insert.bind(9, record.lastValidatedUTC);
    insert.step();
}

void insert_items(Statement& insert, std::int64_t id, const std::vector<PackageItem>& items) {
    std::int64_t position = 0;
    for (const PackageItem& item : items) {
        insert.reset();
        insert.bind(1, id);
        insert.bind(2, position++);
        insert.bind(3, item.fileName);
        insert.bind(4, item.fileSize);
        insert.step();
    }
}

// Whether the query brings a row. Left at its row, it would keep the transaction from ending.
bool brings_row(Statement& query) {
    const bool found = query.step();
    query.reset();
    return found;
}

} // namespace

ReaderPool::ReaderPool(std::string file) : file_(std::move(file)) {
    // Giving back must not fail for want of memory.
    idle_.reserve(IDLE_READERS);
}

ReaderPool::Loan ReaderPool::take() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!idle_.empty()) {
            std::unique_ptr<Database> reader = std::move(idle_.back());
            idle_.pop_back();
            return {reader.release(), GiveBack{this}};
        }
    }
    auto reader = std::make_unique<Database>(file_, Database::Access::readOnly);
    // There may be many at once, so its page cache is kept small (in KiB, when negative).
    reader->execute("PRAGMA cache_size = -512");
    return {reader.release(), GiveBack{this}};
}

void ReaderPool::give_back(std::unique_ptr<Database> reader) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < IDLE_READERS)
        idle_.push_back(std::move(reader));
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

    // Goes to the items of a package that come after the position `item`.
    void select_items(std::int64_t id, std::int64_t item) {
        items.reset();
        items.bind(1, id);
        items.bind(2, item);
    }

    ReaderPool::Loan reader;
    Transaction transaction;
    Statement packages;
    Statement items;
};

PackageCursor::PackageCursor(ReaderPool& readers, Selection selection)
    : readers_(readers), selection_(std::move(selection)) {}

PackageCursor::~PackageCursor() = default;

// The present snapshot, or a new one that is at the same place.
PackageCursor::Snapshot& PackageCursor::snapshot() {
    if (snapshot_)
        return *snapshot_;
    auto snapshot = std::make_unique<Snapshot>(readers_, selection_.filter);
    if (!selection_.last)
        selection_.last = snapshot->highest_id();
    snapshot->packages.bind(1, in_package_ ? package_.id - 1 : selection_.after);
    snapshot->packages.bind(2, *selection_.last);
    if (selection_.filter)
        snapshot->packages.bind(3, selection_.filter->value);
    if (in_package_) {
        if (!snapshot->packages.step() || snapshot->packages.number(0) != package_.id)
            throw StoreError("package " + std::to_string(package_.id) + " was deleted while it was read");
        snapshot->select_items(package_.id, item_);
    }
    snapshot_ = std::move(snapshot);
    return *snapshot_;
}

bool PackageCursor::next_package() {
    Snapshot& now = snapshot();
    in_package_ = now.packages.step();
    if (!in_package_) {
        // A statement past its last row would begin anew.
        selection_.after = *selection_.last;
        pause();
        return false;
    }
    package_ = package_of_row(now.packages);
    selection_.after = package_.id;
    item_ = -1;
    now.select_items(package_.id, item_);
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

PackageStore::PackageStore(const std::string& file) : writer_(open_for_writing(file)), readers_(file) {
    same_file_name_.emplace(writer_, "SELECT 1 FROM packages WHERE packageFileName = ?");
    same_item_name_.emplace(writer_, "SELECT 1 FROM packageItems WHERE fileName = ?");
    insert_package_.emplace(writer_,
                            "INSERT INTO packages (packageFileName, packageName, packageType, os, version,"
                            " size, createdDateTimeUTC, lastModifiedDateTimeUTC, lastValidatedUTC)"
                            " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
    insert_item_.emplace(
        writer_, "INSERT INTO packageItems (packageId, position, fileName, fileSize) VALUES (?, ?, ?, ?)");
    delete_items_.emplace(writer_, "DELETE FROM packageItems WHERE packageId = ?");
    delete_package_.emplace(writer_, "DELETE FROM packages WHERE id = ?");
}

bool PackageStore::is_taken(const NewPackage& package) {
    same_file_name_->reset();
    same_file_name_->bind(1, package.packageFileName);
    if (brings_row(*same_file_name_))
        return true;
    return std::any_of(package.packageItems.begin(), package.packageItems.end(),
                       [this](const PackageItem& item) {
                           same_item_name_->reset();
                           same_item_name_->bind(1, item.fileName);
                           return brings_row(*same_item_name_);
                       });
}

std::optional<Package> PackageStore::add(const NewPackage& package) {
    Package record = new_record(package);
    const std::lock_guard<std::mutex> lock(writing_);
    Transaction transaction(writer_);
    if (is_taken(package))
        return std::nullopt;
    insert_record(*insert_package_, record);
    record.id = writer_.last_insert_id();
    insert_items(*insert_item_, record.id, package.packageItems);
    transaction.commit();
    return record;
}

std::unique_ptr<PackageCursor> PackageStore::find(std::int64_t id) {
    return std::make_unique<PackageCursor>(readers_, Selection{id - 1, id, std::nullopt});
}

bool PackageStore::remove(std::int64_t id) {
    const std::lock_guard<std::mutex> lock(writing_);
    Transaction transaction(writer_);
    delete_items_->reset();
    delete_items_->bind(1, id);
    delete_items_->step();
    delete_package_->reset();
    delete_package_->bind(1, id);
    delete_package_->step();
    const bool found = writer_.changed_rows() > 0;
    transaction.commit();
    return found;
}

std::unique_ptr<PackageCursor> PackageStore::list(const std::optional<Filter>& filter) {
    return std::make_unique<PackageCursor>(readers_, Selection{0, std::nullopt, filter});
}
