#include "foundation/Fatal.h"
#include "fsops/ServiceErrors.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/KZVDropboxFSGlobals.h"
#include "support/KZVDropboxFSSupport.h"

std::optional<std::string> KZVDropboxFS::dropboxPublic(const std::string& path, NSErrorRef* error) {
  const auto link = publicLink(path, error);
  return link ? std::optional(link->url) : std::nullopt;
}

std::optional<PublicLink> KZVDropboxFS::publicLink(const std::string& path, NSErrorRef* error) {
  const auto desktopUser = KZVDropboxFSDesktopUserID().get();
  if (!desktopUser) return std::nullopt;
  const auto manager = KZVDropboxFileManager::initWithUserId(*desktopUser);
  const auto link = manager->sharedLink(path, ServiceErrors(error));
  KZVDropboxFSSupport::performBlockInBackgroundAndWait(
      [&] { manager->mainClient->cancelAllRequests(); },
      *required(KZVDropboxFileManager::dropboxThread(), "the service thread runs"));
  return link ? std::optional(PublicLink{link->url(), link->audience()}) : std::nullopt;
}

std::optional<std::string> KZVDropboxFS::existingLink(const std::string& path, NSErrorRef* error) {
  const auto desktopUser = KZVDropboxFSDesktopUserID().get();
  if (!desktopUser) return std::nullopt;
  return KZVDropboxFileManager::initWithUserId(*desktopUser)->existingLink(path, ServiceErrors(error));
}
