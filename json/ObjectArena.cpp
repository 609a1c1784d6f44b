#include "json/ObjectArena.h"

#include <algorithm>
#include <new>

namespace {
// Small chunks come from malloc's fast lists; a text with many values gets a few large ones.
constexpr std::size_t leastChunkBytes = 4000;
constexpr std::size_t mostChunkBytes = 65'536;
constexpr std::size_t fewChunks = 8;
// The arena's own reference to its current chunk, far above the number of objects that fit into one.
constexpr std::size_t inUse = std::size_t{1} << 32;
}  // namespace

void ObjectArena::expect(std::size_t sizeBytes) noexcept {
  nextChunkBytes_ = std::clamp(sizeBytes / fewChunks, leastChunkBytes, mostChunkBytes);
}

void ObjectArena::openChunk(std::size_t leastBytes) {
  closeChunk();
  const std::size_t sizeBytes = std::max({nextChunkBytes_, leastChunkBytes, leastBytes + sizeof(Chunk)});
  char* const memory = static_cast<char*>(::operator new(sizeBytes));
  chunk_ = new (memory) Chunk{{inUse}, 0, memory + sizeof(Chunk), memory + sizeBytes};
}

void ObjectArena::closeChunk() noexcept {
  if (!chunk_) return;
  Chunk* const closed = std::exchange(chunk_, nullptr);
  closed->release(inUse - closed->made);
}
