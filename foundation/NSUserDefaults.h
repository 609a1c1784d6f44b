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
/// as empty, and the next write keeps it aside under another name. Any thread; only making one (which never
/// waits for a lock) and synchronize touch the disk, and meanwhile the values can be used.
class NSUserDefaults final : public NSObject {
 public:
  /// Reads the suite's file. Nothing when the name is empty, holds a slash or a NUL.
  static std::shared_ptr<NSUserDefaults> initWithSuiteName(const std::string& suiteName);

  /// A value of the type that was stored, or nothing.
  id objectForKey(const std::string& key) const;
  /// Stores a string, number or date (any other object stops the process); an empty value removes the key.
  /// Reals and decimals come back from the disk as doubles. A key is UTF-8 without NUL; any other is refused
  /// with a line in the log.
  void setValue(id value, const std::string& key);
  void removeObjectForKey(const std::string& key) { setValue(nullptr, key); }
  /// Writes what is pending (atomically: after true it is on the disk) and reads what others wrote: keys set
  /// by another process, or through another object of the same suite, survive. Waits while one of them does
  /// the same, at most 5 seconds. False, with an error, when the disk refused, when a file is there that
  /// cannot be read, or when another process held the lock for too long (the error names it); the values stay
  /// pending.
  bool synchronize(NSErrorRef* error = nullptr);

  explicit NSUserDefaults(std::string filePath);  // use initWithSuiteName

 private:
  using Values = std::map<std::string, id>;
  std::string lockPath() const { return filePath_ + ".lock"; }
  enum class Damaged { keepAside, leave };
  std::optional<Values> load(Damaged damaged, NSErrorRef* error) const;
  bool synchronizeLocked(NSErrorRef* error);
  Values pendingNow() const;
  void adopt(Values onDisk, const Values& written);

  const std::string filePath_;
  mutable std::mutex mutex_;  // not held over disk work
  Values values_;             // guarded by mutex_
  Values pending_;            // guarded by mutex_: not yet on disk; an empty value is a removal
};
