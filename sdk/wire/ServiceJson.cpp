#include "sdk/wire/ServiceJson.h"

#include <boost/json.hpp>
#include <iterator>
#include <limits>
#include <new>

#include <fmt/format.h>
#include <string.h>

#include "foundation/Unicode.h"
#include "sdk/wire/ServiceLimits.h"

namespace kzv::sdk {

namespace json = boost::json;

namespace servicejson {

namespace {

/// Allocates up to a limit, then throws std::bad_alloc. With `clears` freed memory is overwritten. Not
/// thread-safe.
class LimitedMemory final : public boost::json::memory_resource {
 public:
  LimitedMemory(std::size_t limitBytes, bool clears) : freeBytes_(limitBytes), clears_(clears) {}

 private:
  void* do_allocate(std::size_t bytes, std::size_t alignment) override;
  void do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) override;
  bool do_is_equal(const boost::json::memory_resource& other) const noexcept override {
    return this == &other;
  }

  std::size_t freeBytes_;
  const bool clears_;
};

void* LimitedMemory::do_allocate(std::size_t bytes, std::size_t alignment) {
  if (bytes > freeBytes_) throw std::bad_alloc();
  void* memory = ::operator new(bytes, std::align_val_t(alignment));
  freeBytes_ -= bytes;
  return memory;
}

void LimitedMemory::do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) {
  if (clears_) ::explicit_bzero(memory, bytes);
  ::operator delete(memory, std::align_val_t(alignment));  // clang 14 has no sized form
  freeBytes_ += bytes;
}

void appendEscape(std::string& out, char16_t unit) {
  fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(unit));
}

}  // namespace

struct Document::Memory {
  Memory(std::size_t textSize, bool isSecret)
      : limit(servicelimits::parsedBytes, isSecret),
        values(textSize + 1024, json::storage_ptr(&limit)),
        root(json::storage_ptr(&values)) {}

  LimitedMemory limit;
  json::monotonic_resource values;
  json::value root;
};

Document::Document(std::size_t textSize, bool isSecret)
    : memory_(std::make_unique<Memory>(textSize, isSecret)) {}

Document::~Document() = default;

const json::object& Document::root() const noexcept { return memory_->root.get_object(); }

std::shared_ptr<const Document> Document::parse(std::string_view text) { return parse(text, false); }

std::shared_ptr<const Document> Document::parseSecret(std::string_view text) { return parse(text, true); }

std::shared_ptr<const Document> Document::parse(std::string_view text, bool isSecret) {
  auto document = std::make_shared<Document>(text.size(), isSecret);
  json::error_code failure;
  try {
    // The parser's stack, which holds the values of all open lists, is limited, too.
    unsigned char stack[4096];
    json::parser parser(json::storage_ptr(&document->memory_->limit), json::parse_options(), stack);
    parser.reset(json::storage_ptr(&document->memory_->values));
    parser.write(text, failure);
    if (!failure) document->memory_->root = parser.release();
  } catch (const std::exception&) {  // the memory limit
    return nullptr;
  }
  if (failure || !document->memory_->root.is_object()) return nullptr;
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
  return std::nullopt;  // 2^63 and more are not valid sizes
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
  std::string ascii;
  for (const char16_t unit : utf16(json::serialize(value))) {
    if (unit < 0x7F) {
      ascii += static_cast<char>(unit);
    } else {
      appendEscape(ascii, unit);
    }
  }
  return ascii;
}

}  // namespace servicejson

}  // namespace kzv::sdk
