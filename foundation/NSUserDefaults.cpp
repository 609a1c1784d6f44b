#include "foundation/NSUserDefaults.h"

#include <chrono>

#include <fmt/format.h>
#include <glib.h>

#include "foundation/NSDate.h"
#include "foundation/NSFileManager.h"
#include "foundation/NSLog.h"
#include "foundation/NSNumber.h"
#include "foundation/NSString.h"
#include "foundation/Paths.h"
#include "foundation/StandardFolders.h"

namespace {

constexpr std::uint64_t maxFileBytes = 1'000'000;

using Variant = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

/// Dates have no GVariant type of their own: (text "date", seconds since 1970).
GVariant* variantFor(const NSObject& value) {
  if (const auto* string = as<NSString>(&value)) return g_variant_new_string(string->text().c_str());
  if (const auto* number = as<NSNumber>(&value)) {
    if (number->origin() == NSNumber::Origin::boolean) return g_variant_new_boolean(number->boolValue());
    if (number->origin() == NSNumber::Origin::integer) return g_variant_new_int64(number->int64Value());
    return g_variant_new_double(number->doubleValue());
  }
  if (const auto* date = as<NSDate>(&value)) {
    const auto seconds = std::chrono::duration<double>(date->time().time_since_epoch()).count();
    return g_variant_new("(sd)", "date", seconds);
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
  if (g_variant_is_of_type(variant, G_VARIANT_TYPE("(sd)"))) {
    double seconds = 0;
    g_variant_get(variant, "(&sd)", nullptr, &seconds);
    const auto sinceEpoch = std::chrono::duration<double>(seconds);
    return std::make_shared<NSDate>(
        NSDate::Time(std::chrono::duration_cast<std::chrono::system_clock::duration>(sinceEpoch)));
  }
  return nullptr;
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

}  // namespace

NSUserDefaults::NSUserDefaults(std::string filePath) : filePath_(std::move(filePath)), values_(load()) {}

std::shared_ptr<NSUserDefaults> NSUserDefaults::initWithSuiteName(const std::string& suiteName) {
  if (suiteName.empty() || suiteName.find('/') != std::string::npos) return nullptr;
  return std::make_shared<NSUserDefaults>(appendingPathComponent(configFolder(), suiteName + ".defaults"));
}

NSUserDefaults::Values NSUserDefaults::load() const {
  const auto text = readFile(filePath_, maxFileBytes);
  if (!text) return {};
  const Variant dictionary(
      g_variant_parse(G_VARIANT_TYPE("a{sv}"), text->data(), text->data() + text->size(), nullptr, nullptr),
      [](GVariant* parsed) {
        if (parsed) g_variant_unref(parsed);
      });
  if (!dictionary) {
    const std::string aside = filePath_ + ".damaged";
    NSLog(NSLogLevel::warning, "NSUserDefaults", fmt::format("{} is damaged, kept as {}", filePath_, aside));
    std::rename(filePath_.c_str(), aside.c_str());
    return {};
  }
  Values values;
  GVariantIter iterator;
  g_variant_iter_init(&iterator, dictionary.get());
  const gchar* key = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_loop(&iterator, "{&sv}", &key, &value)) {
    if (id object = valueFor(value)) values[key] = std::move(object);
  }
  return values;
}

id NSUserDefaults::objectForKey(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  return found == values_.end() ? nullptr : found->second;
}

void NSUserDefaults::setValue(id value, const std::string& key) {
  const std::lock_guard lock(mutex_);
  if (value) {
    values_[key] = value;
  } else {
    values_.erase(key);
  }
  pending_[key] = std::move(value);
}

bool NSUserDefaults::synchronize() {
  const std::lock_guard lock(mutex_);
  Values merged = load();
  for (const auto& [key, value] : pending_) {
    if (value) {
      merged[key] = value;
    } else {
      merged.erase(key);
    }
  }
  if (!pending_.empty()) {
    NSErrorRef error;
    const bool isStored = NSFileManager::defaultManager().createDirectoryAtPath(
                              deletingLastPathComponent(filePath_), true, &error) &&
                          writeFileAtomically(filePath_, printed(merged), 0600, &error);
    if (!isStored) {
      NSLog(NSLogLevel::warning, "synchronize", error->localizedDescription());
      return false;
    }
    pending_.clear();
  }
  values_ = std::move(merged);
  return true;
}
