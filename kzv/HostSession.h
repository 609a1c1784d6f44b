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

/// One account as it is shown to the person.
struct Account {
  std::string id;
  std::string label;  // the id while the name is unknown
  bool isNamed = false;
  bool isAvailable = false;
};

/// The loaded plug-in and the volumes that commands use, each opened once. Construct it and call load() on
/// the main thread, everything else on the thread that runs the command, while the main thread runs its run
/// loop, where changes of the account list are posted.
class HostSession {
 public:
  HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;
  ~HostSession();

  /// Loads the bundle: KZV_BUNDLE, else ../lib/kzv/KZVDropboxFS.bundle relative to the program. Blocks.
  bool load(NSErrorRef* error);

  /// The linked accounts in the order of linking, as far as they could be read (see accountsError). Blocks up
  /// to 10 s until the plug-in has fetched their names.
  std::vector<Account> accounts();
  /// Why some linked accounts could not be read; null when all were.
  NSErrorRef accountsError() const;
  /// The account with this id. Blocks up to 10 s until its name is known.
  Account accountNamed(const std::string& accountId);
  /// Blocks until the account's name is known, at most for `limit`.
  void waitForName(const std::string& accountId, std::chrono::seconds limit);
  /// The id of the account that `wanted` names (an id, else a label); without `wanted`, of the only one.
  /// Otherwise nothing, with an error that lists the accounts. Blocks for names only if it needs them.
  std::optional<std::string> chooseAccount(const std::optional<std::string>& wanted, NSErrorRef* error);

  /// The interface for linking and unlinking; null with an error when the plug-in has none.
  FSPluginAccounts* accountsInterface(NSErrorRef* error);

  /// The ids of the linked accounts in the order of linking. Does not block.
  std::vector<std::string> linkedIds() const;
  /// The account's name, or its id while the name is unknown. Does not block.
  std::string labelOf(const std::string& accountId) const;

  /// The chosen account's volume, opened and attached to the host at first use. Null with an error.
  std::shared_ptr<FSPlugin> openVolume(const std::optional<std::string>& wanted, NSErrorRef* error);
  /// Whether the account of the volume opened last is still linked. Does not block.
  bool isVolumeLinked() const;
  /// Watches the root of each volume opened from now on, while it is open, so that its cache follows other
  /// devices within seconds. For commands that keep volumes open (shell, mount).
  void watchVolumes() { watchesVolumes_ = true; }
  /// The error for an operation that returned neither a result nor an error: the account is no longer linked,
  /// or the item does not exist.
  NSErrorRef missingError();
  /// Releases the volumes, waits up to 3 s for background work after an account was unlinked, and removes
  /// temporary folders. Called last, before the process exits.
  void close();
  /// An account was unlinked: closes its volume, and close() will wait for its token's revocation.
  void noteUnlink();

 private:
  std::vector<Account> rootItems() const;
  std::vector<Account> knownAccounts() const;
  void closeUnlinkedVolumes();
  template <class Condition>
  void waitForNames(Condition isEnough, std::chrono::seconds limit);

  FSPluginClass* plugin_ = nullptr;                           // set by load()
  std::map<std::string, std::shared_ptr<FSPlugin>> volumes_;  // by the account's id
  std::string volumeId_;                                      // account of the volume opened last
  bool hasUnlinked_ = false;
  bool watchesVolumes_ = false;

  std::mutex mutex_;
  std::condition_variable refreshed_;
  int refreshes_ = 0;  // guarded by mutex_
};

}  // namespace kzv::cli
