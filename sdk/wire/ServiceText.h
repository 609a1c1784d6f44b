#pragma once
#include <string>
#include <string_view>

namespace kzv::sdk {

/// A text from the service (a message, a name, an error's summary), made safe to show: at most 300
/// characters; control characters, also those that change the writing direction, and invalid UTF-8 become
/// blanks; possible tokens become "***". Every text from the service must pass through here before it is put
/// into an error or shown. File names are data and do not.
std::string serviceText(std::string_view text);

}  // namespace kzv::sdk
