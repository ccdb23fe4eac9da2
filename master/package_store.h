// The packages of the master server, kept in one SQLite file.

#ifndef MASTER_PACKAGE_STORE_H
#define MASTER_PACKAGE_STORE_H

#include "master/filter.h"
#include "master/package_json.h"
#include "master/sqlite.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Lends connections for reading, one per reader at a time, and keeps some for the next.
class ReaderPool {
  public:
    explicit ReaderPool(std::string file) : file_(std::move(file)) {}

    // Throws StoreError.
    std::unique_ptr<Database> take();
    void give_back(std::unique_ptr<Database> reader);

  private:
    std::string file_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Database>> idle_;
};

// The packages in order of ID, as they were when the first was read, however long the reading takes. It holds
// no more than one package in memory, and writers do not wait for it.
class PackageCursor {
  public:
    // Throws StoreError.
    PackageCursor(ReaderPool& readers, const std::optional<Filter>& filter);
    PackageCursor(const PackageCursor&) = delete;
    PackageCursor(PackageCursor&&) = delete;
    PackageCursor& operator=(const PackageCursor&) = delete;
    PackageCursor& operator=(PackageCursor&&) = delete;
    ~PackageCursor();

    // The next package; none after the last. Throws StoreError.
    std::optional<Package> next();

  private:
    ReaderPool& readers_;
    std::unique_ptr<Database> reader_;
    std::optional<Statement> statement_;
    bool started_ = false;
    bool at_row_ = false;
};

// All members may be called from any thread. They throw StoreError, and have changed nothing then.
class PackageStore {
  public:
    // Opens `file`, creates it when it is missing, and checks that it is whole.
    explicit PackageStore(const std::string& file);

    // Creates a package, with the present time. It is on disk when this returns; its ID is higher than every
    // earlier one, those of deleted packages included. None when a package of the same file name is there
    // already.
    std::optional<Package> add(const NewPackage& package);

    // The package `id`, if there is one.
    std::optional<Package> find(std::int64_t id);

    // Deletes the package `id`; false when there is none. It is gone from the disk when this returns.
    bool remove(std::int64_t id);

    // The packages that match `filter`, or all. The store must outlive the cursor.
    std::unique_ptr<PackageCursor> list(const std::optional<Filter>& filter);

  private:
    std::mutex writing_;
    Database writer_;
    ReaderPool readers_;
    std::optional<Statement> same_name_;
    std::optional<Statement> insert_package_;
    std::optional<Statement> insert_item_;
    std::optional<Statement> delete_items_;
    std::optional<Statement> delete_package_;
};

#endif
