#pragma once
#include <string_view>

/// Posted on the main queue when the user returns to the application, for instance from the browser. A host
/// without windows posts it on other evidence: a key press, or the browser's callback.
inline constexpr std::string_view NSApplicationDidBecomeActiveNotification =
    "NSApplicationDidBecomeActiveNotification";
