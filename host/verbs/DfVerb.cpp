#include <CLI/CLI.hpp>
#include <boost/json.hpp>

#include <fmt/format.h>

#include "foundation/NSFileManager.h"
#include "foundation/NSNumber.h"
#include "host/Console.h"
#include "host/Formatting.h"
#include "host/verbs/Verbs.h"

namespace {

class DfVerb final : public Verb {
 public:
  Words words() const override { return {"df", "Show the account's space", "  kzv df\n  kzv --json df"}; }
  void declare(CLI::App& /*command*/) override {}

  void run(VerbContext& context) override {
    const auto volume = context.openVolume();
    if (!volume) return;
    NSErrorRef error;
    const auto attributes = volume->fsAttributes("/", &error);
    if (!attributes) return context.fail("", error);
    const std::int64_t total = bytes(*attributes, NSFileSystemSize);
    const std::int64_t free = bytes(*attributes, NSFileSystemFreeSize);
    if (context.options.json) {
      return context.console.line(
          boost::json::serialize(boost::json::object{{"total", total}, {"free", free}}));
    }
    context.console.line("total  " + shown(total));
    context.console.line("free   " + shown(free));
  }

 private:
  static std::int64_t bytes(const NSDictionary& attributes, std::string_view key) {
    const auto number = as<NSNumber>(attributes.objectForKey(key));
    return number ? number->int64Value() : 0;
  }
  /// Space that is overdrawn has a minus.
  static std::string shown(std::int64_t bytes) {
    const auto magnitude = bytes < 0 ? -static_cast<std::uint64_t>(bytes) : static_cast<std::uint64_t>(bytes);
    return fmt::format("{}{}", bytes < 0 ? "-" : "", byteCount(magnitude));
  }
};

}  // namespace

std::unique_ptr<Verb> makeDfVerb() { return std::make_unique<DfVerb>(); }
