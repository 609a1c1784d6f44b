#include "plugin/KZVDropboxFS.h"

#include "core/KZVConstants.h"
#include "core/KZVCoreObj.h"
#include "core/L.h"
#include "core/synced.h"
#include "foundation/Fatal.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSString.h"
#include "plugin/KZVDropboxFSGlobals.h"

std::shared_ptr<NSArray> KZVDropboxFS::availableRootItems() {
  const UserList users = synced(KZVDropboxFSUserListLock(), [] { return KZVDropboxFSUserList().get(); });
  std::vector<id> items;
  items.reserve(users.size());
  for (const auto& [userId, text] : users) {
    items.push_back(NSDictionary::with({{KZVFSLabel, str(text)},
                                        {KZVFSType, str(std::string(KZVFSTypeDropbox))},
                                        {KZVFSClassName, str("KZVDropboxFS")},
                                        {KZVFSOptions, str(userId)},
                                        {KZVFSIcon, NSImage::imageNamed("dropboxcontextmenu")}}));
  }
  return std::make_shared<NSArray>(std::move(items));
}

std::string KZVDropboxFS::fsDescription() { return L("KZVDropboxFS.description"); }

std::shared_ptr<FSPlugin> KZVDropboxFS::makePlugin(const std::shared_ptr<FSItem>& item, const id& options) {
  const std::string* userId = textOf(options);
  if (!userId) return nullptr;
  if (!required(DBSession::sharedSession(), "a shared session is installed")->hasUserId(*userId))
    return nullptr;
  for (const auto& attached : KZVCoreObj::shared().attachedPlugins()) {
    const id attachedOptions = attached->options();
    if (const std::string* text = textOf(attachedOptions); text && *text == *userId) return attached;
  }
  return std::make_shared<KZVDropboxFS>(item, options);
}

KZVDropboxFS::KZVDropboxFS(const std::shared_ptr<FSItem>& /*item*/, const id& options)
    : cachedThumbs_(std::make_shared<ThumbnailCache>()), cache_(std::make_shared<KZVSmartCache>()) {
  if (const std::string* text = textOf(options)) {
    userId_ = *text;
    manager_ = KZVDropboxFileManager::initWithUserId(*text);
  }
}

KZVDropboxFS::~KZVDropboxFS() {
  if (const auto folder = tmpFolderUrl_.get()) NSFileManager::defaultManager().removeItemAtURL(*folder);
}

id KZVDropboxFS::options() const { return userId_ ? str(*userId_) : nullptr; }

// Without the list's lock, on purpose: labels are needed while a panel is drawn, and may be one refresh old.
std::string KZVDropboxFS::label() const {
  const UserList users = KZVDropboxFSUserList().get();
  const auto found = users.find(userId_.value_or(""));
  return found == users.end() ? "Unknown" : found->second;
}

bool KZVDropboxFS::isFSAvailable() const {
  const bool isListed = synced(KZVDropboxFSUserListLock(), [&] {
    return userId_ &&
           KZVDropboxFSUserList().update([&](const UserList& users) { return users.contains(*userId_); });
  });
  const auto monitor = required(KZVDropboxReachability().get(), "the reachability monitor exists");
  return monitor->currentReachabilityStatus() != NetworkStatus::notReachable && isListed;
}

std::size_t KZVDropboxFS::hash() const { return std::hash<std::string>{}(requiredUserId()); }

bool KZVDropboxFS::isEqual(const NSObject& other) const {
  const auto* instance = as<KZVDropboxFS>(&other);
  if (!instance) return FSPlugin::isEqual(other);
  return userId_ && instance->userId_ && *userId_ == *instance->userId_;
}

std::vector<std::shared_ptr<KZVDropboxFS>> KZVDropboxFS::attachedInstances(const std::string& userId) {
  std::vector<std::shared_ptr<KZVDropboxFS>> instances;
  for (const auto& plugin : KZVCoreObj::shared().attachedPlugins()) {
    auto instance = as<KZVDropboxFS>(plugin);
    if (instance && instance->requiredUserId() == userId) instances.push_back(std::move(instance));
  }
  return instances;
}

const std::string& KZVDropboxFS::requiredUserId() const {
  if (!userId_) fatalInvariant("an instance must have an account");
  return *userId_;
}

KZVDropboxFileManager& KZVDropboxFS::requiredManager() const {
  if (!manager_) fatalInvariant("an instance must have a file manager");
  return *manager_;
}
