#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

/// Allocates the many small objects of one text from chunks of up to 64 KiB, which is faster and denser than
/// one malloc each. A chunk is freed with the last object in it, so an object that outlives the others keeps
/// at most its own chunk alive. Objects may be released on any thread and made on one thread at a time. Under
/// AddressSanitizer each object is allocated on its own.
class ObjectArena {
 public:
  ObjectArena() = default;
  ObjectArena(const ObjectArena&) = delete;
  ObjectArena& operator=(const ObjectArena&) = delete;
  ~ObjectArena() { closeChunk(); }

  /// Chooses the chunk size for objects that are expected to take `sizeBytes` together.
  void expect(std::size_t sizeBytes) noexcept;
  /// Makes no more objects in the current chunk, which then lives as long as its objects.
  void closeChunk() noexcept;

  template <class Object, class... Arguments>
  std::shared_ptr<Object> make(Arguments&&... arguments) {
    if constexpr (!usesChunks) {
      return std::make_shared<Object>(std::forward<Arguments>(arguments)...);
    } else {
      constexpr std::size_t roomBytes = sizeof(Object) + controlBlockBytes;
      if (!chunk_ || static_cast<std::size_t>(chunk_->end - chunk_->next) < roomBytes) openChunk(roomBytes);
      return std::allocate_shared<Object>(Allocator<Object>(chunk_), std::forward<Arguments>(arguments)...);
    }
  }

 private:
#if defined(__SANITIZE_ADDRESS__)
  static constexpr bool usesChunks = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  static constexpr bool usesChunks = false;
#else
  static constexpr bool usesChunks = true;
#endif
#else
  static constexpr bool usesChunks = true;
#endif
  // An upper bound for the control block of any standard library, alignment padding included.
  static constexpr std::size_t controlBlockBytes = 64;

  struct Chunk {
    std::atomic<std::size_t>
        references;  // living objects; for the current chunk `inUse` minus the released ones
    std::size_t made;
    char* next;
    char* end;

    void* take(std::size_t sizeBytes, std::size_t alignment) noexcept {
      ++made;
      const std::size_t padding = -reinterpret_cast<std::uintptr_t>(next) & (alignment - 1);
      char* const taken = next + padding;
      next = taken + sizeBytes;
      return taken;
    }
    void release(std::size_t count) noexcept {
      if (references.fetch_sub(count, std::memory_order_acq_rel) == count) ::operator delete(this);
    }
  };

  template <class T>
  struct Allocator {
    using value_type = T;
    explicit Allocator(Chunk* chunk) noexcept : chunk_(chunk) {}
    template <class Other>
    explicit(false) Allocator(const Allocator<Other>& other) noexcept : chunk_(other.chunk_) {}
    T* allocate(std::size_t count) noexcept {
      return static_cast<T*>(chunk_->take(count * sizeof(T), alignof(T)));
    }
    void deallocate(T*, std::size_t) noexcept { chunk_->release(1); }
    template <class Other>
    bool operator==(const Allocator<Other>& other) const noexcept {
      return chunk_ == other.chunk_;
    }
    Chunk* chunk_;
  };

  void openChunk(std::size_t leastBytes);

  Chunk* chunk_ = nullptr;
  std::size_t nextChunkBytes_ = 0;
};
