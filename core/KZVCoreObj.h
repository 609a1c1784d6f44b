#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/FSPlugin.h"
#include "foundation/NSURL.h"

/// What plug-ins may ask of the host.
class KZVCoreProtocol {
 public:
  virtual ~KZVCoreProtocol() = default;
  /// The file systems that the host has open now, in the order in which they were attached. Any thread, does
  /// not block.
  virtual std::vector<std::shared_ptr<FSPlugin>> attachedPlugins() const = 0;
  /// An empty private folder (mode 0700) for `plugin`, below the cache folder, made now; nothing when the
  /// disk refuses. The plug-in removes it when it goes; folders of processes that were killed are removed at
  /// the next start.
  virtual std::shared_ptr<NSURL> temporaryFolderForPlugin(const FSPlugin& plugin, NSErrorRef* error) = 0;
};

/// The host's one core object. Alive for the life of the process.
class KZVCoreObj final : public KZVCoreProtocol {
 public:
  static KZVCoreObj& shared();

  std::vector<std::shared_ptr<FSPlugin>> attachedPlugins() const override;
  std::shared_ptr<NSURL> temporaryFolderForPlugin(const FSPlugin& plugin, NSErrorRef* error) override;

  /// Host side: keeps `plugin` open (once) / lets it go.
  void attach(std::shared_ptr<FSPlugin> plugin);
  void detach(const FSPlugin& plugin);
  /// Host side, the last step before the process ends: removes whatever this process still has below the
  /// temporary folder. Blocks for as long as the disk takes.
  void removeTemporaryFolders();

 private:
  KZVCoreObj();
  struct State;
  const std::unique_ptr<State> state_;
};
