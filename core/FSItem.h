#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "foundation/NSDate.h"
#include "foundation/NSObject.h"

class FSPlugin;

/// One file or folder of a file system. The plug-in that lists it sets its attributes before returning the
/// item; afterwards they are only read. The change callback may be set from any thread.
class FSItem final : public NSObject, public std::enable_shared_from_this<FSItem> {
 public:
  using ChangeCallback = std::function<void(const std::shared_ptr<FSItem>&)>;

  /// @param path  as the file system spells it, beginning with "/".
  /// @param fs    the file system; kept alive by its items.
  FSItem(std::string path, std::shared_ptr<FSPlugin> fs);
  ~FSItem() override;

  const std::string& path() const noexcept { return path_; }
  const std::shared_ptr<FSPlugin>& fs() const noexcept { return fs_; }
  /// The last component of the path; "/" for the root.
  std::string name() const;

  std::uint64_t size() const noexcept { return size_; }  // bytes; 0 for folders
  void setSize(std::uint64_t bytes) noexcept { size_ = bytes; }
  bool isDirectory() const noexcept { return isDirectory_; }
  void setIsDirectory(bool isDirectory) noexcept { isDirectory_ = isDirectory; }
  /// The version of a file's bytes: opaque, different after each change. Empty for folders, and on volumes
  /// without versions. Compare for equality only; dates and sizes do not distinguish versions.
  std::string version() const { return record_ ? recordTexts_->version(*record_) : version_; }
  void setVersion(std::string version) { version_ = std::move(version); }
  /// Opaque; unchanged by a move, a rename or a new version; empty on volumes without ids.
  std::string id() const { return record_ ? recordTexts_->id(*record_) : id_; }
  void setId(std::string itemId) { id_ = std::move(itemId); }
  /// Instead of setVersion and setId, for large listings: computes both from `record` on demand. `texts` must
  /// have static storage duration.
  struct RecordTexts {
    std::string (*version)(const NSObject& record);
    std::string (*id)(const NSObject& record);
  };
  void setRecord(std::shared_ptr<const NSObject> record, const RecordTexts& texts) {
    record_ = std::move(record);
    recordTexts_ = &texts;
  }
  const std::optional<NSDate::Time>& modificationDate() const noexcept { return modificationDate_; }
  void setModificationDate(std::optional<NSDate::Time> date) noexcept { modificationDate_ = date; }

  /// Whether this item can be watched for changes: only folders can.
  bool isWatchable() const noexcept { return isDirectory_; }
  /// The callback is called on the main queue when the watched folder has changed; empty removes it.
  void setChangeCallback(ChangeCallback callback);
  ChangeCallback changeCallback() const;
  /// A plug-in calls this on a watched item before it queues the change callback: marks the item's listing as
  /// out of date for hosts that check before the callback runs.
  void prepareForChange();
  /// Whether prepareForChange was called since the last call of this; clears the mark.
  bool takeChangeMark();

 private:
  const std::string path_;
  const std::shared_ptr<FSPlugin> fs_;
  std::string version_;
  std::string id_;
  std::shared_ptr<const NSObject> record_;  // may be null
  const RecordTexts* recordTexts_ = nullptr;
  std::uint64_t size_ = 0;
  std::optional<NSDate::Time> modificationDate_;
  bool isDirectory_ = false;
  bool isMarkedChanged_ = false;  // guarded by mutex_
  mutable std::mutex mutex_;
  ChangeCallback changeCallback_;  // guarded by mutex_
};
