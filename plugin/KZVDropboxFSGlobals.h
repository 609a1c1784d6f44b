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

/// The module-wide values of the plug-in: made on first use, safely for any number of threads at once, and
/// never destroyed, since threads use them to the end.

/// The KZVFSType of this plug-in's root items.
inline constexpr std::string_view KZVFSTypeDropbox = "KZVFSTypeDropbox";

/// Account id -> text shown to the user.
using UserList = std::map<std::string, std::string>;

/// The application's key and secret at the service. A key of one's own comes from KZV_APP_KEY and then has no
/// secret: sign-in needs none.
const std::string& KZVDropboxFSAppKey();
const std::string& KZVDropboxFSAppSecret();

/// The account that the desktop client on this machine is linked to; absent when unknown.
Guarded<std::optional<std::string>>& KZVDropboxFSDesktopUserID();
/// The desktop client's local folder; absent when there is none. Set during start-up only.
Guarded<std::optional<std::string>>& KZVDropboxFSDesktopPath();

/// Written by the account-list refresh under synced(KZVDropboxFSUserListLock()), under which all but label()
/// read it.
Guarded<UserList>& KZVDropboxFSUserList();
const NSObject& KZVDropboxFSUserListLock();

/// Account-list refreshes, one at a time.
DispatchQueue& KZVDropboxQueue();

/// The plug-in's settings; its one key is "KZVDropboxFSDesktopUserID".
const std::shared_ptr<NSUserDefaults>& KZVDropboxUserDefaults();
inline constexpr const char* KZVDropboxFSDesktopUserIDKey = "KZVDropboxFSDesktopUserID";

/// Whether the service can be reached; empty before start-up.
Guarded<std::shared_ptr<Reachability>>& KZVDropboxReachability();

/// The service thread; empty until it has published itself.
Guarded<std::shared_ptr<NSThread>>& dropboxOperationsThread();

/// Seconds between two polls of the change feed: 30, or KZV_POLL_SECONDS (at least 0.05) for those who want
/// it otherwise.
double deltaUpdateInterval();
/// Whether a request may wait at the service for the next change of a watched account. KZV_LONG_POLL=0 says
/// no.
bool longPollIsEnabled();
