#pragma once
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/FSPlugin.h"

namespace kzv::cli {

/// A plug-in for tests of the host: its volumes show a folder of the disk, so that a test can prepare it and
/// look at it with other means, also between two runs of the host. What it does is told by the environment:
///
///   KZV_TEST_TREE            the folder that every volume shows
///   KZV_TEST_ACCOUNTS        the linked accounts, "id=Label,id2=Label2"; without "=" the name never comes
///   KZV_TEST_ACCOUNTS_ERROR  why not all accounts could be read (optional)
///   KZV_TEST_EVENTS          a file to which one line is appended per event worth a check (optional)
///
/// and by names of files: see Behaviour in FolderVolume.cpp.
class FolderPlugin final : public FSPluginClass, public FSPluginAccounts {
 public:
  static FolderPlugin& shared();

  void initialize() override;
  std::string fsDescription() const override { return "A folder of the disk"; }
  std::shared_ptr<NSArray> availableRootItems() const override;
  std::shared_ptr<FSPlugin> makePlugin(const std::shared_ptr<FSItem>& item, const id& options) override;

  FSPluginAccounts* accounts() override { return this; }
  std::vector<std::string> linkedAccountIds() const override;
  /// The token "refused" is refused; any other links the account "fresh", whose label is the token's length.
  std::optional<std::string> linkAccountWithToken(const std::string& token, NSErrorRef* error) override;
  /// An account whose id begins with "stuck" is forgotten but cannot be revoked.
  bool unlinkAccount(const std::string& accountId, NSErrorRef* error) override;
  /// What KZV_TEST_ACCOUNTS_ERROR holds.
  NSErrorRef accountsError() const override;
  std::optional<AccountDetails> accountDetails(const std::string& accountId, NSErrorRef* error) override;
  /// The path decides: "/team-only" has such a link, any other item a public one.
  std::optional<PublicLink> publicLink(const std::string& path, NSErrorRef* error) override;
  void finishBackgroundWork(double seconds) override;

  static void noteEvent(const std::string& event);

 private:
  struct TestAccount {
    std::string accountId;
    std::optional<std::string> label;
  };
  /// Names arrive later than the accounts, as with a service that must be asked.
  void refreshLater();

  mutable std::mutex mutex_;
  std::vector<TestAccount> accounts_;  // guarded by mutex_
  bool areNamed_ = false;              // guarded by mutex_
};

}  // namespace kzv::cli
