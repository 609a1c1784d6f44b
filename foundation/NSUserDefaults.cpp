#include "foundation/NSUserDefaults.h"

#include <cerrno>
#include <chrono>
#include <cstdio>

#include <fcntl.h>
#include <fmt/format.h>
#include <glib.h>
#include <sys/file.h>
#include <unistd.h>

#include "foundation/Fatal.h"
#include "foundation/NSDate.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/StandardFolders.h"
#include "foundation/Unicode.h"

namespace {

constexpr std::uint64_t maxFileBytes = 1'000'000;

using Variant = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

bool isVariantText(const std::string& text) {
  return isValidUtf8(text) && text.find('\0') == std::string::npos;
}

/// A variant's text is UTF-8 without NUL; any other goes as its bytes.
GVariant* variantForText(const std::string& text) {
  if (isVariantText(text)) return g_variant_new_string(text.c_str());
  return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, text.data(), text.size(), 1);
}

bool isStorable(const NSObject& value) {
  return value.kind() == NSKind::string || value.kind() == NSKind::number || value.kind() == NSKind::date;
}

/// Dates have no GVariant type of their own: (text "date", nanoseconds since 1970).
GVariant* variantFor(const NSObject& value) {
  if (const auto* string = as<NSString>(&value)) return variantForText(string->text());
  if (const auto* number = as<NSNumber>(&value)) {
    if (number->origin() == NSNumber::Origin::boolean) return g_variant_new_boolean(number->boolValue());
    const bool isWhole =
        number->origin() == NSNumber::Origin::integer || number->origin() == NSNumber::Origin::character;
    if (isWhole) return g_variant_new_int64(number->int64Value());
    return g_variant_new_double(number->doubleValue());
  }
  if (const auto* date = as<NSDate>(&value)) {
    const std::int64_t sinceEpoch = std::chrono::nanoseconds(date->time().time_since_epoch()).count();
    return g_variant_new("(sx)", "date", sinceEpoch);
  }
  return nullptr;
}

id valueFor(GVariant* variant) {
  if (g_variant_is_of_type(variant, G_VARIANT_TYPE_STRING))
    return str(g_variant_get_string(variant, nullptr));
  if (g_variant_is_of_type(variant, G_VARIANT_TYPE_BOOLEAN)) {
    return NSNumber::withBool(g_variant_get_boolean(variant) != 0);
  }
  if (g_variant_is_of_type(variant, G_VARIANT_TYPE_INT64))
    return NSNumber::withInt(g_variant_get_int64(variant));
  if (g_variant_is_of_type(variant, G_VARIANT_TYPE_DOUBLE))
    return NSNumber::withDouble(g_variant_get_double(variant));
  if (g_variant_is_of_type(variant, G_VARIANT_TYPE("(sx)"))) {
    gint64 sinceEpoch = 0;
    g_variant_get(variant, "(&sx)", nullptr, &sinceEpoch);
    return std::make_shared<NSDate>(NSDate::Time(std::chrono::nanoseconds(sinceEpoch)));
  }
  if (g_variant_is_of_type(variant, G_VARIANT_TYPE_BYTESTRING)) {
    gsize size = 0;
    const void* bytes = g_variant_get_fixed_array(variant, &size, 1);
    return str(std::string(static_cast<const char*>(bytes), size));
  }
  return nullptr;
}

/// Keeps what cannot be read under a name of its own, so that no later damage replaces it. REQUIRES the
/// suite's lock: else the file might be another's new one by now.
bool keepAside(const std::string& path) {
  constexpr int mostKept = 100;
  for (int number = 1; number <= mostKept; ++number) {
    const std::string aside = fmt::format("{}.damaged-{}", path, number);
    if (::access(aside.c_str(), F_OK) == 0) continue;
    if (::rename(path.c_str(), aside.c_str()) != 0) break;
    NSLog(NSLogLevel::warning, "NSUserDefaults", fmt::format("{} is damaged, kept as {}", path, aside));
    return true;
  }
  NSLog(NSLogLevel::error, "NSUserDefaults", fmt::format("{} is damaged and cannot be kept aside", path));
  return false;
}

/// Held while a suite's file is read and replaced; others wait. In this process a mutex, one for all suites:
/// they are few, and GLib's variants then have one caller at a time, as far as ThreadSanitizer can see
/// (GLib's own locks are futexes, which it cannot). Between processes a lock file: the suite's own is
/// replaced by each write.
class SuiteLock {
 public:
  explicit SuiteLock(const std::string& path)
      : processLock_(processMutex()), file_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    while (file_ >= 0 && ::flock(file_, LOCK_EX) != 0 && errno == EINTR) {
    }
  }
  SuiteLock(const SuiteLock&) = delete;
  SuiteLock& operator=(const SuiteLock&) = delete;
  ~SuiteLock() {
    if (file_ >= 0) ::close(file_);
  }

 private:
  static std::mutex& processMutex() {
    static auto& mutex = *new std::mutex;
    return mutex;
  }

  const std::lock_guard<std::mutex> processLock_;
  const int file_;  // -1 where the folder cannot be written: then nothing will be replaced either
};

std::string printed(const std::map<std::string, id>& values) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}"));
  for (const auto& [key, value] : values) {
    if (GVariant* variant = variantFor(*value)) g_variant_builder_add(&builder, "{sv}", key.c_str(), variant);
  }
  const Variant dictionary(g_variant_ref_sink(g_variant_builder_end(&builder)), &g_variant_unref);
  const std::unique_ptr<gchar, void (*)(gpointer)> text(g_variant_print(dictionary.get(), 1), g_free);
  return std::string(text.get()) + "\n";
}

using StoredValues = std::map<std::string, id>;

std::optional<StoredValues> parsed(std::string_view text) {
  const Variant dictionary(
      g_variant_parse(G_VARIANT_TYPE("a{sv}"), text.data(), text.data() + text.size(), nullptr, nullptr),
      [](GVariant* variant) {
        if (variant) g_variant_unref(variant);
      });
  if (!dictionary) return std::nullopt;
  StoredValues values;
  GVariantIter iterator;
  g_variant_iter_init(&iterator, dictionary.get());
  const gchar* key = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_loop(&iterator, "{&sv}", &key, &value)) {
    if (id object = valueFor(value)) values[key] = std::move(object);
  }
  return values;
}

/// Carries `changes` (an empty value removes) over to `values`.
void applyChanges(const StoredValues& changes, StoredValues& values) {
  for (const auto& [key, value] : changes) {
    if (value) {
      values[key] = value;
    } else {
      values.erase(key);
    }
  }
}

}  // namespace

NSUserDefaults::NSUserDefaults(std::string filePath) : filePath_(std::move(filePath)) {
  const SuiteLock suiteLock(lockPath());
  if (auto stored = load()) values_ = std::move(*stored);
}

std::shared_ptr<NSUserDefaults> NSUserDefaults::initWithSuiteName(const std::string& suiteName) {
  if (suiteName.empty() || suiteName.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
    return nullptr;
  }
  return std::make_shared<NSUserDefaults>(appendingPathComponent(configFolder(), suiteName + ".defaults"));
}

/// What the file holds: nothing in it when it is missing or was damaged and is kept aside; no values at all
/// when a file is there that must not be replaced, because it could be neither read nor kept.
std::optional<NSUserDefaults::Values> NSUserDefaults::load() const {
  NSErrorRef error;
  const auto text = readFile(filePath_, maxFileBytes, &error);
  if (!text && error->code() == ENOENT) return Values();
  if (!text && error->code() != EFBIG) {
    NSLog(NSLogLevel::warning, "NSUserDefaults", error->localizedDescription());
    return std::nullopt;
  }
  auto values = text ? parsed(*text) : std::nullopt;
  if (values) return values;
  return keepAside(filePath_) ? std::optional(Values()) : std::nullopt;
}

id NSUserDefaults::objectForKey(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  return found == values_.end() ? nullptr : found->second;
}

void NSUserDefaults::setValue(id value, const std::string& key) {
  if (value && !isStorable(*value)) fatalInvariant("settings hold strings, numbers and dates");
  if (!isVariantText(key)) {
    NSLog(NSLogLevel::error, "setValue", "a key that is not UTF-8 is not stored");
    return;
  }
  const std::lock_guard lock(mutex_);
  if (value) {
    values_[key] = value;
  } else {
    values_.erase(key);
  }
  pending_[key] = std::move(value);
}

NSUserDefaults::Values NSUserDefaults::pendingNow() const {
  const std::lock_guard lock(mutex_);
  return pending_;
}

bool NSUserDefaults::synchronize() {
  if (!pendingNow().empty()) {
    NSErrorRef error;
    if (!NSFileManager::defaultManager().createDirectoryAtPath(deletingLastPathComponent(filePath_), true,
                                                               &error)) {
      NSLog(NSLogLevel::warning, "synchronize", error->localizedDescription());
      return false;
    }
  }
  const SuiteLock suiteLock(lockPath());
  const Values pending =
      pendingNow();  // under the lock: an older copy must not follow a newer one to the disk
  auto merged = load();
  if (!merged) return false;
  applyChanges(pending, *merged);
  if (!pending.empty() && !store(*merged)) return false;
  adopt(std::move(*merged), pending);
  return true;
}

bool NSUserDefaults::store(const Values& values) const {
  NSErrorRef error;
  if (writeFileAtomically(filePath_, printed(values), 0600, &error)) return true;
  NSLog(NSLogLevel::warning, "synchronize", error->localizedDescription());
  return false;
}

/// Takes over what is on the disk, except for keys that were set again while it was being written.
void NSUserDefaults::adopt(Values onDisk, const Values& written) {
  const std::lock_guard lock(mutex_);
  std::erase_if(pending_, [&](const auto& entry) {
    const auto found = written.find(entry.first);
    return found != written.end() && found->second == entry.second;
  });
  applyChanges(pending_, onDisk);
  values_ = std::move(onDisk);
}
