#include "host/mount/MountNames.h"

#include <algorithm>
#include <array>

namespace {

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

bool isEditorsTemporary(std::string_view name) {
  if (name.starts_with(".goutputstream-")) return true;
  const std::size_t dot = name.rfind('.');
  if (!name.starts_with('.') || dot == 0 || dot == std::string_view::npos) return false;
  constexpr std::array<std::string_view, 6> extensions{"swp", "swo", "swn", "swx", "swpx", "kate-swp"};
  return std::find(extensions.begin(), extensions.end(), name.substr(dot + 1)) != extensions.end();
}

}  // namespace

NameKind kindOfName(const FSPlugin& volume, std::string_view name) {
  const auto problem = volume.nameProblem(name);
  if (!problem) return isEditorsTemporary(name) ? NameKind::localOnly : NameKind::remote;
  switch (problem->kind) {
    case NameProblem::Kind::reserved:
      return NameKind::localOnly;
    case NameProblem::Kind::tooLong:
      return NameKind::tooLong;
    case NameProblem::Kind::malformed:
      break;
  }
  return NameKind::notAllowed;
}

std::string setAsideName(const FSPlugin& volume, std::string_view name, std::string_view unique) {
  std::string aside = std::string(name).append(".replaced-").append(unique);
  while (!name.empty() && volume.nameProblem(aside)) {
    while (!name.empty() && isContinuation(name.back())) name.remove_suffix(1);
    if (!name.empty()) name.remove_suffix(1);
    aside = std::string(name).append(".replaced-").append(unique);
  }
  return aside;
}
