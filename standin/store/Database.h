#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace kzv::standin {

/// The store failed: disk full, file damaged. The dispatcher answers with status 500.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws DatabaseError with the text of errno: "cannot write a body: No space left on device".
[[noreturn]] void failErrno(std::string_view action);

/// Raw bytes for a BLOB column.
struct Blob {
  std::string_view bytes;
};

/// One run of a prepared statement, which the destructor resets. Views returned by text() and blob() are
/// valid until the next step().
class Query {
 public:
  Query(sqlite3* handle, sqlite3_stmt* statement) : handle_(handle), statement_(statement) {}
  ~Query();
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;
  Query(Query&& other) noexcept : handle_(other.handle_), statement_(other.statement_) {
    other.statement_ = nullptr;
  }
  Query& operator=(Query&&) = delete;

  /// @return true while there is a row. Throws DatabaseError.
  bool step();
  std::int64_t integer(int column) const;
  bool isNull(int column) const;
  std::string_view text(int column) const;
  std::string_view blob(int column) const;

  void bind(int index, std::int64_t value);
  void bind(int index, std::string_view value);
  void bind(int index, Blob value);

 private:
  sqlite3* handle_;
  sqlite3_stmt* statement_;
};

/// One SQLite connection and its prepared statements, which live as long as the connection. One thread at a
/// time (Store lends connections).
class Database {
 public:
  /// Throws DatabaseError.
  Database(const std::string& file, bool readOnly, bool durable);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Runs statements without parameters, for example a schema.
  void run(const char* sql);

  /// @param sql   a literal: statements are cached by its address.
  /// @param args  bound to ?1, ?2, ... Text must live until the Query ends.
  template <typename... Args>
  Query query(const char* sql, const Args&... args) {
    Query made(handle_, prepared(sql));
    int index = 0;
    (made.bind(++index, args), ...);
    return made;
  }

  /// For statements without rows.
  template <typename... Args>
  void execute(const char* sql, const Args&... args) {
    auto made = query(sql, args...);
    made.step();
  }

  std::int64_t lastInsertId() const;
  /// Rows changed by the last statement.
  std::int64_t changes() const;

 private:
  sqlite3_stmt* prepared(const char* sql);

  sqlite3* handle_ = nullptr;
  std::unordered_map<const char*, sqlite3_stmt*> statements_;
};

}  // namespace kzv::standin
