#include "mount/MountNames.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "foundation/Unicode.h"

namespace kzv::mount {

namespace {

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

int errnoOf(NameKind kind) {
  switch (kind) {
    case NameKind::tooLong:
      return ENAMETOOLONG;
    case NameKind::notAllowed:
      return EINVAL;
    case NameKind::remote:
    case NameKind::localOnly:
      break;
  }
  return 0;
}

std::string asideName(const FSPlugin& volume, std::string_view name, std::string_view unique) {
  std::string aside = std::string(name).append(".replaced-").append(unique);
  while (!name.empty() && volume.nameProblem(aside)) {
    name = withoutLastCharacter(name);
    aside = std::string(name).append(".replaced-").append(unique);
  }
  return aside;
}

std::string conflictName(const FSPlugin& volume, const std::string& name, std::string_view unique) {
  const std::size_t dot = name.rfind('.');
  const std::string stem = dot == 0 || dot == std::string::npos ? name : name.substr(0, dot);
  const std::string beside =
      stem + " (conflicted copy " + std::string(unique) + ")" + name.substr(stem.size());
  return volume.nameProblem(beside) ? asideName(volume, name, unique) : beside;
}

}  // namespace kzv::mount
