#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/NSObject.h"

/// The settings of one suite: a file of typed values (strings, numbers, booleans, dates) under the config
/// folder, in the text form of a GVariant dictionary. A damaged file counts as empty and is kept aside under
/// another name. Any thread; only synchronize touches the disk.
class NSUserDefaults final : public NSObject {
 public:
  /// Reads the suite's file. Nothing when the name is empty or holds a slash.
  static std::shared_ptr<NSUserDefaults> initWithSuiteName(const std::string& suiteName);

  /// A value of the type that was stored, or nothing.
  id objectForKey(const std::string& key) const;
  /// Stores a string, number or date; an empty value removes the key.
  void setValue(id value, const std::string& key);
  void removeObjectForKey(const std::string& key) { setValue(nullptr, key); }
  /// Writes what is pending (atomically: after true it is on the disk) and reads what other processes wrote.
  /// False when the disk refused; the values stay pending.
  bool synchronize();

  explicit NSUserDefaults(std::string filePath);  // use initWithSuiteName

 private:
  using Values = std::map<std::string, id>;
  Values load() const;

  const std::string filePath_;
  mutable std::mutex mutex_;
  Values values_;   // guarded by mutex_
  Values pending_;  // guarded by mutex_: not yet on disk; an empty value is a removal
};
