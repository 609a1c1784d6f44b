// The one place where a file manager reaches up to the plug-in class: for the service thread and the settings
// of polls, and to report changes.
#include "filemanager/KZVDropboxFileManager.h"
#include "foundation/DispatchQueue.h"
#include "plugin/KZVDropboxFS.h"
#include "plugin/KZVDropboxFSGlobals.h"

std::shared_ptr<NSThread> KZVDropboxFileManager::dropboxThread() { return dropboxOperationsThread().get(); }

double KZVDropboxFileManager::deltaInterval() { return deltaUpdateInterval(); }

bool KZVDropboxFileManager::isLongPollEnabled() { return longPollIsEnabled(); }

void KZVDropboxFileManager::reportOwnChanges(Changes changes) {
  for (const std::string& file : changes.files) KZVDropboxFS::_changed_file(file, userId);
  changes.files.clear();
  reportChanges(std::move(changes));
}

void KZVDropboxFileManager::reportChanges(Changes changes) {
  if (changes.folders.empty() && changes.files.empty()) return;
  // In the background: neither the service thread nor a caller may wait for what watchers do.
  DispatchQueue::global().async([accountId = userId, changes = std::move(changes)] {
    for (const std::string& folder : changes.folders) KZVDropboxFS::_changed_folder(folder, accountId);
    for (const std::string& file : changes.files) KZVDropboxFS::_changed_file(file, accountId);
  });
}
