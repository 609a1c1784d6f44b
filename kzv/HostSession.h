#pragma once
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/FSPlugin.h"

namespace kzv::cli {

/// One account as the person sees it.
struct Account {
  std::string id;
  std::string label;  // the id while the name is not known
  bool isNamed = false;
  bool isAvailable = false;
};

/// The loaded plug-in and the volumes that commands work on, each opened once. Make it and load() on the main
/// thread; everything else belongs to the thread that runs the command, while the main thread runs its run
/// loop, where the notification of a filled account list is posted.
class HostSession {
 public:
  HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;
  ~HostSession();

  /// Loads the bundle: KZV_BUNDLE, else ../lib/kzv/KZVDropboxFS.bundle beside the program. Blocks.
  bool load(NSErrorRef* error);

  /// The linked accounts in the order of linking, as far as they could be read (see accountsError). Waits,
  /// bounded, until the plug-in has asked for their names.
  std::vector<Account> accounts();
  /// Why there may be more linked accounts than are known; empty when all are known.
  NSErrorRef accountsError() const;
  /// The account with this id, once its name is known or the wait is over.
  Account accountNamed(const std::string& accountId);
  /// Waits until the account's name is known, at most `limit`.
  void waitForName(const std::string& accountId, std::chrono::seconds limit);
  /// The account that `wanted` (an id, else a label) names; without it the only one. Else nothing, with an
  /// error that lists what there is. Waits for names only when it needs them.
  std::optional<std::string> chooseAccount(const std::optional<std::string>& wanted, NSErrorRef* error);

  /// The interface for linking and unlinking, or null with an error when the plug-in has none.
  FSPluginAccounts* accountsInterface(NSErrorRef* error);

  /// The ids of the linked accounts in the order of linking. Does not wait.
  std::vector<std::string> linkedIds() const;
  /// The account's name, as far as it is known by now, else its id. Does not wait.
  std::string labelOf(const std::string& accountId) const;

  /// The chosen account's volume, opened and attached to the host by its first user. Null with an error.
  std::shared_ptr<FSPlugin> openVolume(const std::optional<std::string>& wanted, NSErrorRef* error);
  /// Whether the account of the volume that was opened last is still linked. Does not wait.
  bool isVolumeLinked() const;
  /// Watches the root of each volume that is opened from now on, for as long as it is open: what its cache
  /// holds then follows other devices within seconds. For commands that keep volumes open (shell, mount).
  void watchVolumes() { watchesVolumes_ = true; }
  /// Why an operation gave neither a result nor an error: the account is gone, or else the item.
  NSErrorRef reasonForNothing();
  /// Releases the volumes, waits (bounded) for work begun in the background when an account was unlinked, and
  /// removes temporary folders. The last thing before the process leaves.
  void close();
  /// An account was unlinked: its volume goes, and close() must wait for the revocation of its token.
  void noteUnlink();

 private:
  std::vector<Account> rootItems() const;
  std::vector<Account> knownAccounts() const;
  void closeUnlinkedVolumes();
  template <class Condition>
  void waitForNames(Condition isEnough, std::chrono::seconds limit);

  FSPluginClass* plugin_ = nullptr;                           // set by load()
  std::map<std::string, std::shared_ptr<FSPlugin>> volumes_;  // by the account's id
  std::string volumeId_;                                      // of the volume opened last
  bool hasUnlinked_ = false;
  bool watchesVolumes_ = false;

  std::mutex mutex_;
  std::condition_variable refreshed_;
  int refreshes_ = 0;  // guarded by mutex_
};

}  // namespace kzv::cli
