#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "foundation/NSURL.h"

/// The host's services for plug-ins.
class KZVCoreProtocol {
 public:
  virtual ~KZVCoreProtocol() = default;
  /// The file systems that the host has open, in the order of attaching. Any thread; does not block.
  virtual std::vector<std::shared_ptr<FSPlugin>> attachedPlugins() const = 0;
  /// Creates an empty private folder (mode 0700) for `plugin` below the cache folder; null with an error when
  /// the disk fails. The plug-in removes it in its destructor; folders of killed processes are removed at the
  /// next start. Any thread; blocks for the disk.
  virtual std::shared_ptr<NSURL> temporaryFolderForPlugin(const FSPlugin& plugin, NSErrorRef* error) = 0;
};

/// The host's only core object, never destroyed. Any thread.
class KZVCoreObj final : public KZVCoreProtocol {
 public:
  static KZVCoreObj& shared();

  std::vector<std::shared_ptr<FSPlugin>> attachedPlugins() const override;
  std::shared_ptr<NSURL> temporaryFolderForPlugin(const FSPlugin& plugin, NSErrorRef* error) override;

  /// For the host: opens `plugin` (once), and closes it, which ends its watches.
  void attach(std::shared_ptr<FSPlugin> plugin);
  void detach(const FSPlugin& plugin);
  /// For the host, as the last step before the process ends: removes this process's temporary folders. Blocks
  /// for the disk.
  void removeTemporaryFolders();

 private:
  KZVCoreObj();
  struct State;
  const std::unique_ptr<State> state_;
};
