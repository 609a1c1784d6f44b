#pragma once
#include <cstddef>
#include <string>
#include <string_view>

/// Appends JSON to a text without asking for memory byte by byte: while it lives, the text is longer than
/// what has been written, and belongs to it alone. One thread at a time.
class JsonOutput {
 public:
  /// `text` outlives this and keeps what it holds.
  explicit JsonOutput(std::string& text) : text_(text), next_(text.data() + text.size()), end_(next_) {}
  JsonOutput(const JsonOutput&) = delete;
  JsonOutput& operator=(const JsonOutput&) = delete;
  ~JsonOutput() { text_.resize(sizeBytes()); }

  std::size_t sizeBytes() const noexcept { return static_cast<std::size_t>(next_ - text_.data()); }
  /// Makes room for `aheadBytes` more at once.
  void foresee(std::size_t aheadBytes);

  void add(char byte) { *room(1) = byte, ++next_; }
  void add(std::string_view text) { next_ += text.copy(room(text.size()), text.size()); }
  void addRepeated(std::size_t count, char byte);
  /// `text` as a JSON string.
  void addQuoted(std::string_view text);

 private:
  char* room(std::size_t sizeBytes) {
    if (static_cast<std::size_t>(end_ - next_) < sizeBytes) grow(sizeBytes);
    return next_;
  }
  void grow(std::size_t sizeBytes);
  void addEscaped(char byte);

  std::string& text_;
  char* next_;
  char* end_;
};
