#pragma once

#include <cstdint>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "service/Paths.h"
#include "service/Store.h"

namespace kzv::service {

/// A person with a tree of files.
struct Account {
  std::int64_t id = 0;
  /// 40 characters, begins "dbid:".
  std::string accountId;
  std::string name;
  std::string email;
  /// Number of the tree in the store.
  std::int64_t tree = 0;
  /// Namespace numbers of the public interface. Equal for a personal account.
  std::int64_t homeNamespace = 0;
  std::int64_t rootNamespace = 0;
  /// Where the home lies in a shared team root; the root "" for a personal account.
  NormalPath home;
  /// Space is reported in the form of a team's.
  bool isTeam = false;
};

/// The root that the paths of one request are relative to: a tree, and a folder in it that the request takes
/// for "/".
struct PathRoot {
  std::int64_t tree = 0;
  std::int64_t namespaceId = 0;
  NormalPath base;

  NormalPath toTree(const NormalPath& path) const {
    return {base.display + path.display, base.lower + path.lower};
  }
  std::string_view fromTree(std::string_view path) const { return path.substr(base.lower.size()); }
  /// For display forms, whose length may differ from the key's.
  std::string_view displayFromTree(std::string_view path) const { return path.substr(base.display.size()); }
};

struct Space {
  std::int64_t usedBytes = 0;
  std::int64_t quotaBytes = 0;
};

/// All accounts of the stand-in. Thread-safe. Errors: DatabaseError.
class Accounts {
 public:
  explicit Accounts(Store& store);

  /// An account, found by its e-mail address or made. `created` tells which.
  Account findOrAdd(const std::string& name, const std::string& email, bool* created = nullptr);
  std::optional<Account> byId(std::int64_t id) const;
  std::optional<Account> byEmail(std::string_view email) const;
  /// In the order they were made.
  std::vector<Account> all() const;

  static Space space(Database& database, std::int64_t tree);
  void setQuota(std::int64_t account, std::int64_t bytes);
  void setTeamForm(std::int64_t account, bool isTeam);
  /// Gives the account a team's shared root, in which its present home becomes a folder.
  void moveIntoTeamRoot(std::int64_t account);

 private:
  void reload();

  Store& store_;
  mutable std::shared_mutex mutex_;
  std::vector<Account> accounts_;  // guarded by mutex_
};

}  // namespace kzv::service
