#pragma once
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "foundation/Unicode.h"

namespace kzv::mount {

/// A volume in memory for tests of the mount: names ignore letter case, every write and every move of a file
/// makes a new version, and calls can be made to fail or to do something on the way. Names that end in ".tmp"
/// are reserved.
class MemoryVolume final : public FSPlugin {
 public:
  // What another device does: nobody is told before report().
  void write(const std::string& path, const std::string& bytes);
  void erase(const std::string& path);
  void moveElsewhere(const std::string& from, const std::string& to);
  /// All items: "/folder/" and "/folder/file", with the bytes of files.
  std::map<std::string, std::string> items() const;
  std::string bytesOf(const std::string& path) const;
  /// Tells who watches the folder that it has changed; false when nobody does.
  bool report(const std::string& folder);

  // Orders.
  enum class Call { list, open, store, remove, move, makeFolder, space, attributes };
  enum class When { instead, afterwards };  // afterwards: it is done, and only its answer is lost
  void fail(Call call, FSErrorCode code, int times, When when = When::instead);
  /// Runs `action` once, when the next such call is done and about to return. Without locks.
  void onNext(Call call, std::function<void()> action);
  int count(Call call) const;
  /// The trees that were to be loaded, in this order; `action` runs meanwhile.
  std::vector<std::string> loadedTrees() const;
  void onTree(std::function<bool(const std::string& path)> action);
  std::atomic<bool> isUnlinked{false};  // calls fail without a reason

  id options() const override { return nullptr; }
  std::string label() const override { return "memory"; }
  bool isFSAvailable() const override { return true; }
  std::shared_ptr<FSItem> parentItem() const override { return nullptr; }
  bool isEjectable() const override { return false; }
  void eject() override {}
  std::shared_ptr<NSURL> tmpFolderUrl() const override { return nullptr; }
  void setTmpFolderUrl(std::shared_ptr<NSURL> /*url*/) override {}
  std::optional<NameProblem> nameProblem(std::string_view name) const override;
  std::string nameKey(std::string_view name) const override { return caselessKey(name); }
  bool isSeekable() const override { return true; }
  bool isExecutable(const std::string& /*path*/) override { return false; }
  bool isExists(const std::string& path) override { return revisionAtPath(path).has_value(); }
  bool isReadable(const std::string& path) override { return isExists(path); }
  bool isWritable(const std::string& path) override { return isExists(path); }
  std::shared_ptr<NSDictionary> attributesAtPath(const std::string& path, NSErrorRef* error) override;
  std::shared_ptr<FSItem> itemAtPath(const std::string& path, NSErrorRef* error) override;
  std::optional<FSItems> contentAtPath(const std::string& path, bool recursive, bool showHidden,
                                       NSErrorRef* error) override;
  bool prepareToListTree(const std::string& path, std::size_t maxItems) override;
  std::shared_ptr<FSReader> openReader(const std::string& path, const std::string& version,
                                       ProgressCallback progress, NSErrorRef* error) override;
  std::optional<StoredFile> storeFile(const NSURL& source, const std::string& path, const WriteBase& base,
                                      ProgressCallback progress, NSErrorRef* error) override;
  std::optional<std::string> revisionAtPath(const std::string& path) override;
  bool removeItemAtPath(const std::string& path, NSErrorRef* error) override;
  bool moveFromPath(const std::string& path, const std::string& to,
                    const std::shared_ptr<NSDictionary>& attributes, ProgressCallback progress,
                    NSErrorRef* error) override;
  bool createDirectoryAtPath(const std::string& path, const std::shared_ptr<NSDictionary>& attributes,
                             NSErrorRef* error) override;
  std::shared_ptr<NSDictionary> fsAttributes(const std::string& path, NSErrorRef* error) override;
  void startWatchFolder(const std::shared_ptr<FSItem>& item) override;
  void stopWatchFolder(const std::shared_ptr<FSItem>& item) override;
  FSItems watchedFolders() const override;

 private:
  struct Item {
    std::string path;
    bool isFolder = false;
    std::string bytes;
    std::string version;
  };
  struct Failure {
    FSErrorCode code;
    int times;
    When when;
  };
  /// Carries out a call with its orders; `work` returns whether it succeeded.
  bool perform(Call call, NSErrorRef* error, const std::function<bool()>& work);
  std::shared_ptr<FSItem> itemOf(const Item& item);
  std::string store(const std::string& path, const std::string& bytes);
  bool moveItem(const std::string& from, const std::string& to);
  bool removeItem(const std::string& path);

  mutable std::mutex mutex_;                     // guards what follows
  std::map<std::string, Item> items_;            // by key
  std::map<std::string, std::string> versions_;  // the bytes of each, for ever
  std::map<Call, Failure> failures_;
  std::map<Call, std::function<void()>> actions_;
  std::map<Call, int> counts_;
  FSItems watched_;
  std::vector<std::string> loadedTrees_;
  std::function<bool(const std::string& path)> treeAction_;
  int lastVersion_ = 0;
};

}  // namespace kzv::mount
