#pragma once
#include <string_view>

/// Posted on the main queue when the person turns to the application again, for instance after having been
/// sent to the browser. A host without windows posts it when it can tell by other means: a key was pressed,
/// the browser has come back.
inline constexpr std::string_view NSApplicationDidBecomeActiveNotification =
    "NSApplicationDidBecomeActiveNotification";
