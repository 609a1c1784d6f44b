#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "service/Accounts.h"
#include "service/Database.h"
#include "service/ServiceState.h"
#include "service/Tree.h"

namespace kzv::service {

/// A shared link to one item.
struct Link {
  std::int64_t id = 0;
  Account account;
  std::int64_t entry = 0;
  /// Part of the address that nobody can guess.
  std::string token;
  /// "public", "team_only" or "no_one".
  std::string audience;
  std::optional<std::int64_t> expires;
  bool allowDownload = true;
};

/// SharedLinkMetadata. @param entry  the item of the link, or one below it.
std::string linkJson(const ServiceState& state, const Link& link, const Entry& entry);
std::string linkUrl(const Link& link, const Entry& entry);

std::optional<Link> findLinkByUrl(const ServiceState& state, Database& database, const std::string& url);
std::optional<Link> findLink(Database& database, const Account& account, std::int64_t entry);
/// Links of the account with a number above `afterId`, in order of their making.
std::vector<Link> linksAfter(Database& database, const Account& account, std::int64_t afterId,
                             std::size_t limit);

}  // namespace kzv::service
