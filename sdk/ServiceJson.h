#pragma once
#include <boost/json.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// Reading the service's JSON leniently: unknown fields are skipped, a field of the wrong type counts as
/// absent. Boost.JSON stays inside this folder's .cpp files. Formats: the service's HTTP documentation and
/// the JSON encoding of its interface descriptions (unions carry their member's name in ".tag").
namespace servicejson {

/// A parsed text and the memory its values live in.
class Document {
 public:
  /// Nothing when `text` is no valid JSON object.
  static std::shared_ptr<const Document> parse(std::string_view text);
  const boost::json::object& root() const noexcept { return value_.get_object(); }

  explicit Document(std::size_t textSize)
      : memory_(textSize + 1024), value_(boost::json::storage_ptr(&memory_)) {}
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

 private:
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
