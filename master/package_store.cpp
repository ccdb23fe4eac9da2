#include "master/package_store.h"

#include "master/present_time.h"

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

// One row per item, and one without an item for a package that has none.
const char* const SELECT_PACKAGES = "SELECT p.id, p.packageName, p.packageFileName, p.packageType, p.os, "
                                    "p.version, p.size, p.createdDateTimeUTC,"
                                    " p.lastModifiedDateTimeUTC, p.lastValidatedUTC, i.fileName"
                                    " FROM packages p LEFT JOIN packageItems i ON i.packageId = p.id ";
const char* const IN_ORDER = " ORDER BY p.id, i.position";

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

// Readers then never wait for the writer nor the writer for them; FULL puts each commit on disk.
void choose_journal(Database& database) {
    Statement statement(database, "PRAGMA journal_mode = WAL");
    if (!statement.step() || statement.text(0) != "wal")
        throw StoreError("its file system cannot hold a write-ahead log");
    database.execute("PRAGMA synchronous = FULL");
}

void prepare_schema(Database& database) {
    Transaction transaction(database);
    if (is_empty(database))
        database.execute(SCHEMA);
    if (pragma(database, "application_id") != APPLICATION_ID)
        throw StoreError("the database belongs to another program");
    if (pragma(database, "user_version") != SCHEMA_VERSION)
        throw StoreError("the database comes from another version of qvmaster");
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

void append_item_of_row(Package& package, const Statement& row) {
    const int column = 10;
    if (!row.is_null(column))
        package.packageItemFileNames.push_back(row.text(column));
}

// Reads the package that begins at the current row, and leaves the statement at the row behind it. `at_row`
// says whether there is one.
Package read_package(Statement& rows, bool& at_row) {
    Package package = package_of_row(rows);
    do {
        append_item_of_row(package, rows);
        at_row = rows.step();
    } while (at_row && rows.number(0) == package.id);
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
    for (const PackageItem& item : package.packageItems)
        record.packageItemFileNames.push_back(item.fileName);
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

const char* condition(FilterField field) {
    switch (field) {
    case FilterField::version:
        return "WHERE p.version = ?";
    case FilterField::os:
        return "WHERE p.os = ?";
    case FilterField::packageType:
        return "WHERE p.packageType = ?";
    }
    return "";
}

} // namespace

std::unique_ptr<Database> ReaderPool::take() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!idle_.empty()) {
            std::unique_ptr<Database> reader = std::move(idle_.back());
            idle_.pop_back();
            return reader;
        }
    }
    auto reader = std::make_unique<Database>(file_, Database::Access::readOnly);
    // Many slow clients may each hold one, so its page cache is kept small (in KiB, when negative).
    reader->execute("PRAGMA cache_size = -512");
    return reader;
}

void ReaderPool::give_back(std::unique_ptr<Database> reader) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (idle_.size() < IDLE_READERS)
        idle_.push_back(std::move(reader));
}

PackageCursor::PackageCursor(ReaderPool& readers, const std::optional<Filter>& filter)
    : readers_(readers), reader_(readers.take()) {
    const std::string where = filter ? condition(filter->field) : "";
    statement_.emplace(*reader_, SELECT_PACKAGES + where + IN_ORDER);
    if (filter)
        statement_->bind(1, filter->value);
}

PackageCursor::~PackageCursor() {
    // The statement ends its snapshot before another reader gets the connection.
    statement_.reset();
    readers_.give_back(std::move(reader_));
}

std::optional<Package> PackageCursor::next() {
    if (!started_) {
        started_ = true;
        at_row_ = statement_->step();
    }
    if (!at_row_)
        return std::nullopt;
    return read_package(*statement_, at_row_);
}

PackageStore::PackageStore(const std::string& file) : writer_(open_for_writing(file)), readers_(file) {
    same_name_.emplace(writer_, "SELECT 1 FROM packages WHERE packageFileName = ?");
    insert_package_.emplace(writer_,
                            "INSERT INTO packages (packageFileName, packageName, packageType, os, version,"
                            " size, createdDateTimeUTC, lastModifiedDateTimeUTC, lastValidatedUTC)"
                            " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
    insert_item_.emplace(
        writer_, "INSERT INTO packageItems (packageId, position, fileName, fileSize) VALUES (?, ?, ?, ?)");
    delete_items_.emplace(writer_, "DELETE FROM packageItems WHERE packageId = ?");
    delete_package_.emplace(writer_, "DELETE FROM packages WHERE id = ?");
}

std::optional<Package> PackageStore::add(const NewPackage& package) {
    Package record = new_record(package);
    const std::lock_guard<std::mutex> lock(writing_);
    Transaction transaction(writer_);
    same_name_->reset();
    same_name_->bind(1, record.packageFileName);
    const bool taken = same_name_->step();
    // Left at its row, the statement would keep the transaction from ending.
    same_name_->reset();
    if (taken)
        return std::nullopt;
    insert_record(*insert_package_, record);
    record.id = writer_.last_insert_id();
    insert_items(*insert_item_, record.id, package.packageItems);
    transaction.commit();
    return record;
}

std::optional<Package> PackageStore::find(std::int64_t id) {
    std::unique_ptr<Database> reader = readers_.take();
    std::optional<Package> package;
    {
        Statement rows(*reader, std::string(SELECT_PACKAGES) + "WHERE p.id = ?" + IN_ORDER);
        rows.bind(1, id);
        bool at_row = rows.step();
        if (at_row)
            package = read_package(rows, at_row);
    }
    readers_.give_back(std::move(reader));
    return package;
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
    return std::make_unique<PackageCursor>(readers_, filter);
}
