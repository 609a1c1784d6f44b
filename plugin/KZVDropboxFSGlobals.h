#pragma once
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/DispatchQueue.h"
#include "foundation/Guarded.h"
#include "foundation/NSThread.h"
#include "foundation/NSUserDefaults.h"
#include "foundation/Reachability.h"

/// The module-wide values of the plug-in. Created on first use, from any thread, and never destroyed, since
/// threads use them to the end.

/// The KZVFSType of this plug-in's root items.
inline constexpr std::string_view KZVFSTypeDropbox = "KZVFSTypeDropbox";

/// Account id -> text shown to the user.
using UserList = std::map<std::string, std::string>;

/// The application's key and secret at the service. A key from KZV_APP_KEY has no secret: sign-in needs none.
const std::string& KZVDropboxFSAppKey();
const std::string& KZVDropboxFSAppSecret();

/// The id of the account that this machine's desktop client is linked to; absent if unknown.
Guarded<std::optional<std::string>>& KZVDropboxFSDesktopUserID();
/// The desktop client's local folder; absent when there is none. Set during start-up only.
Guarded<std::optional<std::string>>& KZVDropboxFSDesktopPath();

/// Written by the account-list refresh, read by all but label() under synced(KZVDropboxFSUserListLock()).
Guarded<UserList>& KZVDropboxFSUserList();
const NSObject& KZVDropboxFSUserListLock();

/// The queue of account-list refreshes, run one at a time.
DispatchQueue& KZVDropboxQueue();

/// The plug-in's settings; its one key is "KZVDropboxFSDesktopUserID".
const std::shared_ptr<NSUserDefaults>& KZVDropboxUserDefaults();
inline constexpr const char* KZVDropboxFSDesktopUserIDKey = "KZVDropboxFSDesktopUserID";

/// Whether the service can be reached; empty before start-up.
Guarded<std::shared_ptr<Reachability>>& KZVDropboxReachability();

/// The service thread; empty until it runs.
Guarded<std::shared_ptr<NSThread>>& dropboxOperationsThread();

/// Seconds between two polls of the change feed: 30, or KZV_POLL_SECONDS (0.05 to 86400).
double deltaUpdateInterval();
/// Whether watched accounts use long polls; KZV_LONG_POLL=0 turns them off.
bool longPollIsEnabled();
