#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/NSArray.h"
#include "foundation/NSDictionary.h"
#include "foundation/NSError.h"
#include "foundation/NSNumber.h"
#include "foundation/NSObject.h"
#include "foundation/NSString.h"
#include "json/QJJsonBase.h"

/// Writes trees of NSDictionary, NSArray, NSString, NSNumber, NSNull and objects with a proxy
/// (QJJsonProxying) as JSON (RFC 8259). The outermost value must be an array, a dictionary, or a chain of
/// proxies to one.
///
/// A number made from a boolean or a single byte is written as "true" or "false", any other as its
/// stringValue. Strings are written byte by byte: characters above 127 and the slash are not escaped, and
/// bytes that are not UTF-8, which file names on disk may hold, are kept.
///
/// When the value of a proxy cannot be written, writing continues behind it; its errors stay in the trace and
/// its partial text in the output. This is deliberate: one unsupported object must not fail the whole text.
/// More than 512 proxies in a row are "Nested too deep", so that an object that is its own proxy terminates.
///
/// Nesting uses heap memory, not the stack. Reusable. Threads: as QJJsonBase. Never blocks.
class QJJsonWriter : public QJJsonBase {
 public:
  /// @param error  may be null; on failure gets the last, outermost, error of errorTrace().
  /// @return the text, or nothing on failure: errorTrace() says why.
  std::optional<std::string> stringWithObject(const id& value, NSErrorRef* error = nullptr);

  /// Whether members are sorted by key (canonicalCompare, ascending); by default false: in dictionary order.
  bool sortKeys() const noexcept { return sortKeys_; }
  void setSortKeys(bool sortKeys) noexcept { sortKeys_ = sortKeys; }
  /// Whether each element and member gets its own line, indented by two spaces per level; by default false.
  bool humanReadable() const noexcept { return humanReadable_; }
  void setHumanReadable(bool humanReadable) noexcept { humanReadable_ = humanReadable; }

  /// A line feed and two spaces for each array and object that is open.
  std::string indent() const;

  // Each of these appends one value to `into`. On false `into` holds a part of it, and the reason is appended
  // to errorTrace(), which these functions never clear.
  bool appendValue(const id& value, std::string& into);
  bool appendArray(const NSArray& array, std::string& into);
  bool appendDictionary(const NSDictionary& dictionary, std::string& into);
  bool appendString(const NSString& string, std::string& into);

 private:
  /// An array, a dictionary or (both null) a proxy that is being written.
  struct OpenValue {
    const NSArray* array = nullptr;
    const NSDictionary* dictionary = nullptr;
    id proxy = nullptr;           // the value to write in place of the object that offered it
    std::size_t next = 0;         // index of the element or member to write next
    std::size_t firstSorted = 0;  // of a dictionary: index in sorted_ of its first member
    std::size_t proxiesInARow = 0;
  };

  // All of these: false means that the error is in the trace.
  bool write(const NSObject* value, std::string& into);
  /// Writes a value, or of an array, dictionary or proxy its beginning, which is then the innermost of open_.
  bool beginValue(const NSObject* value, std::string& into);
  bool beginContainer(OpenValue container, char bracket, std::string& into);
  bool beginProxy(const NSObject* value);
  bool appendNumber(const NSNumber& number, std::string& into);
  /// Continues the innermost open value until it has ended or another has been opened inside it.
  bool continueInnermost(std::string& into);
  bool continueArray(std::string& into);
  bool continueDictionary(std::string& into);
  bool continueProxy(std::string& into);
  bool failOpenValues(std::size_t outermost);

  void beginItem(std::size_t index, std::string& into) const;
  void endContainer(char bracket, bool isEmpty, std::string& into);
  void leaveInnermost();
  void sortMembers(const NSDictionary& dictionary);
  const NSDictionary::Entries::value_type& member(const OpenValue& open, std::size_t at) const;

  bool sortKeys_ = false;
  bool humanReadable_ = false;
  std::vector<OpenValue> open_;
  std::vector<const NSDictionary::Entries::value_type*> sorted_;  // of all open dictionaries, outermost first
};
