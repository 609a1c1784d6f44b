#pragma once
#include <string>
#include <utility>

#include "foundation/NSObject.h"

/// A link to a file or folder and who can open it. Immutable, so any thread may use it.
class DBSharedLink final : public NSObject {
 public:
  DBSharedLink(std::string url, std::string audience)
      : url_(std::move(url)), audience_(std::move(audience)) {}

  const std::string& url() const noexcept { return url_; }
  /// The service's name for it: "public" (anybody), "team_only", "password" and others; empty if unknown.
  const std::string& audience() const noexcept { return audience_; }

 private:
  const std::string url_;
  const std::string audience_;
};
