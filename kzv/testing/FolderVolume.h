#pragma once
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "core/FSPlugin.h"
#include "foundation/Unicode.h"

namespace kzv::cli {

/// One volume of FolderPlugin.
class FolderVolume final : public FSPlugin {
 public:
  FolderVolume(std::string accountId, std::filesystem::path tree);
  ~FolderVolume() override;

  id options() const override;
  std::string label() const override { return accountId_; }
  bool isFSAvailable() const override { return true; }
  std::shared_ptr<FSItem> parentItem() const override { return nullptr; }
  bool isEjectable() const override { return true; }
  void eject() override;
  std::shared_ptr<NSURL> tmpFolderUrl() const override { return tmpFolderUrl_; }
  void setTmpFolderUrl(std::shared_ptr<NSURL> url) override { tmpFolderUrl_ = std::move(url); }

  std::string nameKey(std::string_view name) const override { return caselessKey(name); }

  bool isSeekable() const override { return false; }
  bool isExecutable(const std::string& /*path*/) override { return false; }
  bool isExists(const std::string& path) override;
  bool isReadable(const std::string& path) override { return isExists(path); }
  bool isWritable(const std::string& path) override { return isExists(path); }
  std::shared_ptr<NSDictionary> attributesAtPath(const std::string& path, NSErrorRef* error) override;
  std::optional<FSItems> contentAtPath(const std::string& path, bool recursive, bool showHidden,
                                       NSErrorRef* error) override;

  std::shared_ptr<NSURL> requestFileUrl(const std::string& path, ProgressCallback progress,
                                        NSErrorRef* error) override;
  void releaseFileUrl(const NSURL& url) override;
  bool writeFile(const NSURL& source, const std::string& path, ProgressCallback progress,
                 NSErrorRef* error) override;
  std::optional<StoredFile> storeFile(const NSURL& source, const std::string& path, const WriteBase& base,
                                      ProgressCallback progress, NSErrorRef* error) override;
  bool removeItemAtPath(const std::string& path, NSErrorRef* error) override;
  bool moveFromPath(const std::string& path, const std::string& to,
                    const std::shared_ptr<NSDictionary>& attributes, ProgressCallback progress,
                    NSErrorRef* error) override;
  bool createDirectoryAtPath(const std::string& path, const std::shared_ptr<NSDictionary>& attributes,
                             NSErrorRef* error) override;
  std::shared_ptr<NSDictionary> fsAttributes(const std::string& path, NSErrorRef* error) override;

 private:
  /// Moves a file's bytes, telling of it; false with an error when the name orders that or the receiver stops
  /// it.
  bool transfer(const std::string& path, const std::filesystem::path& from, const std::filesystem::path& to,
                const ProgressCallback& progress, NSErrorRef* error);
  std::filesystem::path onDisk(const std::string& path) const;
  /// Does what the item's name orders; true when the operation ends with that, having failed.
  bool failsByName(const std::string& path, NSErrorRef* error);
  FSItems manyItems(const std::string& path);

  const std::string accountId_;
  const std::filesystem::path tree_;
  std::shared_ptr<NSURL> tmpFolderUrl_;
  std::mutex mutex_;  // guards the making of the temporary folder
};

}  // namespace kzv::cli
