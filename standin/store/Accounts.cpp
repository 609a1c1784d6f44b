#include "standin/store/Accounts.h"

#include <algorithm>
#include <mutex>

#include <fmt/format.h>

#include "standin/Encoding.h"
#include "standin/store/Tree.h"

namespace kzv::standin {
namespace {

constexpr std::int64_t kDefaultQuotaBytes = 2147483648;
constexpr std::int64_t kFirstNamespace = 4711000;
// Root namespaces of teams; far from the home namespaces, which count up from kFirstNamespace.
constexpr std::int64_t kTeamNamespaceOffset = 1000000;

// Derived from the address, so that a seeded account has the same id in every run.
std::string accountIdFor(const std::string& email) {
  return "dbid:AAA" + base64UrlEncode(sha256("account " + email)).substr(0, 32);
}

}  // namespace

Accounts::Accounts(Store& store) : store_(store) { reload(); }

void Accounts::reload() {
  std::vector<Account> accounts;
  {
    Store::Reader reader(store_);
    auto row = reader.database().query(
        "SELECT id, account_id, name, email, tree, home_ns, root_ns, home_path, team FROM accounts ORDER BY "
        "id");
    while (row.step()) {
      const std::string home(row.text(7));
      accounts.push_back({row.integer(0),
                          std::string(row.text(1)),
                          std::string(row.text(2)),
                          std::string(row.text(3)),
                          row.integer(4),
                          row.integer(5),
                          row.integer(6),
                          {home, lowerCased(home)},
                          row.integer(8) != 0});
    }
  }
  const std::unique_lock<std::shared_mutex> lock(mutex_);
  accounts_ = std::move(accounts);
}

Account Accounts::findOrAdd(const std::string& name, const std::string& email, bool* created) {
  {
    Store::Writer writer(store_);
    Database& database = writer.database();
    database.execute(
        "INSERT OR IGNORE INTO accounts(id, account_id, name, email, tree, home_ns, root_ns, home_path, "
        "quota)"
        " SELECT n, ?1, ?2, ?3, n, n+?4, n+?4, '', ?5 FROM (SELECT coalesce(max(id), 0)+1 AS n FROM "
        "accounts)",
        accountIdFor(email), name, email, kFirstNamespace, kDefaultQuotaBytes);
    if (created) *created = database.changes() > 0;
    writer.commit();
  }
  reload();
  return *byEmail(email);
}

std::optional<Account> Accounts::byId(std::int64_t id) const {
  const std::shared_lock<std::shared_mutex> lock(mutex_);
  const auto found =
      std::find_if(accounts_.begin(), accounts_.end(), [&](const Account& a) { return a.id == id; });
  if (found == accounts_.end()) return std::nullopt;
  return *found;
}

std::optional<Account> Accounts::byEmail(std::string_view email) const {
  const std::shared_lock<std::shared_mutex> lock(mutex_);
  const auto found =
      std::find_if(accounts_.begin(), accounts_.end(), [&](const Account& a) { return a.email == email; });
  if (found == accounts_.end()) return std::nullopt;
  return *found;
}

std::vector<Account> Accounts::all() const {
  const std::shared_lock<std::shared_mutex> lock(mutex_);
  return accounts_;
}

Space Accounts::space(Database& database, std::int64_t tree) {
  auto row = database.query("SELECT used, quota FROM accounts WHERE tree=?1", tree);
  if (!row.step()) return {};
  return {row.integer(0), row.integer(1)};
}

void Accounts::setQuota(std::int64_t account, std::int64_t bytes) {
  Store::Writer writer(store_);
  writer.database().execute("UPDATE accounts SET quota=?2 WHERE id=?1", account, bytes);
  writer.commit();
}

void Accounts::setTeamForm(std::int64_t account, bool isTeam) {
  {
    Store::Writer writer(store_);
    writer.database().execute("UPDATE accounts SET team=?2 WHERE id=?1", account,
                              static_cast<std::int64_t>(isTeam));
    writer.commit();
  }
  reload();
}

void Accounts::moveIntoTeamRoot(std::int64_t account) {
  const auto found = byId(account);
  if (!found || !found->home.isRoot()) return;
  {
    Store::Writer writer(store_);
    Database& database = writer.database();
    TreeEditor editor(writer, found->tree);
    NormalPath home{"/" + found->name, lowerCased("/" + found->name)};
    std::vector<Entry> children;
    Scope root{editor.tree().rootId(), "", false};
    ListPosition position;
    editor.tree().list(root, position, 1U << 30,
                       {[&](const EntryView& view) { children.emplace_back(view); }, {}});
    while (editor.tree().find(home.lower)) home = {home.display + " Home", home.lower + " home"};
    const auto folder = editor.ensureFolder(home);
    for (const Entry& child : children) {
      const std::string name(nameOf(child.display()));
      editor.move(child, {home.display + "/" + name, home.lower + "/" + lowerCased(name)}, *folder);
    }
    database.execute("UPDATE accounts SET team=1, home_path=?2, root_ns=home_ns+?3 WHERE id=?1", account,
                     home.display, kTeamNamespaceOffset);
    writer.commit();
  }
  reload();
}

}  // namespace kzv::standin
