#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kzv::standin {

/// Appends JSON text (RFC 8259) to a string, without building a tree of values: for listings of thousands of
/// database rows. The caller is responsible for nesting; commas are added here. Not thread-safe; one writer
/// per thread.
class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  /// `name` must need no escapes: all keys are constants of the API.
  JsonWriter& key(std::string_view name);
  /// `text` is valid UTF-8.
  JsonWriter& string(std::string_view text);
  JsonWriter& number(std::int64_t value);
  JsonWriter& boolean(bool value);
  /// Serialized JSON, as one value.
  JsonWriter& raw(std::string_view json);

  JsonWriter& field(std::string_view name, std::string_view text) { return key(name).string(text); }
  JsonWriter& field(std::string_view name, const char* text) { return key(name).string(text); }
  JsonWriter& field(std::string_view name, std::int64_t value) { return key(name).number(value); }
  JsonWriter& field(std::string_view name, bool value) { return key(name).boolean(value); }

  void reserve(std::size_t bytes) { out_.reserve(bytes); }
  const std::string& text() const { return out_; }
  std::string take() { return std::move(out_); }

 private:
  void separate();

  std::string out_;
  bool needsComma_ = false;
};

/// `text` with JSON string escapes, without the quotes.
void appendJsonEscaped(std::string& out, std::string_view text);

/// The same JSON in printable ASCII for HTTP headers: U+007F and above as \uXXXX, with surrogate pairs.
/// `json` must be valid UTF-8.
std::string asciiJson(std::string_view json);

}  // namespace kzv::standin
