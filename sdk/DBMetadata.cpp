#include "sdk/DBMetadata.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "foundation/Paths.h"
#include "foundation/Unicode.h"

namespace {

constexpr std::int64_t noDate = std::numeric_limits<std::int64_t>::min();

constexpr std::string_view itemIdPrefix = "id:";

constexpr std::string_view hexDigits = "0123456789abcdef";

std::int64_t unixSeconds(const std::optional<NSDate::Time>& time) {
  if (!time) return noDate;
  return std::chrono::floor<std::chrono::seconds>(*time).time_since_epoch().count();
}

}  // namespace

DBMetadata::DBMetadata(Fields fields)
    : folderPath_(std::move(fields.folderPath)),
      name_(std::move(fields.name)),
      icon_(fields.icon.data()),
      totalBytes_(fields.totalBytes),
      lastModifiedSeconds_(unixSeconds(fields.lastModifiedDate)),
      iconSize_(static_cast<std::uint8_t>(fields.icon.size())),
      isDirectory_(fields.isDirectory),
      isDeleted_(fields.isDeleted),
      thumbnailExists_(fields.thumbnailExists) {
  if (!folderPath_ && fields.path != "/") {
    folderPath_ = std::make_shared<const std::string>(deletingLastPathComponent(fields.path));
    name_ = lastPathComponent(fields.path);
  }
  if (!fields.lowercasePath.empty() && fields.lowercasePath != caselessKey(path())) {
    rare().lowercasePath = std::move(fields.lowercasePath);
  }
  setRev(std::move(fields.rev));
  setItemId(std::move(fields.itemId));
  if (fields.contents) rare().contents = std::move(fields.contents);
}

DBMetadata::~DBMetadata() = default;

DBMetadata::Rare& DBMetadata::rare() {
  if (!rare_) rare_ = std::make_unique<Rare>();
  return *rare_;
}

void DBMetadata::setRev(std::string rev) {
  bool packable = rev.size() <= 2 * sizeof(packedRev_);
  for (std::size_t i = 0; packable && i < rev.size(); ++i) {
    const std::size_t digit = hexDigits.find(rev[i]);
    packable = digit != std::string_view::npos;
    if (packable) packedRev_[i / 2] = static_cast<std::uint8_t>(packedRev_[i / 2] | digit << (i % 2 ? 0 : 4));
  }
  if (packable) {
    revDigits_ = static_cast<std::uint8_t>(rev.size());
  } else {
    rare().rev = std::move(rev);
  }
}

void DBMetadata::setItemId(std::string itemId) {
  const bool isShort = itemId.size() == itemIdPrefix.size() + sizeof shortItemId_ &&
                       itemId.starts_with(itemIdPrefix) && itemId[itemIdPrefix.size()] != '\0';
  if (isShort) {
    std::copy(itemId.begin() + itemIdPrefix.size(), itemId.end(), shortItemId_);
  } else if (!itemId.empty()) {
    rare().itemId = std::move(itemId);
  }
}

std::string DBMetadata::itemId() const {
  if (shortItemId_[0] != '\0') {
    std::string text(itemIdPrefix);
    return text.append(shortItemId_, sizeof shortItemId_);
  }
  return rare_ ? rare_->itemId : std::string();
}

std::string DBMetadata::rev() const {
  if (rare_ && !rare_->rev.empty()) return rare_->rev;
  std::string text(revDigits_, '0');
  for (std::size_t i = 0; i < text.size(); ++i) {
    text[i] = hexDigits[(packedRev_[i / 2] >> (i % 2 ? 0U : 4U)) & 15U];
  }
  return text;
}

std::string DBMetadata::path() const {
  if (!folderPath_) return "/";
  std::string text;
  text.reserve(folderPath_->size() + 1 + name_.size());
  text += *folderPath_;
  if (!text.ends_with('/')) text += '/';
  return text += name_;
}

std::string DBMetadata::filename() const { return folderPath_ ? name_ : "/"; }

std::string DBMetadata::lowercasePath() const {
  return rare_ && !rare_->lowercasePath.empty() ? rare_->lowercasePath : caselessKey(path());
}

DBMetadata::Fields DBMetadata::fields() const {
  Fields fields;
  if (folderPath_)
    fields.name = name_;
  else
    fields.path = "/";
  fields.folderPath = folderPath_;
  fields.lowercasePath = lowercasePath();
  fields.rev = rev();
  fields.itemId = itemId();
  fields.icon = icon();
  fields.totalBytes = totalBytes_;
  fields.lastModifiedDate = lastModifiedDate();
  fields.isDirectory = isDirectory_;
  fields.isDeleted = isDeleted_;
  fields.thumbnailExists = thumbnailExists_;
  fields.contents = contents();
  return fields;
}

std::optional<NSDate::Time> DBMetadata::lastModifiedDate() const noexcept {
  if (lastModifiedSeconds_ == noDate) return std::nullopt;
  return NSDate::Time(std::chrono::seconds(lastModifiedSeconds_));
}

const std::shared_ptr<const DBMetadata::Contents>& DBMetadata::contents() const noexcept {
  static const std::shared_ptr<const Contents>& none = *new std::shared_ptr<const Contents>;
  return rare_ ? rare_->contents : none;
}
