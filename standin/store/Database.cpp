#include "standin/store/Database.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <sqlite3.h>

namespace kzv::standin {
namespace {

[[noreturn]] void fail(sqlite3* handle, std::string_view doing) {
  throw DatabaseError(fmt::format("{}: {}", doing, handle ? sqlite3_errmsg(handle) : "out of memory"));
}

}  // namespace

void failErrno(std::string_view action) {
  throw DatabaseError(fmt::format("{}: {}", action, std::strerror(errno)));
}

Query::~Query() {
  if (statement_) sqlite3_reset(statement_);
}

bool Query::step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) fail(handle_, "database step");
  return false;
}

std::int64_t Query::integer(int column) const { return sqlite3_column_int64(statement_, column); }

bool Query::isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

std::string_view Query::text(int column) const {
  const auto* bytes = sqlite3_column_text(statement_, column);
  if (!bytes) return {};
  return {reinterpret_cast<const char*>(bytes),
          static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

std::string_view Query::blob(int column) const {
  const void* bytes = sqlite3_column_blob(statement_, column);
  if (!bytes) return {};
  return {static_cast<const char*>(bytes),
          static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

void Query::bind(int index, std::int64_t value) { sqlite3_bind_int64(statement_, index, value); }

void Query::bind(int index, std::string_view value) {
  // A null pointer would bind NULL, but an empty path is the root.
  sqlite3_bind_text(statement_, index, value.data() ? value.data() : "", static_cast<int>(value.size()),
                    SQLITE_STATIC);
}

void Query::bind(int index, Blob value) {
  sqlite3_bind_blob(statement_, index, value.bytes.data() ? value.bytes.data() : "",
                    static_cast<int>(value.bytes.size()), SQLITE_STATIC);
}

Database::Database(const std::string& file, bool readOnly, bool durable) {
  const int flags =
      (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(file.c_str(), &handle_, flags, nullptr) != SQLITE_OK) {
    const std::string reason = handle_ ? sqlite3_errmsg(handle_) : "out of memory";
    sqlite3_close(handle_);
    throw DatabaseError(fmt::format("cannot open {}: {}", file, reason));
  }
  sqlite3_busy_timeout(handle_, 10000);
  if (!readOnly) run("PRAGMA journal_mode=WAL");
  // A temporary store is removed with the process and need not be synced to disk.
  run(durable ? "PRAGMA synchronous=NORMAL" : "PRAGMA synchronous=OFF");
  run("PRAGMA mmap_size=8589934592; PRAGMA temp_store=MEMORY; PRAGMA cache_size=-65536");
}

Database::~Database() {
  for (const auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  sqlite3_close(handle_);
}

void Database::run(const char* sql) {
  if (sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(handle_, sql);
}

std::int64_t Database::lastInsertId() const { return sqlite3_last_insert_rowid(handle_); }

std::int64_t Database::changes() const { return sqlite3_changes64(handle_); }

sqlite3_stmt* Database::prepared(const char* sql) {
  const auto found = statements_.find(sql);
  if (found != statements_.end()) return found->second;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(handle_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
    fail(handle_, sql);
  }
  statements_.emplace(sql, statement);
  return statement;
}

}  // namespace kzv::standin
