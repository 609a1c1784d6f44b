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
#include "json/JsonOutput.h"
#include "json/QJJsonBase.h"

/// Writes trees of NSDictionary, NSArray, NSString, NSNumber and NSNull, and whatever offers a proxy
/// (QJJsonProxying), as JSON (RFC 8259). The outermost value must be an array or a dictionary, or stand
/// behind proxies that lead to one.
///
/// Numbers are written by what they were made of: from a boolean or a single byte as "true" or "false",
/// everything else as its stringValue. Texts are written as their bytes: characters above 127 and the slash
/// are not escaped, and bytes that are not UTF-8, as file names on disk may hold, stay what they are.
///
/// A proxy's value that cannot be written is left out and the writing goes on; its errors stay in the trace
/// and what it had written so far in the text. This is meant: one odd object must not cost the whole text.
/// More than 512 proxies that stand for each other in a row count as nested too deep, so that an object that
/// is its own proxy ends.
///
/// Nesting uses memory, never the stack. Reusable.
/// Threads: as QJJsonBase. Never blocks.
class QJJsonWriter : public QJJsonBase {
 public:
  /// @param error  may be null; on failure gets the last, outermost, error of errorTrace().
  /// @return the text, or nothing on failure: errorTrace() says why.
  std::optional<std::string> stringWithObject(const id& value, NSErrorRef* error = nullptr);

  /// Whether members are written in the order of their keys (canonicalCompare, ascending), or, as at the
  /// start, in the order of the dictionary.
  bool sortKeys() const noexcept { return sortKeys_; }
  void setSortKeys(bool sortKeys) noexcept { sortKeys_ = sortKeys; }
  /// Whether each element and member is written on a line of its own, with two blanks for each level around
  /// it; false at the start.
  bool humanReadable() const noexcept { return humanReadable_; }
  void setHumanReadable(bool humanReadable) noexcept { humanReadable_ = humanReadable; }

  /// A line feed and two blanks for each array and object that is open now.
  std::string indent() const;

  // Each of these appends the text of one value to `into`. False: the reason is in errorTrace(), which they
  // add to and do not clear, and `into` holds what could be written.
  bool appendValue(const id& value, std::string& into);
  bool appendArray(const NSArray& array, std::string& into);
  bool appendDictionary(const NSDictionary& dictionary, std::string& into);
  bool appendString(const NSString& string, std::string& into);

 private:
  /// An array, a dictionary or a proxy that has been begun and not ended.
  struct OpenValue {
    const NSArray* array = nullptr;
    const NSDictionary* dictionary = nullptr;
    id proxy;                     // the value in the place of the object that offered it; kept for the call
    std::size_t next = 0;         // the element or member to write next
    std::size_t firstSorted = 0;  // of a dictionary: where its members begin in sorted_
    std::size_t proxiesInARow = 0;

    std::size_t count() const { return array ? array->items().size() : dictionary ? dictionary->count() : 0; }
  };
  enum class Step : unsigned char {
    failed,      // its error is in the trace
    done,        // a whole value has been written
    needsValue,  // the innermost open container goes on with pending_
  };

  bool write(const NSObject* value, JsonOutput& into);
  Step beginValue(const NSObject* value, JsonOutput& into);
  Step beginArray(const NSArray& array, JsonOutput& into);
  Step beginDictionary(const NSDictionary& dictionary, JsonOutput& into);
  Step beginProxy(const NSObject* value);
  Step appendNumber(const NSNumber& number, JsonOutput& into);
  Step goOn(JsonOutput& into);
  Step goOnWithArray(OpenValue& open, JsonOutput& into);
  Step goOnWithDictionary(OpenValue& open, JsonOutput& into);
  Step end(char bracket, bool isEmpty, JsonOutput& into);
  Step fail(QJJsonErrorCode code, std::string_view message);
  bool goesDeeper();
  bool failOpenValues(std::size_t outermost);
  void leaveInnermost();
  void sortMembers(const NSDictionary& dictionary);
  const NSDictionary::Entries::value_type& member(const OpenValue& open, std::size_t at) const;
  void separate(std::size_t position, JsonOutput& into);
  void reserveForRest(JsonOutput& into);
  void addIndent(JsonOutput& into) const;

  static constexpr std::size_t firstEstimateAtBytes = 65'536;

  bool sortKeys_ = false;
  bool humanReadable_ = false;
  const NSObject* pending_ = nullptr;
  std::size_t estimateAtBytes_ = firstEstimateAtBytes;  // of the text: when to foresee its size next
  std::vector<OpenValue> open_;
  std::vector<const NSDictionary::Entries::value_type*> sorted_;  // of all open dictionaries, outermost first
};
