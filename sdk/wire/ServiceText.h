#pragma once
#include <string>
#include <string_view>

namespace kzv::sdk {

/// A text of the service (a message, a name, an error's summary), made fit to be shown: at most 300
/// characters; control characters, also those that change the direction of writing, and what is not UTF-8
/// become blanks; what might be a token becomes "***". Every text of the service goes through here before it
/// gets into an error or in front of a person. Names of files are data and do not.
std::string serviceText(std::string_view text);

}  // namespace kzv::sdk
