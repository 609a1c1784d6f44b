#include "standin/store/Store.h"

#include <cstdlib>

#include <fmt/format.h>
#include <sys/stat.h>

#include "standin/Encoding.h"

namespace kzv::standin {
namespace {

// The tables; every query of a request uses an index:
//   entries        live items. By path, a subtree is one range of keys. By parent, a folder's children are in
//                  order of id; the parent of the root's children is minus the tree's number. By seq: the
//                  change journal, in which an item appears once, at its last change.
//   deletions      the rest of the journal: one row per deleted item, which covers its whole subtree.
//   tombstones     the paths of deleted items.
//   contents       bodies by content hash, with a count of uses: small ones inline, synthetic ones as a
//                  seed, others as files.
//   revisions      earlier revisions of live files, and all revisions of those in deleted_files.
//   deleted_files  the files that were deleted last, in order of seq; `bytes` sums up all their revisions.
constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS accounts(
  id INTEGER PRIMARY KEY, account_id TEXT UNIQUE NOT NULL, name TEXT NOT NULL, email TEXT UNIQUE NOT NULL,
  tree INTEGER UNIQUE NOT NULL, home_ns INTEGER NOT NULL, root_ns INTEGER NOT NULL, home_path TEXT NOT NULL,
  team INTEGER NOT NULL DEFAULT 0, used INTEGER NOT NULL DEFAULT 0, quota INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS grants(
  id INTEGER PRIMARY KEY, account INTEGER NOT NULL, client TEXT NOT NULL, scope TEXT NOT NULL, refresh_hash BLOB);
CREATE TABLE IF NOT EXISTS access_tokens(
  hash BLOB PRIMARY KEY, grant_id INTEGER NOT NULL, scope TEXT NOT NULL, expires INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS contents(
  id INTEGER PRIMARY KEY, hash BLOB UNIQUE NOT NULL, size INTEGER NOT NULL, seed INTEGER, body BLOB,
  refs INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS entries(
  id INTEGER PRIMARY KEY AUTOINCREMENT, tree INTEGER NOT NULL, parent INTEGER NOT NULL, path_lower TEXT NOT NULL,
  path_display TEXT NOT NULL, folder INTEGER NOT NULL, seq INTEGER NOT NULL, rev INTEGER, size INTEGER,
  client_modified INTEGER, server_modified INTEGER, content INTEGER);
CREATE UNIQUE INDEX IF NOT EXISTS entries_by_path ON entries(tree, path_lower);
CREATE INDEX IF NOT EXISTS entries_by_parent ON entries(parent);
CREATE INDEX IF NOT EXISTS entries_by_seq ON entries(tree, seq);
CREATE INDEX IF NOT EXISTS entries_by_rev ON entries(rev) WHERE rev IS NOT NULL;
CREATE TABLE IF NOT EXISTS deletions(
  tree INTEGER NOT NULL, seq INTEGER NOT NULL, path_lower TEXT NOT NULL, path_display TEXT NOT NULL,
  PRIMARY KEY(tree, seq)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS tombstones(
  tree INTEGER NOT NULL, path_lower TEXT NOT NULL, parent_lower TEXT NOT NULL, path_display TEXT NOT NULL,
  PRIMARY KEY(tree, path_lower)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS tombstones_by_parent ON tombstones(tree, parent_lower, path_lower);
CREATE TABLE IF NOT EXISTS revisions(
  rev INTEGER PRIMARY KEY, entry INTEGER NOT NULL, size INTEGER NOT NULL, client_modified INTEGER NOT NULL,
  server_modified INTEGER NOT NULL, content INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS revisions_by_entry ON revisions(entry);
CREATE TABLE IF NOT EXISTS deleted_files(
  entry INTEGER PRIMARY KEY, tree INTEGER NOT NULL, seq INTEGER NOT NULL, path_lower TEXT NOT NULL,
  path_display TEXT NOT NULL, bytes INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS upload_sessions(
  id TEXT PRIMARY KEY, account INTEGER NOT NULL, concurrent INTEGER NOT NULL, created INTEGER NOT NULL,
  size INTEGER NOT NULL DEFAULT 0, closed INTEGER NOT NULL DEFAULT 0, used_up INTEGER NOT NULL DEFAULT 0) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS session_parts(
  session TEXT NOT NULL, offset INTEGER NOT NULL, size INTEGER NOT NULL, PRIMARY KEY(session, offset)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS links(
  id INTEGER PRIMARY KEY, account INTEGER NOT NULL, entry INTEGER NOT NULL, token TEXT UNIQUE NOT NULL,
  audience TEXT NOT NULL, expires INTEGER, allow_download INTEGER NOT NULL, custom INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS links_by_entry ON links(account, entry);
)sql";

std::filesystem::path makeTemporaryFolder() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kzv-service-XXXXXX";
  if (!mkdtemp(pattern.data())) {
    failErrno(fmt::format("cannot create a temporary folder {}", pattern));
  }
  return pattern;
}

// A permutation of 64-bit numbers: ids look random, and can be reversed without a table.
constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15U;
constexpr std::uint64_t kInverse = 0xF1DE83E19937733DU;
static_assert(kMultiplier * kInverse == 1);
// The same in every store, so that a seeded tree has the same ids in every run.
constexpr std::string_view kIdPrefix = "kzv-item";
static_assert(kIdPrefix.size() == 8);

}  // namespace

Store::Store(StoreOptions options, const Clock& clock) : clock_(clock), folder_(std::move(options.folder)) {
  temporary_ = folder_.empty();
  if (temporary_) folder_ = makeTemporaryFolder();
  std::filesystem::create_directories(folder_);
  // Only the owner may read bodies and token digests.
  chmod(folder_.c_str(), S_IRWXU);
  std::filesystem::remove_all(incomingFolder());
  for (const auto& folder : {bodiesFolder(), incomingFolder(), sessionsFolder()}) {
    std::filesystem::create_directories(folder);
  }
  writeConnection_ = std::make_unique<Database>(folder_ / "state.sqlite", false, !temporary_);
  writeConnection_->run(kSchema);
  loadMeta();
}

Store::~Store() {
  idleReaders_.clear();
  writeConnection_.reset();
  std::error_code ignored;
  if (temporary_) std::filesystem::remove_all(folder_, ignored);
}

void Store::loadMeta() {
  Database& database = *writeConnection_;
  {
    auto found = database.query("SELECT value FROM meta WHERE key='secret'");
    if (found.step()) secret_ = std::string(found.blob(0));
  }
  if (secret_.empty()) {
    secret_ = randomBytes(32);
    database.execute("INSERT INTO meta(key, value) VALUES('secret', ?1), ('seq', 0), ('epoch', 1)",
                     Blob{secret_});
  }
  auto seq = database.query("SELECT value FROM meta WHERE key='seq'");
  if (seq.step()) seq_ = seq.integer(0);
}

std::unique_ptr<Database> Store::takeReadConnection() {
  {
    const std::lock_guard<std::mutex> lock(poolMutex_);
    if (!idleReaders_.empty()) {
      auto connection = std::move(idleReaders_.back());
      idleReaders_.pop_back();
      return connection;
    }
  }
  return std::make_unique<Database>(folder_ / "state.sqlite", true, !temporary_);
}

void Store::giveBack(std::unique_ptr<Database> connection) {
  const std::lock_guard<std::mutex> lock(poolMutex_);
  idleReaders_.push_back(std::move(connection));
}

bool Store::waitForCommit(std::uint64_t seen, std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(waitMutex_);
  committed_.wait_until(lock, deadline, [&] { return stopping_ || commits_ != seen; });
  return !stopping_;
}

std::int64_t Store::loadEpoch() {
  Reader reader(*this);
  auto found = reader.database().query("SELECT value FROM meta WHERE key='epoch'");
  return found.step() ? found.integer(0) : 1;
}

void Store::storeEpoch(std::int64_t epoch) {
  Writer writer(*this);
  writer.database().execute("UPDATE meta SET value=?1 WHERE key='epoch'", epoch);
  writer.commit();
}

void Store::wakeWaiters() {
  const std::lock_guard<std::mutex> lock(waitMutex_);
  stopping_ = true;
  committed_.notify_all();
}

std::string Store::itemId(std::int64_t id) const {
  const std::uint64_t mixed = static_cast<std::uint64_t>(id) * kMultiplier;
  std::string bytes(kIdPrefix);
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>((mixed >> shift) & 0xFF);
  return "id:" + base64UrlEncode(bytes);
}

std::int64_t Store::itemFromId(std::string_view text) const {
  if (text.substr(0, 3) != "id:") return 0;
  const auto bytes = base64UrlDecode(text.substr(3));
  if (!bytes || bytes->size() != 16 || bytes->compare(0, 8, kIdPrefix) != 0) return 0;
  std::uint64_t mixed = 0;
  for (std::size_t i = 8; i < 16; ++i) mixed = (mixed << 8) | static_cast<unsigned char>((*bytes)[i]);
  const auto id = static_cast<std::int64_t>(mixed * kInverse);
  return itemId(id) == text ? id : 0;
}

Store::Reader::Reader(Store& store) : store_(store), database_(store.takeReadConnection()) {
  database_->execute("BEGIN");
}

Store::Reader::~Reader() {
  try {
    database_->execute("COMMIT");
    store_.giveBack(std::move(database_));
  } catch (const DatabaseError&) {
    // The connection is unusable: it is closed instead of going back to the pool.
  }
}

Store::Writer::Writer(Store& store) : store_(store), lock_(store.writeMutex_), seq_(store.seq_) {
  database().execute("BEGIN IMMEDIATE");
}

Store::Writer::~Writer() {
  if (!open_) return;
  try {
    database().execute("ROLLBACK");
  } catch (const DatabaseError&) {
    // SQLite has already rolled back, for example because the disk is full.
  }
}

void Store::Writer::commit() {
  if (seq_ != store_.seq_) database().execute("UPDATE meta SET value=?1 WHERE key='seq'", seq_);
  database().execute("COMMIT");
  open_ = false;
  store_.seq_ = seq_;
  std::error_code ignored;
  for (const auto& file : doomed_) std::filesystem::remove(file, ignored);
  const std::lock_guard<std::mutex> lock(store_.waitMutex_);
  ++store_.commits_;
  store_.committed_.notify_all();
}

}  // namespace kzv::standin
