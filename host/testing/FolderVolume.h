#pragma once
#include <filesystem>
#include <memory>
#include <string>

#include "core/FSPlugin.h"

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

  bool isSeekable() const override { return false; }
  bool isExecutable(const std::string& /*path*/) override { return false; }
  bool isExists(const std::string& path) override;
  bool isReadable(const std::string& path) override { return isExists(path); }
  bool isWritable(const std::string& path) override { return isExists(path); }
  std::shared_ptr<NSDictionary> attributesAtPath(const std::string& path, NSErrorRef* error) override;
  std::optional<FSItems> contentAtPath(const std::string& path, bool recursive, bool showHidden,
                                       NSErrorRef* error) override;

 private:
  std::filesystem::path onDisk(const std::string& path) const;
  /// Does what the item's name orders; true when the operation ends with that, having failed.
  bool failsByName(const std::string& path, NSErrorRef* error);
  FSItems manyItems(const std::string& path);

  const std::string accountId_;
  const std::filesystem::path tree_;
  std::shared_ptr<NSURL> tmpFolderUrl_;
};
