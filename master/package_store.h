// The packages of the master server, kept in one SQLite file.

#ifndef MASTER_PACKAGE_STORE_H
#define MASTER_PACKAGE_STORE_H

#include "master/package_json.h"
#include "master/request_parts.h"
#include "master/sqlite.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Lends connections for reading, one per reader at a time, and keeps some for the next. It must outlive them.
class ReaderPool {
  public:
    explicit ReaderPool(std::string file);

    // Throws StoreError.
    std::shared_ptr<Database> take();

  private:
    std::string file_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Database>> idle_;
};

// Reads packages in order of ID, item by item:
//
//     while (cursor.next_package())
//         while (const auto fileName = cursor.next_item())
//             ...
//
// It reads from a snapshot of the database, which keeps the write-ahead log from being reused; whoever has
// to wait for something calls pause() first, which releases it. The packages read are those that were there
// at the first call, less those that were deleted before their turn; each is read whole or fails. All members
// throw StoreError.
class PackageCursor {
  public:
    // Of the packages with an ID above `after`, up to `last` where there is one, those that match `filter`,
    // or all.
    PackageCursor(ReaderPool& readers, std::int64_t after, std::optional<std::int64_t> last,
                  std::optional<Filter> filter);
    PackageCursor(const PackageCursor&) = delete;
    PackageCursor& operator=(const PackageCursor&) = delete;
    ~PackageCursor();

    // Goes to the next package; false after the last.
    bool next_package();

    // The current package.
    const Package& package() const { return package_; }

    // The file name of its next item; none after the last. Fails where the package was deleted during a
    // pause.
    std::optional<std::string> next_item();

    // Releases the database until the next call, which continues after what was read.
    void pause();

  private:
    struct Snapshot;

    Snapshot& snapshot();

    ReaderPool& readers_;
    std::int64_t after_;
    std::optional<std::int64_t> last_;
    const std::optional<Filter> filter_;
    std::unique_ptr<Snapshot> snapshot_;
    Package package_;
    std::int64_t item_ = -1; // the position of the item read last
    bool in_package_ = false;
};

// All members may be called from any thread. They throw StoreError, and have changed nothing then; where that
// cannot be known, they end the process (see Transaction::commit).
class PackageStore {
  public:
    // Opens `file`, creates it when it is missing, and checks that it is whole.
    explicit PackageStore(const std::string& file);

    // Creates a package, created now. It is on disk when this returns; its ID is higher than every
    // earlier one, those of deleted packages included. None when there is a package of the same file name, or
    // one that has an item of the same name: all items lie in one directory.
    std::optional<Package> add(const NewPackage& package);

    // Deletes the package `id`; false when there is none. It is gone from the disk when this returns.
    bool remove(std::int64_t id);

    // The package `id` alone; the packages that match `filter`, or all. The store must outlive the cursor.
    std::unique_ptr<PackageCursor> find(std::int64_t id);
    std::unique_ptr<PackageCursor> list(const std::optional<Filter>& filter);

  private:
    bool is_taken(const NewPackage& package);

    std::mutex writing_;
    Database writer_;
    ReaderPool readers_;
    Statement same_file_name_;
    Statement same_item_name_;
    Statement insert_package_;
    Statement insert_item_;
    Statement delete_items_;
    Statement delete_package_;
};

#endif
