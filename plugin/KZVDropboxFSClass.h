#pragma once
#include "core/FSPlugin.h"
#include "sdk/DBSession.h"

/// The static members of KZVDropboxFS as an object: for the host, as the session's delegate and as an
/// observer of notifications. One per process, never destroyed. Threads and blocking as in KZVDropboxFS.
class KZVDropboxFSClass final : public FSPluginClass, public FSPluginAccounts, public DBSessionDelegate {
 public:
  static KZVDropboxFSClass& shared();

  std::string className() const override { return "KZVDropboxFS"; }
  NSErrorRef settingsProblem() const override;
  void initialize() override;
  std::string fsDescription() const override;
  std::shared_ptr<NSArray> availableRootItems() const override;
  std::shared_ptr<FSPlugin> makePlugin(const std::shared_ptr<FSItem>& item, const id& options) override;

  FSPluginAccounts* accounts() override { return this; }
  std::vector<std::string> linkedAccountIds() const override;
  NSErrorRef accountsError() const override;
  std::optional<std::string> linkAccountWithToken(const std::string& token, NSErrorRef* error) override;
  bool linkAccount(LinkingAnswer answer) override;
  void cancelLinking() override;
  bool useAuthorizationCode(const std::string& code) override;
  std::optional<std::string> desktopFolder() const override;
  std::optional<std::string> desktopAccountId() const override;
  bool setDesktopAccountId(const std::string& accountId, NSErrorRef* error) override;
  std::optional<AccountDetails> accountDetails(const std::string& accountId, NSErrorRef* error) override;
  std::optional<PublicLink> publicLink(const std::string& path, NSErrorRef* error) override;
  std::optional<std::string> existingLink(const std::string& path, NSErrorRef* error) override;
  bool unlinkAccount(const std::string& accountId, NSErrorRef* error) override;
  void finishBackgroundWork(double seconds) override;

  void sessionDidReceiveAuthorizationFailure(DBSession& session, const std::string& userId) override;

 private:
  KZVDropboxFSClass() = default;
};
