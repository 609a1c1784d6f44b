#include "standin/api/ArgReader.h"

#include <algorithm>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "standin/Encoding.h"
#include "standin/api/ApiError.h"

namespace kzv::standin {
namespace {

namespace json = boost::json;

const char* kindName(const json::value& value) {
  if (value.is_null()) return "null";
  if (value.is_bool()) return "boolean";
  if (value.is_string()) return "string";
  if (value.is_array()) return "list";
  if (value.is_object()) return "object";
  return value.is_double() ? "float" : "integer";
}

std::string_view view(const json::string& text) { return {text.data(), text.size()}; }

bool isLine(std::string_view text) { return text.find_first_of("\r\n") == std::string_view::npos; }

bool isNamespacePath(std::string_view text) {
  if (text.substr(0, 3) != "ns:") return false;
  const auto end =
      std::find_if_not(text.begin() + 3, text.end(), [](char c) { return c >= '0' && c <= '9'; });
  return end != text.begin() + 3 && (end == text.end() || *end == '/');
}

bool isRevision(std::string_view text) {
  if (text.substr(0, 4) != "rev:" || text.size() < 13) return false;
  return text.substr(4).find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

const char* patternOf(PathForm form) {
  switch (form) {
    case PathForm::read:
      return "(/(.|[\\r\\n])*|id:.*)|(rev:[0-9a-f]{9,})|(ns:[0-9]+(/(.|[\\r\\n])*)?)";
    case PathForm::rootOrId:
      return "(/(.|[\\r\\n])*)?|id:.*|(ns:[0-9]+(/(.|[\\r\\n])*)?)";
    case PathForm::writeOrId:
      return "(/(.|[\\r\\n])*)|(ns:[0-9]+(/(.|[\\r\\n])*)?)|(id:.*)";
    case PathForm::write:
      return "(/(.|[\\r\\n])*)|(ns:[0-9]+(/(.|[\\r\\n])*)?)";
  }
  return "";
}

}  // namespace

bool matchesPathForm(std::string_view text, PathForm form) {
  if (text.empty()) return form == PathForm::rootOrId;
  if (text.front() == '/' || isNamespacePath(text)) return true;
  if (text.substr(0, 3) == "id:") return form != PathForm::write && isLine(text);
  return form == PathForm::read && isRevision(text);
}

ArgReader::ArgReader(const json::value& value, bool strict, std::string place)
    : object_(value.if_object()), strict_(strict), place_(std::move(place)) {
  if (object_) return;
  const std::string_view where =
      place_.empty() ? std::string_view() : std::string_view(place_).substr(0, place_.size() - 1);
  throw BadArgument(
      fmt::format("{}{}expected object, got {}", where, where.empty() ? "" : ": ", kindName(value)));
}

void ArgReader::fail(std::string_view field, std::string_view problem) const {
  throw BadArgument(fmt::format("{}{}: {}", place_, field, problem));
}

const json::value* ArgReader::raw(std::string_view field) const {
  known_.emplace(field);
  return object_->if_contains(json::string_view(field.data(), field.size()));
}

const json::value* ArgReader::find(std::string_view field) const {
  const json::value* found = raw(field);
  return found && found->is_null() ? nullptr : found;
}

bool ArgReader::has(std::string_view field) const { return find(field) != nullptr; }

std::optional<std::string> ArgReader::optionalString(std::string_view field) const {
  const json::value* found = find(field);
  if (!found) return std::nullopt;
  if (!found->is_string()) fail(field, fmt::format("expected string, got {}", kindName(*found)));
  return std::string(view(found->get_string()));
}

std::string ArgReader::requiredString(std::string_view field) const {
  const json::value* found = raw(field);
  if (!found)
    throw BadArgument(
        fmt::format("{}missing required field '{}'", place_.empty() ? "" : place_ + " ", field));
  if (!found->is_string()) fail(field, fmt::format("expected string, got {}", kindName(*found)));
  return std::string(view(found->get_string()));
}

std::string ArgReader::path(std::string_view field, PathForm form) const {
  std::string text = requiredString(field);
  if (!matchesPathForm(text, form)) {
    fail(field, fmt::format("'{}' did not match pattern '{}'", text, patternOf(form)));
  }
  return text;
}

std::optional<std::string> ArgReader::optionalPath(std::string_view field, PathForm form) const {
  if (!has(field)) return std::nullopt;
  return path(field, form);
}

bool ArgReader::boolean(std::string_view field, bool fallback) const {
  const json::value* found = raw(field);
  if (!found) return fallback;
  if (!found->is_bool()) fail(field, fmt::format("expected boolean, got {}", kindName(*found)));
  return found->get_bool();
}

std::optional<std::uint64_t> ArgReader::optionalUnsigned(std::string_view field, std::uint64_t min,
                                                         std::uint64_t max) const {
  const json::value* found = find(field);
  if (!found) return std::nullopt;
  if (found->is_int64() && found->get_int64() < 0)
    fail(field, fmt::format("{} is less than {}", found->get_int64(), min));
  if (!found->is_int64() && !found->is_uint64())
    fail(field, fmt::format("expected integer, got {}", kindName(*found)));
  const auto value = found->to_number<std::uint64_t>();
  if (value < min) fail(field, fmt::format("{} is less than {}", value, min));
  if (value > max) fail(field, fmt::format("{} is greater than {}", value, max));
  return value;
}

std::uint64_t ArgReader::requiredUnsigned(std::string_view field, std::uint64_t min,
                                          std::uint64_t max) const {
  const auto value = optionalUnsigned(field, min, max);
  if (!value)
    throw BadArgument(
        fmt::format("{}missing required field '{}'", place_.empty() ? "" : place_ + " ", field));
  return *value;
}

std::optional<std::int64_t> ArgReader::optionalTime(std::string_view field) const {
  const auto text = optionalString(field);
  if (!text) return std::nullopt;
  const auto time = parseIsoTime(*text);
  if (!time) fail(field, fmt::format("time data '{}' does not match format '%Y-%m-%dT%H:%M:%SZ'", *text));
  return time;
}

std::optional<std::string> ArgReader::optionalHash(std::string_view field) const {
  const auto text = optionalString(field);
  if (!text) return std::nullopt;
  if (text->size() != 64) fail(field, fmt::format("'{}' must be 64 characters long", *text));
  if (text->find_first_not_of("0123456789abcdef") != std::string::npos) {
    fail(field, fmt::format("'{}' is not lower-case hexadecimal", *text));
  }
  return text;
}

std::string ArgReader::tag(std::string_view field, std::initializer_list<std::string_view> tags,
                           std::string_view fallback) const {
  const json::value* found = raw(field);
  if (!found) return std::string(fallback);
  const json::value* text = found;
  if (const auto* object = found->if_object()) {
    text = object->if_contains(".tag");
    if (!text) fail(field, "missing '.tag' key");
  }
  if (!text->is_string()) fail(field, fmt::format("expected a tag, got {}", kindName(*text)));
  const std::string_view name = view(text->get_string());
  if (std::find(tags.begin(), tags.end(), name) == tags.end())
    fail(field, fmt::format("invalid tag '{}'", name));
  return std::string(name);
}

std::optional<ArgReader> ArgReader::object(std::string_view field) const {
  const json::value* found = find(field);
  if (!found) return std::nullopt;
  return ArgReader(*found, strict_, fmt::format("{}{}.", place_, field));
}

ArgReader ArgReader::requiredObject(std::string_view field) const {
  auto found = object(field);
  if (!found)
    throw BadArgument(
        fmt::format("{}missing required field '{}'", place_.empty() ? "" : place_ + " ", field));
  return *found;
}

std::vector<ArgReader> ArgReader::requiredObjects(std::string_view field, std::size_t maxCount) const {
  const json::value* found = raw(field);
  if (!found) throw BadArgument(fmt::format("missing required field '{}'", field));
  const auto* items = found->if_array();
  if (!items) fail(field, fmt::format("expected list, got {}", kindName(*found)));
  if (items->size() > maxCount) fail(field, fmt::format("has more than {} items", maxCount));
  std::vector<ArgReader> readers;
  for (std::size_t i = 0; i < items->size(); ++i) {
    readers.emplace_back((*items)[i], strict_, fmt::format("{}{}[{}].", place_, field, i));
  }
  return readers;
}

std::vector<std::string> ArgReader::strings(std::string_view field) const {
  const json::value* found = find(field);
  if (!found) return {};
  const auto* items = found->if_array();
  if (!items) fail(field, fmt::format("expected list, got {}", kindName(*found)));
  std::vector<std::string> texts;
  for (const auto& item : *items) {
    if (!item.is_string()) fail(field, fmt::format("expected string, got {}", kindName(item)));
    texts.emplace_back(view(item.get_string()));
  }
  return texts;
}

void ArgReader::ignore(std::initializer_list<std::string_view> fields) const {
  for (const auto field : fields) known_.emplace(field);
}

void ArgReader::done() const {
  if (!strict_) return;
  for (const auto& member : *object_) {
    const std::string_view name(member.key().data(), member.key().size());
    if (known_.find(name) == known_.end())
      throw BadArgument(fmt::format("{}unknown field '{}'", place_, name));
  }
}

}  // namespace kzv::standin
