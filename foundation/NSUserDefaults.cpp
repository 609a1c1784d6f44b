#include "foundation/NSUserDefaults.h"

#include <cerrno>
#include <chrono>
#include <cstdio>

#include <fmt/format.h>
#include <glib.h>
#include <unistd.h>

#include "foundation/Fatal.h"
#include "foundation/FileLock.h"
#include "foundation/NSDate.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/PrivateFiles.h"
#include "foundation/StandardFolders.h"
#include "foundation/Unicode.h"

namespace {

constexpr std::uint64_t maxFileBytes = 1'000'000;

using Variant = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

bool isVariantText(const std::string& text) {
  return isValidUtf8(text) && text.find('\0') == std::string::npos;
}

/// A variant's text must be UTF-8 without NUL; any other is stored as a byte array.
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

/// Renames a damaged file to an unused name. REQUIRES the suite's lock: otherwise another process might have
/// replaced the file meanwhile.
bool moveAside(const std::string& path) {
  constexpr int maxDamagedFiles = 100;
  for (int number = 1; number <= maxDamagedFiles; ++number) {
    const std::string aside = fmt::format("{}.damaged-{}", path, number);
    if (::access(aside.c_str(), F_OK) == 0) continue;
    if (::rename(path.c_str(), aside.c_str()) != 0) break;
    NSLog(NSLogLevel::warning, "NSUserDefaults", fmt::format("{} is damaged, renamed to {}", path, aside));
    return true;
  }
  NSLog(NSLogLevel::error, "NSUserDefaults", fmt::format("{} is damaged and cannot be renamed", path));
  return false;
}

/// A writer holds the lock for a few milliseconds; one that is stopped while it holds the lock must not block
/// us.
constexpr std::chrono::seconds lockTimeout{5};

/// One lock for all suites of this process, which are few. It also serialises calls of GLib's variants
/// visibly for ThreadSanitizer, which does not see GLib's own locks (futexes).
std::mutex& processMutex() {
  static auto& mutex = *new std::mutex;
  return mutex;
}

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

/// Applies `changes` to `values`; an empty value removes its key.
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

// Needs no lock between processes: writers replace the file atomically.
NSUserDefaults::NSUserDefaults(std::string filePath) : filePath_(std::move(filePath)) {
  const std::lock_guard processLock(processMutex());
  NSErrorRef error;
  if (auto stored = load(Damaged::leave, &error)) {
    values_ = std::move(*stored);
  } else {
    NSLog(NSLogLevel::warning, "NSUserDefaults", error->localizedDescription());
  }
}

std::shared_ptr<NSUserDefaults> NSUserDefaults::initWithSuiteName(const std::string& suiteName) {
  if (suiteName.empty() || suiteName.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
    return nullptr;
  }
  return std::make_shared<NSUserDefaults>(appendingPathComponent(configFolder(), suiteName + ".defaults"));
}

/// The file's values, empty when it is missing or damaged. nullopt when the file must not be replaced,
/// because it could be neither read nor moved aside.
/// @param damaged  whether to move a damaged file aside, which REQUIRES the suite's lock.
std::optional<NSUserDefaults::Values> NSUserDefaults::load(Damaged damaged, NSErrorRef* error) const {
  NSErrorRef reason;
  const auto text = readFile(filePath_, maxFileBytes, &reason);
  if (!text && reason->code() == ENOENT) return Values();
  if (!text && reason->code() != EFBIG) {
    setError(error, reason);
    return std::nullopt;
  }
  auto values = text ? parsed(*text) : std::nullopt;
  if (values) return values;
  if (damaged == Damaged::leave || moveAside(filePath_)) return Values();
  setError(error, NSError::posix(EBADMSG, filePath_));
  return std::nullopt;
}

id NSUserDefaults::objectForKey(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  return found == values_.end() ? nullptr : found->second;
}

void NSUserDefaults::setValue(id value, const std::string& key) {
  if (value && !isStorable(*value)) fatalInvariant("a setting must be a string, number or date");
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

bool NSUserDefaults::synchronize(NSErrorRef* error) {
  NSErrorRef reason;
  if (synchronizeLocked(&reason)) return true;
  NSLog(NSLogLevel::warning, "synchronize", reason->localizedDescription());
  setError(error, reason);
  return false;
}

bool NSUserDefaults::synchronizeLocked(NSErrorRef* error) {
  const std::lock_guard processLock(processMutex());
  if (pendingNow().empty()) {
    auto onDisk = load(Damaged::leave, error);
    if (onDisk) adopt(std::move(*onDisk), {});
    return onDisk.has_value();
  }
  if (!makePrivateFolder(deletingLastPathComponent(filePath_), error)) return false;
  const FileLock lock(lockPath(), lockTimeout);
  if (!lock.isHeld()) {
    setError(error, lock.error());
    return false;
  }
  const Values pending =
      pendingNow();  // read under the lock, so that an older copy is never written after a newer one
  auto merged = load(Damaged::moveAside, error);
  if (!merged) return false;
  applyChanges(pending, *merged);
  if (!writeFileAtomically(filePath_, printed(*merged), 0600, error)) return false;
  adopt(std::move(*merged), pending);
  return true;
}

/// Adopts the values on disk, except for keys that were set again during the write.
void NSUserDefaults::adopt(Values onDisk, const Values& written) {
  const std::lock_guard lock(mutex_);
  std::erase_if(pending_, [&](const auto& entry) {
    const auto found = written.find(entry.first);
    return found != written.end() && found->second == entry.second;
  });
  applyChanges(pending_, onDisk);
  values_ = std::move(onDisk);
}
