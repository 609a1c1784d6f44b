#pragma once
#include <boost/json.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "sdk/ServiceLimits.h"

/// Reading the service's JSON leniently: unknown fields are skipped, a field of the wrong type counts as
/// absent. Boost.JSON stays inside this folder's .cpp files. Formats: the service's HTTP documentation and
/// the JSON encoding of its interface descriptions (unions carry their member's name in ".tag").
namespace servicejson {

/// Gives out so many bytes at most, then fails as if there were no more memory. With `clears`, what is given
/// back is overwritten. Not thread-safe.
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

/// A parsed text and the memory its values live in.
class Document {
 public:
  /// Nothing when `text` is no valid JSON object, or one that takes more memory than servicelimits allow.
  static std::shared_ptr<const Document> parse(std::string_view text);
  /// The same for a text that holds secrets: the memory is overwritten before it is given back.
  static std::shared_ptr<const Document> parseSecret(std::string_view text);
  const boost::json::object& root() const noexcept { return value_.get_object(); }

  Document(std::size_t textSize, bool isSecret)
      : limit_(servicelimits::parsedBytes, isSecret),
        memory_(textSize + 1024, boost::json::storage_ptr(&limit_)),
        value_(boost::json::storage_ptr(&memory_)) {}
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

 private:
  static std::shared_ptr<const Document> parse(std::string_view text, bool isSecret);

  LimitedMemory limit_;
  boost::json::monotonic_resource memory_;
  boost::json::value value_;
};

std::optional<std::string_view> text(const boost::json::object& object, std::string_view key);
std::optional<std::int64_t> integer(const boost::json::object& object, std::string_view key);
std::optional<bool> boolean(const boost::json::object& object, std::string_view key);
const boost::json::object* object(const boost::json::object& object, std::string_view key);
const boost::json::array* array(const boost::json::object& object, std::string_view key);

/// The member that a union value names: of {".tag":"t",…} or of the bare text "t"; empty when it is neither.
std::string_view tag(const boost::json::value& unionValue);

/// `value` as JSON in printable ASCII: U+007F and above as \uXXXX, beyond U+FFFF as a surrogate pair. Fit for
/// a header's value and for a body alike.
std::string asciiText(const boost::json::value& value);

}  // namespace servicejson
