#include "standin/store/UploadSessions.h"

#include <algorithm>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "standin/Encoding.h"

namespace kzv::standin {
namespace {

constexpr std::size_t kBufferBytes = 262144;
constexpr std::int64_t kLifeSeconds = std::int64_t{7} * 86400;

// Hashes the file, after a restart or when pieces arrived in any order.
BlockHash hashFile(const std::filesystem::path& path, std::uint64_t sizeBytes) {
  const OwnedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string buffer;
  BlockHash hash;
  while (hash.sizeBytes() < sizeBytes) {
    buffer.resize(
        static_cast<std::size_t>(std::min<std::uint64_t>(kBufferBytes, sizeBytes - hash.sizeBytes())));
    if (!readAt(fd.get(), buffer.data(), buffer.size(), hash.sizeBytes()))
      failErrno("cannot read an upload session");
    hash.update(buffer);
  }
  return hash;
}

}  // namespace

UploadSessions::UploadSessions(Store& store) : store_(store) { removeExpired(); }

void UploadSessions::removeExpired() {
  std::vector<std::string> expired;
  {
    Store::Reader reader(store_);
    auto rows = reader.database().query("SELECT id FROM upload_sessions WHERE created<?1",
                                        store_.clock().now() - kLifeSeconds);
    while (rows.step()) expired.emplace_back(rows.text(0));
  }
  for (const auto& session : expired) remove(session);
}

std::string UploadSessions::start(std::int64_t account, bool concurrent) {
  std::string id = "AAAAAG" + base64UrlEncode(randomBytes(18));
  const OwnedFd fd(::open(file(id).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd.isOpen()) failErrno("cannot create an upload session");
  Store::Writer writer(store_);
  writer.database().execute(
      "INSERT INTO upload_sessions(id, account, concurrent, created) VALUES(?1, ?2, ?3, ?4)", id, account,
      static_cast<std::int64_t>(concurrent), store_.clock().now());
  writer.commit();
  return id;
}

std::shared_ptr<UploadSessions::Session> UploadSessions::lockable(const std::string& session) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto& found = sessions_[session];
  if (!found) found = std::make_shared<Session>();
  return found;
}

std::optional<UploadSessions::Row> UploadSessions::row(const std::string& session, std::int64_t account) {
  Store::Reader reader(store_);
  auto found = reader.database().query(
      "SELECT concurrent, size, closed FROM upload_sessions WHERE id=?1 AND account=?2 AND created>=?3",
      session, account, store_.clock().now() - kLifeSeconds);
  if (!found.step()) return std::nullopt;
  return Row{found.integer(0) != 0, static_cast<std::uint64_t>(found.integer(1)), found.integer(2) != 0};
}

UploadSessions::Outcome UploadSessions::receive(const Piece& piece, std::uint64_t offset,
                                                std::uint64_t maxBytes, BlockHash& whole,
                                                std::uint64_t& received) {
  const OwnedFd fd(::open(file(piece.session).c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd.isOpen()) return {Problem::notFound};
  BlockHash own;
  std::string buffer;
  Problem problem = Problem::none;
  received = 0;
  const auto flush = [&] {
    if (!writeAt(fd.get(), buffer, offset + received)) failErrno("cannot write to an upload session");
    whole.update(buffer);
    if (!piece.contentHash.empty()) own.update(buffer);
    received += buffer.size();
    buffer.clear();
  };
  const bool complete = piece.body([&](std::string_view bytes) {
    const std::uint64_t total = received + buffer.size() + bytes.size();
    if (total > kMaxBodyBytes) problem = Problem::payloadTooLarge;
    if (total > maxBytes) problem = Problem::tooLarge;
    if (problem != Problem::none) return false;
    buffer.append(bytes);
    if (buffer.size() >= kBufferBytes) flush();
    return true;
  });
  if (problem != Problem::none) return {problem};
  if (!complete) return {Problem::incompleteBody};
  flush();
  if (!piece.contentHash.empty() && hexEncode(own.digest()) != piece.contentHash)
    return {Problem::hashMismatch};
  return {};
}

void UploadSessions::keep(const std::string& session, std::uint64_t sizeBytes, bool close) {
  Store::Writer writer(store_);
  writer.database().execute(
      "UPDATE upload_sessions SET size=max(size, ?2), closed=max(closed, ?3) WHERE id=?1", session,
      static_cast<std::int64_t>(sizeBytes), static_cast<std::int64_t>(close));
  writer.commit();
}

UploadSessions::Outcome UploadSessions::appendSequential(const Piece& piece, Session& session,
                                                         const Row& row) {
  if (row.sizeBytes != piece.offset) return {Problem::incorrectOffset, row.sizeBytes};
  if (!session.hash || session.hash->sizeBytes() != row.sizeBytes) {
    session.hash = hashFile(file(piece.session), row.sizeBytes);
  }
  BlockHash extended = *session.hash;
  std::uint64_t received = 0;
  const Outcome outcome = receive(piece, row.sizeBytes, kMaxFileBytes - row.sizeBytes, extended, received);
  if (outcome.problem != Problem::none) return outcome;
  keep(piece.session, row.sizeBytes + received, piece.close);
  session.hash = extended;
  return {};
}

UploadSessions::Outcome UploadSessions::appendConcurrent(const Piece& piece, Session& session) {
  if (piece.offset % kBlockBytes != 0 || piece.offset > kMaxFileBytes) return {Problem::invalidOffset};
  BlockHash ignored;
  std::uint64_t received = 0;
  const Outcome outcome = receive(piece, piece.offset, kMaxFileBytes - piece.offset, ignored, received);
  if (outcome.problem != Problem::none) return outcome;
  if (!piece.close && received % kBlockBytes != 0) return {Problem::invalidDataSize};
  const std::lock_guard<std::mutex> lock(session.mutex);
  if (received > 0) {
    Store::Writer writer(store_);
    writer.database().execute(
        "INSERT OR REPLACE INTO session_parts(session, offset, size) VALUES(?1, ?2, ?3)", piece.session,
        static_cast<std::int64_t>(piece.offset), static_cast<std::int64_t>(received));
    writer.commit();
  }
  keep(piece.session, piece.offset + received, piece.close);
  return {};
}

UploadSessions::Outcome UploadSessions::append(const Piece& piece) {
  const auto known = row(piece.session, piece.account);
  if (!known) return {Problem::notFound};
  const auto session = lockable(piece.session);
  if (known->concurrent) {
    // Parallel pieces may arrive after the closing one: only sequential sessions refuse them.
    return appendConcurrent(piece, *session);
  }
  const std::lock_guard<std::mutex> lock(session->mutex);
  // Again under the lock: another piece may have been received in the meantime.
  const auto current = row(piece.session, piece.account);
  if (!current) return {Problem::notFound};
  if (current->closed) return {Problem::closed};
  return appendSequential(piece, *session, *current);
}

bool UploadSessions::isComplete(const std::string& session, std::uint64_t sizeBytes) {
  Store::Reader reader(store_);
  auto part = reader.database().query(
      "SELECT offset, size FROM session_parts WHERE session=?1 ORDER BY offset", session);
  std::uint64_t covered = 0;
  while (part.step()) {
    if (static_cast<std::uint64_t>(part.integer(0)) > covered) return false;
    covered = std::max(covered, static_cast<std::uint64_t>(part.integer(0) + part.integer(1)));
  }
  return covered == sizeBytes;
}

UploadSessions::Outcome UploadSessions::prepareFinish(const Piece& piece, bool mustBeClosed, Ready& ready) {
  if (!row(piece.session, piece.account)) return {Problem::notFound};
  const auto session = lockable(piece.session);
  ready.keepAlive = session;
  ready.lock = std::unique_lock<std::mutex>(session->mutex);
  const auto current = row(piece.session, piece.account);
  if (!current) return {Problem::notFound};
  if (current->concurrent) {
    bool hasData = false;
    if (piece.body &&
        !piece.body([&](std::string_view bytes) { return !(hasData = hasData || !bytes.empty()); }) &&
        !hasData) {
      return {Problem::incompleteBody};
    }
    if (hasData) return {Problem::dataNotAllowed};
    if (!current->closed) return {Problem::notClosedConcurrent};
    if (piece.offset != current->sizeBytes) return {Problem::incorrectOffset, current->sizeBytes};
    if (!isComplete(piece.session, current->sizeBytes)) return {Problem::missingData};
    session->hash = hashFile(file(piece.session), current->sizeBytes);
  } else {
    if (mustBeClosed && !current->closed) return {Problem::notClosed};
    const Outcome outcome =
        piece.body
            ? appendSequential(piece, *session, *current)
            : appendSequential(
                  {piece.session, piece.account, piece.offset, false, {}, [](const auto&) { return true; }},
                  *session, *current);
    if (outcome.problem != Problem::none) return outcome;
  }
  ready.file = file(piece.session);
  ready.sizeBytes = session->hash->sizeBytes();
  ready.hash = session->hash->digest();
  // An interrupted piece may have left bytes beyond the end.
  std::filesystem::resize_file(ready.file, ready.sizeBytes);
  return {};
}

void UploadSessions::remove(const std::string& session) {
  {
    Store::Writer writer(store_);
    writer.database().execute("DELETE FROM upload_sessions WHERE id=?1", session);
    writer.database().execute("DELETE FROM session_parts WHERE session=?1", session);
    writer.removeLater(file(session));
    writer.commit();
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  sessions_.erase(session);
}

}  // namespace kzv::standin
