#pragma once
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "core/KZVCoreObj.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/KZVDropboxFSClass.h"
#include "testing/StandIn.h"
#include "testing/TemporaryFolder.h"

/// The plug-in in this process with Ada's account linked, against a stand-in that peers use, too. One per
/// program; the change feed is polled so rarely that only what is measured makes requests.
class Account {
 public:
  static Account& shared() {
    static Account account;
    return account;
  }
  /// A volume with empty caches.
  std::shared_ptr<KZVDropboxFS> coldInstance() const { return std::make_shared<KZVDropboxFS>(nullptr, id_); }
  /// The same, ready to cache what is fetched: nothing is kept before the change feed's first cursor.
  std::shared_ptr<KZVDropboxFS> cachingInstance() const {
    auto instance = coldInstance();
    instance->pollForChanges();
    return instance;
  }
  std::shared_ptr<KZVDropboxFileManager> coldManager() const {
    return KZVDropboxFileManager::initWithUserId(*textOf(id_));
  }
  StandIn& standIn() { return standIn_; }
  const std::string& folder() const { return home_.path(); }

 private:
  Account() {
    setenv("KZV_HOME", home_.path().c_str(), 1);
    setenv("KZV_TOKEN_STORE", "file", 1);
    setenv("KZV_SERVICE_URL", standIn_.url().c_str(), 1);
    setenv("KZV_POLL_SECONDS", "3600", 1);
    KZVDropboxFSClass::shared().initialize();
    const auto userId = KZVDropboxFSClass::shared().linkAccountWithToken("ada-token", nullptr);
    if (!userId) throw std::runtime_error("cannot link the account");
    id_ = str(*userId);
  }

  TemporaryFolder home_;
  StandIn standIn_;
  id id_;
};

inline void check(bool holds) {
  if (!holds) throw std::runtime_error("the benchmark did not do what it measures");
}
