#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "standin/store/Bodies.h"
#include "standin/store/Store.h"

namespace kzv::standin {

/// Uploads in pieces. Each session has its own file; its database row says how many bytes are valid, so an
/// interrupted piece has no effect. Thread-safe: pieces of a sequential session are serialized, those of a
/// concurrent one are written in parallel. Errors: DatabaseError.
class UploadSessions {
 public:
  static constexpr std::uint64_t kBlockBytes = 4194304;
  static constexpr std::uint64_t kMaxBodyBytes = 157286400;
  static constexpr std::uint64_t kMaxFileBytes = 2199019061248;

  enum class Problem {
    none,
    notFound,
    incorrectOffset,
    closed,
    notClosed,
    tooLarge,
    payloadTooLarge,
    hashMismatch,
    invalidOffset,
    invalidDataSize,
    dataNotAllowed,
    notClosedConcurrent,
    missingData,
    incompleteBody,
  };

  struct Outcome {
    Problem problem = Problem::none;
    /// With incorrectOffset.
    std::uint64_t correctOffset = 0;
  };

  /// Reads the bytes of a piece; false when the connection failed.
  using Body = std::function<bool(const std::function<bool(std::string_view)>& sink)>;

  struct Piece {
    std::string session;
    std::int64_t account = 0;
    std::uint64_t offset = 0;
    bool close = false;
    /// 64 hexadecimal digits, or empty: not checked.
    std::string contentHash;
    Body body;
  };

  explicit UploadSessions(Store& store);

  /// @return the session's id.
  std::string start(std::int64_t account, bool concurrent);
  Outcome append(const Piece& piece);
  /// A complete session, ready to be committed, and locked until this is destroyed.
  struct Ready {
    // Owns the session with the mutex of `lock`, so it must be destroyed after it.
    std::shared_ptr<void> keepAlive;
    std::unique_lock<std::mutex> lock;
    std::filesystem::path file;
    std::uint64_t sizeBytes = 0;
    std::string hash;
  };
  /// Appends the piece (not to a concurrent session), then checks that the session is complete.
  /// @param mustBeClosed  batch commits need a closed session.
  Outcome prepareFinish(const Piece& piece, bool mustBeClosed, Ready& ready);
  /// Removes the session; call after the commit, before `ready` is destroyed.
  void remove(const std::string& session);

 private:
  struct Session {
    std::mutex mutex;
    // Guarded by mutex, as is the session's file.
    std::optional<BlockHash> hash;
  };
  struct Row {
    bool concurrent = false;
    std::uint64_t sizeBytes = 0;
    bool closed = false;
  };

  std::filesystem::path file(const std::string& session) const { return store_.sessionsFolder() / session; }
  std::shared_ptr<Session> lockable(const std::string& session);
  std::optional<Row> row(const std::string& session, std::int64_t account);
  Outcome appendSequential(const Piece& piece, Session& session, const Row& row);
  Outcome appendConcurrent(const Piece& piece, Session& session);
  Outcome receive(const Piece& piece, std::uint64_t offset, std::uint64_t maxBytes, BlockHash& whole,
                  std::uint64_t& received);
  void keep(const std::string& session, std::uint64_t sizeBytes, bool close);
  bool isComplete(const std::string& session, std::uint64_t sizeBytes);
  void removeExpired();

  Store& store_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<Session>> sessions_;  // guarded by mutex_
};

}  // namespace kzv::standin
