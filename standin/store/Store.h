#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "standin/store/Clock.h"
#include "standin/store/Database.h"

namespace kzv::standin {

struct StoreOptions {
  /// The folder of the state. Empty: a temporary one that is removed with the Store.
  std::filesystem::path folder;
};

/// The stand-in's state on disk: one SQLite database (WAL) and a folder of bodies.
///
/// Any thread. Readers run in parallel, each on its own connection and a stable snapshot; a writer holds the
/// write lock from construction to destruction. A thread with a Reader must not construct a Writer. Errors:
/// DatabaseError from every function that touches the database.
class Store {
 public:
  /// A consistent view of the state for the life of the object.
  class Reader {
   public:
    explicit Reader(Store& store);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    Database& database() { return *database_; }

   private:
    Store& store_;
    std::unique_ptr<Database> database_;
  };

  /// One transaction. Rolled back unless commit() was called.
  class Writer {
   public:
    explicit Writer(Store& store);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    Database& database() { return *store_.writeConnection_; }
    Store& store() { return store_; }
    /// The next number of the change journal; also the source of revision numbers.
    std::int64_t nextSeq() { return ++seq_; }
    /// Removes a body's file after the transaction has been committed.
    void removeLater(std::filesystem::path file) { doomed_.push_back(std::move(file)); }
    void commit();

   private:
    Store& store_;
    std::lock_guard<std::mutex> lock_;
    std::int64_t seq_;
    bool open_ = true;
    std::vector<std::filesystem::path> doomed_;
  };

  Store(StoreOptions options, const Clock& clock);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  std::filesystem::path bodiesFolder() const { return folder_ / "bodies"; }
  std::filesystem::path incomingFolder() const { return folder_ / "incoming"; }
  std::filesystem::path sessionsFolder() const { return folder_ / "sessions"; }
  const Clock& clock() const { return clock_; }

  /// Secret of this store: signs cursors.
  const std::string& secret() const { return secret_; }
  /// The epoch of cursors; storing one also wakes waitForCommit().
  std::int64_t loadEpoch();
  void storeEpoch(std::int64_t epoch);
  /// The number of commits, for waitForCommit().
  std::uint64_t commits() const { return commits_; }
  /// Blocks until a commit after number `seen`, the deadline, or wakeWaiters(). @return false after
  /// wakeWaiters().
  bool waitForCommit(std::uint64_t seen, std::chrono::steady_clock::time_point deadline);
  /// Ends current and later waits, before the program stops.
  void wakeWaiters();

  /// The text form of item `id`: "id:" and 22 URL-safe characters.
  std::string itemId(std::int64_t id) const;
  /// The inverse; 0 for a text that is not an item id of this store.
  std::int64_t itemFromId(std::string_view text) const;

 private:
  std::unique_ptr<Database> takeReadConnection();
  void giveBack(std::unique_ptr<Database> connection);
  void loadMeta();

  const Clock& clock_;
  std::filesystem::path folder_;
  bool temporary_ = false;
  std::string secret_;

  std::mutex writeMutex_;
  std::unique_ptr<Database> writeConnection_;  // guarded by writeMutex_
  std::int64_t seq_ = 0;                       // guarded by writeMutex_

  std::mutex poolMutex_;
  std::vector<std::unique_ptr<Database>> idleReaders_;  // guarded by poolMutex_

  std::mutex waitMutex_;
  std::condition_variable committed_;
  std::atomic<std::uint64_t> commits_{0};
  bool stopping_ = false;  // guarded by waitMutex_
};

}  // namespace kzv::standin
