#include "sdk/ServiceJson.h"

#include <cstdio>
#include <limits>
#include <new>

#include <string.h>

namespace json = boost::json;

namespace servicejson {

void* LimitedMemory::do_allocate(std::size_t bytes, std::size_t alignment) {
  if (bytes > freeBytes_) throw std::bad_alloc();
  void* memory = ::operator new(bytes, std::align_val_t(alignment));
  freeBytes_ -= bytes;
  return memory;
}

void LimitedMemory::do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) {
  if (clears_) ::explicit_bzero(memory, bytes);
  ::operator delete(memory, std::align_val_t(alignment));  // clang 14 knows no sized form
  freeBytes_ += bytes;
}

namespace {

void appendEscape(std::string& out, unsigned unit) {
  char escape[8];
  std::snprintf(escape, sizeof escape, "\\u%04x", unit);
  out += escape;
}

void appendCodePoint(std::string& out, unsigned codePoint) {
  if (codePoint > 0xffff) {
    appendEscape(out, 0xd800 + ((codePoint - 0x10000) >> 10));
    appendEscape(out, 0xdc00 + ((codePoint - 0x10000) & 0x3ff));
  } else {
    appendEscape(out, codePoint);
  }
}

/// Reads the UTF-8 sequence that begins at `position` and moves past it. REQUIRES valid UTF-8.
unsigned nextCodePoint(std::string_view utf8, std::size_t& position) {
  const auto lead = static_cast<unsigned char>(utf8[position++]);
  int following = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : lead >= 0xc0 ? 1 : 0;
  unsigned codePoint = following == 0 ? lead : lead & (0x3fU >> following);
  for (; following > 0 && position < utf8.size(); --following) {
    codePoint = codePoint << 6 | (static_cast<unsigned char>(utf8[position++]) & 0x3fU);
  }
  return codePoint;
}

}  // namespace

std::shared_ptr<const Document> Document::parse(std::string_view text) { return parse(text, false); }

std::shared_ptr<const Document> Document::parseSecret(std::string_view text) { return parse(text, true); }

std::shared_ptr<const Document> Document::parse(std::string_view text, bool isSecret) {
  auto document = std::make_shared<Document>(text.size(), isSecret);
  json::error_code failure;
  try {
    // The reader's own stack is bounded, too: it holds every value of the lists that are open.
    unsigned char stack[4096];
    json::parser parser(json::storage_ptr(&document->limit_), json::parse_options(), stack);
    parser.reset(json::storage_ptr(&document->memory_));
    parser.write(text, failure);
    if (!failure) document->value_ = parser.release();
  } catch (const std::exception&) {  // out of the memory that it may take
    return nullptr;
  }
  if (failure || !document->value_.is_object()) return nullptr;
  return document;
}

std::optional<std::string_view> text(const json::object& object, std::string_view key) {
  const json::value* value = object.if_contains(key);
  if (!value || !value->is_string()) return std::nullopt;
  return std::string_view(value->get_string());
}

std::optional<std::int64_t> integer(const json::object& object, std::string_view key) {
  const json::value* value = object.if_contains(key);
  if (value && value->is_int64()) return value->get_int64();
  return std::nullopt;  // 2^63 and more would be no size of anything
}

std::optional<bool> boolean(const json::object& object, std::string_view key) {
  const json::value* value = object.if_contains(key);
  if (!value || !value->is_bool()) return std::nullopt;
  return value->get_bool();
}

const json::object* object(const json::object& object, std::string_view key) {
  const json::value* value = object.if_contains(key);
  return value ? value->if_object() : nullptr;
}

const json::array* array(const json::object& object, std::string_view key) {
  const json::value* value = object.if_contains(key);
  return value ? value->if_array() : nullptr;
}

std::string_view tag(const json::value& unionValue) {
  if (const json::string* bare = unionValue.if_string()) return *bare;
  if (const json::object* members = unionValue.if_object()) return text(*members, ".tag").value_or("");
  return {};
}

std::string asciiText(const json::value& value) {
  const std::string utf8 = json::serialize(value);
  std::string ascii;
  ascii.reserve(utf8.size() + 16);
  for (std::size_t position = 0; position < utf8.size();) {
    const auto byte = static_cast<unsigned char>(utf8[position]);
    if (byte < 0x7f) {
      ascii += utf8[position++];
    } else {
      appendCodePoint(ascii, nextCodePoint(utf8, position));
    }
  }
  return ascii;
}

}  // namespace servicejson
