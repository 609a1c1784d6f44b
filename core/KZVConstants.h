#pragma once
#include <string_view>

/// Keys and values shared by host and plug-ins.

/// Keys of a root item, the dictionary for one file system in the host's list of volumes.
inline constexpr std::string_view KZVFSLabel = "KZVFSLabel";  // text shown to the user
inline constexpr std::string_view KZVFSType = "KZVFSType";    // text, the plug-in's own
inline constexpr std::string_view KZVFSClassName =
    "KZVFSClassName";                                             // the plug-in class that makes instances
inline constexpr std::string_view KZVFSOptions = "KZVFSOptions";  // passed to makePlugin unchanged
inline constexpr std::string_view KZVFSIcon = "KZVFSIcon";        // NSImage

/// Posted on the main queue, without an object, when availableRootItems() may have changed.
inline constexpr std::string_view AttachedPluginsDidChangeNotification =
    "AttachedPluginsDidChangeNotification";

/// Posted on the main queue, without an object, at each step of linking an account in the browser
/// (FSPluginAccounts::linkAccount), with a dictionary of these keys as its user info.
inline constexpr std::string_view KZVAccountLinkingNotification = "KZVAccountLinkingNotification";
inline constexpr std::string_view KZVLinkingErrorKey = "error";      // NSError; only for a step that failed
inline constexpr std::string_view KZVLinkingAccountKey = "account";  // id of the account; only once linked
inline constexpr std::string_view KZVLinkingShouldContinueKey = "shouldContinue";  // boolean: not over yet

/// Domain of the error for a stop by the user; its code is -1.
inline constexpr std::string_view CanceledByUserErrorDomain = "CanceledByUserErrorDomain";
