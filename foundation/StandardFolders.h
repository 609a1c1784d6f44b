#pragma once
#include <string>

/// This program's own folders, as absolute paths without a trailing slash. With KZV_HOME set they are its
/// subfolders config, data, cache and state (a relative KZV_HOME is resolved against the current folder),
/// else "kzv" in the user's XDG folders (freedesktop.org Base Directory rules). Creates nothing. Any thread,
/// as long as the environment does not change meanwhile.
std::string configFolder();
std::string dataFolder();
std::string cacheFolder();
std::string stateFolder();
/// The user's home: $HOME, else the password database's entry.
std::string homeFolder();
/// `path` with a leading "~" or "~/" replaced by the home folder.
std::string expandingTilde(const std::string& path);
