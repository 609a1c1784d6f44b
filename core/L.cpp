#include "core/L.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>

#include <fmt/format.h>

#include "core/DLog.h"
#include "core/StringsFile.h"
#include "foundation/NSBundle.h"
#include "foundation/NSFileManager.h"

namespace {

StringsTable readTable(const NSBundle& bundle, const std::string& language) {
  const std::string path = bundle.pathForResource("Localizable.strings", language + ".lproj");
  if (path.empty()) return {};
  constexpr std::uint64_t limitBytes = 4'000'000;
  NSErrorRef error;
  const auto text = readFile(path, limitBytes, &error);
  if (!text) {
    DLogWarning(error ? error->localizedDescription() : path, "L");
    return {};
  }
  std::vector<std::size_t> problems;
  StringsTable table = parseStringsFile(*text, &problems);
  for (const std::size_t line : problems)
    DLogWarning(fmt::format("{}:{}: malformed entry left out", path, line), "L");
  return table;
}

/// The strings files read so far. A bundle that is loaded later is read when its turn comes.
class Texts {
 public:
  std::string find(std::string_view key) {
    const auto bundles = NSBundle::loadedBundles();
    const std::lock_guard lock(mutex_);
    for (const std::string& language : languages_) {
      for (const auto& bundle : bundles) {
        const StringsTable& table = tableFor(*bundle, language);
        if (const auto found = table.find(key); found != table.end()) return found->second;
      }
    }
    return std::string(key);
  }

 private:
  const StringsTable& tableFor(const NSBundle& bundle, const std::string& language) {
    auto place = std::make_pair(bundle.bundlePath(), language);
    const auto known = tables_.find(place);
    if (known != tables_.end()) return known->second;
    return tables_.emplace(std::move(place), readTable(bundle, language)).first->second;
  }

  const std::vector<std::string> languages_ =
      languagesFromEnvironment(std::getenv("LC_ALL"), std::getenv("LC_MESSAGES"), std::getenv("LANG"));
  std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, StringsTable> tables_;  // guarded by mutex_
};

}  // namespace

std::string L(std::string_view key) {
  static auto& texts = *new Texts;
  return texts.find(key);
}
