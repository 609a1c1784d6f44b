#pragma once
#include <boost/json/fwd.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kzv::sdk {

/// Reading the service's JSON leniently: unknown fields are skipped, a field of the wrong type counts as
/// absent. Boost.JSON's own headers are included by .cpp files only. Formats: the service's HTTP
/// documentation and the JSON encoding of its interface descriptions (unions carry their member's name in
/// ".tag").
namespace servicejson {

/// A parsed text and the memory its values live in.
class Document {
 public:
  /// Null when `text` is not a valid JSON object, or takes more memory than servicelimits allow.
  static std::shared_ptr<const Document> parse(std::string_view text);
  /// The same for a text with secrets: the memory is overwritten before it is freed.
  static std::shared_ptr<const Document> parseSecret(std::string_view text);
  const boost::json::object& root() const noexcept;

  Document(std::size_t textSize, bool isSecret);
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;
  ~Document();

 private:
  static std::shared_ptr<const Document> parse(std::string_view text, bool isSecret);

  struct Memory;
  const std::unique_ptr<Memory> memory_;
};

std::optional<std::string_view> text(const boost::json::object& object, std::string_view key);
std::optional<std::int64_t> integer(const boost::json::object& object, std::string_view key);
std::optional<bool> boolean(const boost::json::object& object, std::string_view key);
const boost::json::object* object(const boost::json::object& object, std::string_view key);
const boost::json::array* array(const boost::json::object& object, std::string_view key);

/// The tag of a union value: "t" for {".tag":"t",…} or the bare text "t"; else empty.
std::string_view tag(const boost::json::value& unionValue);

/// `value` as JSON in printable ASCII: U+007F and above as \uXXXX, beyond U+FFFF as a surrogate pair. Valid
/// as a header value and as a body.
std::string asciiText(const boost::json::value& value);

}  // namespace servicejson

}  // namespace kzv::sdk
