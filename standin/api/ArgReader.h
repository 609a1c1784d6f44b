#pragma once

#include <boost/json/fwd.hpp>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kzv::standin {

/// The pattern of a path argument; the whole text must match.
enum class PathForm {
  read,       // (/(.|[\r\n])*|id:.*)|(rev:[0-9a-f]{9,})|(ns:[0-9]+(/(.|[\r\n])*)?)
  rootOrId,   // (/(.|[\r\n])*)?|id:.*|(ns:[0-9]+(/(.|[\r\n])*)?)
  writeOrId,  // (/(.|[\r\n])*)|(ns:[0-9]+(/(.|[\r\n])*)?)|(id:.*)
  write,      // (/(.|[\r\n])*)|(ns:[0-9]+(/(.|[\r\n])*)?)
};
bool matchesPathForm(std::string_view text, PathForm form);

/// Reads and validates the fields of one JSON argument: types, required fields, ranges. Every function throws
/// BadArgument, naming the field. The JSON value must outlive the reader. One thread at a time.
class ArgReader {
 public:
  /// @param place  the struct's position, as "" or "cursor."; a prefix of field names in texts.
  /// @param strict  refuse unknown fields when done() is called.
  ArgReader(const boost::json::value& value, bool strict, std::string place = {});

  std::string requiredString(std::string_view field) const;
  std::optional<std::string> optionalString(std::string_view field) const;
  std::string path(std::string_view field, PathForm form) const;
  std::optional<std::string> optionalPath(std::string_view field, PathForm form) const;
  bool boolean(std::string_view field, bool fallback) const;
  std::uint64_t requiredUnsigned(std::string_view field, std::uint64_t min, std::uint64_t max) const;
  std::optional<std::uint64_t> optionalUnsigned(std::string_view field, std::uint64_t min,
                                                std::uint64_t max) const;
  /// Seconds since the epoch.
  std::optional<std::int64_t> optionalTime(std::string_view field) const;
  /// 64 lower-case hexadecimal digits.
  std::optional<std::string> optionalHash(std::string_view field) const;
  /// A union of void members, as text or as object; a tag outside `tags` is refused.
  std::string tag(std::string_view field, std::initializer_list<std::string_view> tags,
                  std::string_view fallback) const;
  /// A nested struct; absent when the field is.
  std::optional<ArgReader> object(std::string_view field) const;
  ArgReader requiredObject(std::string_view field) const;
  std::vector<ArgReader> requiredObjects(std::string_view field, std::size_t maxCount) const;
  std::vector<std::string> strings(std::string_view field) const;
  /// Accepts the fields with any value.
  void ignore(std::initializer_list<std::string_view> fields) const;
  bool has(std::string_view field) const;
  /// The raw value, null when absent.
  const boost::json::value* raw(std::string_view field) const;

  /// Call after the last field.
  void done() const;

  [[noreturn]] void fail(std::string_view field, std::string_view problem) const;

 private:
  /// Null when the field is absent or null.
  const boost::json::value* find(std::string_view field) const;

  const boost::json::object* object_;
  bool strict_;
  std::string place_;
  mutable std::set<std::string, std::less<>> known_;
};

}  // namespace kzv::standin
