#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/NSError.h"
#include "foundation/NSObject.h"

/// The settings of one suite: a file of typed values (strings, numbers, booleans, dates) under the config
/// folder, in the text form of a GVariant dictionary (documented with g_variant_parse). A damaged file counts
/// as empty, and the next write renames it first. Any thread. Only the constructor (which never waits for a
/// lock) and synchronize access the disk; the values stay usable meanwhile.
class NSUserDefaults final : public NSObject {
 public:
  /// Reads the suite's file. Nothing when the name is empty or contains a slash or NUL.
  static std::shared_ptr<NSUserDefaults> initWithSuiteName(const std::string& suiteName);

  /// The value, of the type that was stored, or nothing.
  id objectForKey(const std::string& key) const;
  /// Stores a string, number or date (any other object aborts the process); an empty value removes the key.
  /// Reals and decimals are read back as doubles. A key that is not UTF-8, or contains a NUL, is logged and
  /// ignored.
  void setValue(id value, const std::string& key);
  void removeObjectForKey(const std::string& key) { setValue(nullptr, key); }
  /// Writes pending changes atomically and durably, and reads those of other processes and of other objects
  /// of the same suite. Waits at most 5 seconds for concurrent writers. False, with an error, when writing
  /// fails, when the file exists but cannot be read, or when another process held the lock for too long (the
  /// error names it); the changes stay pending.
  bool synchronize(NSErrorRef* error = nullptr);

  explicit NSUserDefaults(std::string filePath);  // use initWithSuiteName

 private:
  using Values = std::map<std::string, id>;
  std::string lockPath() const { return filePath_ + ".lock"; }
  enum class Damaged { moveAside, leave };
  std::optional<Values> load(Damaged damaged, NSErrorRef* error) const;
  bool synchronizeLocked(NSErrorRef* error);
  Values pendingNow() const;
  void adopt(Values onDisk, const Values& written);

  const std::string filePath_;
  mutable std::mutex mutex_;  // not held during disk access
  Values values_;             // guarded by mutex_
  Values pending_;            // guarded by mutex_: not yet on disk; an empty value is a removal
};
