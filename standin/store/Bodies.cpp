#include "standin/store/Bodies.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "standin/Encoding.h"

namespace kzv::standin {
namespace {

// Smaller bodies are stored in the database, to save inodes.
constexpr std::size_t kInlineBytes = 16384;
constexpr std::size_t kBufferBytes = 262144;

std::filesystem::path bodyFile(const Store& store, std::string_view hash) {
  const std::string name = hexEncode(hash);
  return store.bodiesFolder() / name.substr(0, 2) / name;
}

std::int64_t knownContent(Store::Writer& writer, std::string_view hash) {
  auto found = writer.database().query("SELECT id FROM contents WHERE hash=?1", Blob{hash});
  return found.step() ? found.integer(0) : 0;
}

std::int64_t addRow(Store::Writer& writer, std::string_view hash, std::uint64_t sizeBytes) {
  writer.database().execute("INSERT INTO contents(hash, size) VALUES(?1, ?2)", Blob{hash},
                            static_cast<std::int64_t>(sizeBytes));
  return writer.database().lastInsertId();
}

void renameIntoPlace(Store::Writer& writer, const std::filesystem::path& file, std::string_view hash) {
  const auto target = bodyFile(writer.store(), hash);
  std::error_code failure;
  std::filesystem::create_directories(target.parent_path(), failure);
  std::filesystem::rename(file, target, failure);
  if (failure) throw DatabaseError(fmt::format("cannot store a body: {}", failure.message()));
}

// SplitMix64 of the word's number: any part can be computed without the parts before it.
std::uint64_t syntheticWord(std::int64_t seed, std::uint64_t index) {
  std::uint64_t z =
      static_cast<std::uint64_t>(seed) * 0xD1342543DE82EF95U + (index + 1) * 0x9E3779B97F4A7C15U;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
  return z ^ (z >> 31);
}

std::string syntheticBytes(std::int64_t seed, std::uint64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size;) {
    const std::uint64_t word = syntheticWord(seed, (offset + i) / 8);
    const std::size_t skip = (offset + i) % 8;
    const std::size_t count = std::min<std::size_t>(8 - skip, size - i);
    std::memcpy(bytes.data() + i, reinterpret_cast<const char*>(&word) + skip, count);
    i += count;
  }
  return bytes;
}

}  // namespace

IncomingBody::~IncomingBody() {
  if (!file_.empty()) ::unlink(file_.c_str());
}

void IncomingBody::append(std::string_view bytes) {
  hash_.update(bytes);
  buffer_.append(bytes);
  const std::size_t limit = fd_.isOpen() ? kBufferBytes : kInlineBytes;
  if (buffer_.size() > limit) flush();
}

void IncomingBody::flush() {
  if (!fd_.isOpen()) {
    std::string pattern = (folder_ / "body-XXXXXX").string();
    fd_ = OwnedFd(mkostemp(pattern.data(), O_CLOEXEC));
    if (!fd_.isOpen()) failErrno("cannot create a body file");
    file_ = pattern;
    buffer_.reserve(kBufferBytes + kInlineBytes);
  }
  const std::uint64_t written = hash_.sizeBytes() - buffer_.size();
  if (!writeAt(fd_.get(), buffer_, written)) failErrno("cannot write a body");
  buffer_.clear();
}

bool IncomingBody::replay(const std::function<bool(std::string_view)>& sink) const {
  const std::uint64_t inFile = hash_.sizeBytes() - buffer_.size();
  std::string piece;
  for (std::uint64_t offset = 0; offset < inFile; offset += piece.size()) {
    piece.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kBufferBytes, inFile - offset)));
    if (!readAt(fd_.get(), piece.data(), piece.size(), offset) || !sink(piece)) return false;
  }
  return buffer_.empty() || sink(buffer_);
}

std::int64_t storeContent(Store::Writer& writer, IncomingBody& body) {
  const std::string hash = body.digest();
  if (!body.fd_.isOpen()) {
    if (const std::int64_t known = knownContent(writer, hash)) return known;
    writer.database().execute("INSERT INTO contents(hash, size, body) VALUES(?1, ?2, ?3)", Blob{hash},
                              static_cast<std::int64_t>(body.sizeBytes()), Blob{body.buffer_});
    return writer.database().lastInsertId();
  }
  body.flush();
  return storeContentFile(writer, body.file_, hash, body.sizeBytes());
}

std::int64_t storeContentFile(Store::Writer& writer, const std::filesystem::path& file,
                              const std::string& hash, std::uint64_t sizeBytes) {
  if (const std::int64_t known = knownContent(writer, hash)) return known;
  renameIntoPlace(writer, file, hash);
  return addRow(writer, hash, sizeBytes);
}

std::int64_t storeSyntheticContent(Store::Writer& writer, std::int64_t seed, std::uint64_t sizeBytes) {
  BlockHash hash;
  for (std::uint64_t offset = 0; offset < sizeBytes; offset += kBufferBytes) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(kBufferBytes, sizeBytes - offset));
    hash.update(syntheticBytes(seed, offset, size));
  }
  const std::string digest = hash.digest();
  if (const std::int64_t known = knownContent(writer, digest)) return known;
  writer.database().execute("INSERT INTO contents(hash, size, seed) VALUES(?1, ?2, ?3)", Blob{digest},
                            static_cast<std::int64_t>(sizeBytes), seed);
  return writer.database().lastInsertId();
}

void useContent(Store::Writer& writer, std::int64_t contentId, std::int64_t delta) {
  Database& database = writer.database();
  database.execute("UPDATE contents SET refs=refs+?2 WHERE id=?1", contentId, delta);
  if (delta > 0) return;
  std::string hash;
  {
    auto unused = database.query(
        "SELECT hash, body IS NULL AND seed IS NULL FROM contents WHERE id=?1 AND refs<=0", contentId);
    if (!unused.step()) return;
    if (unused.integer(1) != 0) hash = std::string(unused.blob(0));
  }
  database.execute("DELETE FROM contents WHERE id=?1", contentId);
  if (!hash.empty()) writer.removeLater(bodyFile(writer.store(), hash));
}

std::optional<BodyReader> BodyReader::open(Store& store, Database& database, std::int64_t contentId) {
  auto found = database.query("SELECT hash, size, seed, body FROM contents WHERE id=?1", contentId);
  if (!found.step()) return std::nullopt;
  BodyReader reader;
  reader.sizeBytes_ = static_cast<std::uint64_t>(found.integer(1));
  if (!found.isNull(2)) {
    reader.seed_ = found.integer(2);
  } else if (!found.isNull(3)) {
    reader.inline_ = std::string(found.blob(3));
  } else {
    reader.fd_ = OwnedFd(::open(bodyFile(store, found.blob(0)).c_str(), O_RDONLY | O_CLOEXEC));
    if (!reader.fd_.isOpen()) return std::nullopt;
  }
  return reader;
}

std::string BodyReader::read(std::uint64_t offset, std::size_t size) const {
  if (offset >= sizeBytes_) return {};
  size = static_cast<std::size_t>(std::min<std::uint64_t>(size, sizeBytes_ - offset));
  if (seed_) return syntheticBytes(*seed_, offset, size);
  if (!fd_.isOpen()) return inline_.substr(static_cast<std::size_t>(offset), size);
  std::string bytes(size, '\0');
  if (!readAt(fd_.get(), bytes.data(), size, offset)) failErrno("cannot read a body");
  return bytes;
}

}  // namespace kzv::standin
