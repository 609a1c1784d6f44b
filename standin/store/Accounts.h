#pragma once

#include <cstdint>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "standin/store/NormalPath.h"
#include "standin/store/Store.h"

namespace kzv::standin {

/// An account and the tree of its files.
struct Account {
  std::int64_t id = 0;
  /// 40 characters, beginning with "dbid:".
  std::string accountId;
  std::string name;
  std::string email;
  /// Number of the tree in the store.
  std::int64_t tree = 0;
  /// Namespace numbers of the API; equal for a personal account.
  std::int64_t homeNamespace = 0;
  std::int64_t rootNamespace = 0;
  /// The home folder's path in a shared team root; "" for a personal account.
  NormalPath home;
  /// get_space_usage reports the team's allocation.
  bool isTeam = false;
};

/// The root of a request's paths: a tree, and the folder in it that is the request's "/".
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

  /// Finds the account by its e-mail address, or creates it and sets `created`.
  Account findOrAdd(const std::string& name, const std::string& email, bool* created = nullptr);
  std::optional<Account> byId(std::int64_t id) const;
  std::optional<Account> byEmail(std::string_view email) const;
  /// In order of creation.
  std::vector<Account> all() const;

  static Space space(Database& database, std::int64_t tree);
  void setQuota(std::int64_t account, std::int64_t bytes);
  void setTeamForm(std::int64_t account, bool isTeam);
  /// Gives the account a team's shared root, in which its current home becomes a folder.
  void moveIntoTeamRoot(std::int64_t account);

 private:
  void reload();

  Store& store_;
  mutable std::shared_mutex mutex_;
  std::vector<Account> accounts_;  // guarded by mutex_
};

}  // namespace kzv::standin
