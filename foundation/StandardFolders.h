#pragma once
#include <string>

/// Where this program keeps what it stores, as absolute paths without a trailing slash. With KZV_HOME set
/// everything lies under that folder (config, data, cache, state; a relative one counts from the current
/// folder), else in the user's XDG folders below "kzv" (freedesktop.org Base Directory rules). Nothing is
/// created here. Any thread, as long as nobody changes the environment meanwhile.
std::string configFolder();
std::string dataFolder();
std::string cacheFolder();
std::string stateFolder();
/// The user's home: $HOME, else the password file's entry.
std::string homeFolder();
/// `path` with a leading "~" or "~/" replaced by the home folder.
std::string expandingTilde(const std::string& path);
