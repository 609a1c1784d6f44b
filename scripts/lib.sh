# Shared by ./run, ./test and ./bench: packages, configuring, building, messages. Sourced, not run.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() { printf '== %s\n' "$*"; }

# fail MESSAGE: what is wrong, in one sentence; ends the script.
fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

usageError() {
  printf '%s: %s (--help tells more)\n' "${0##*/}" "$*" >&2
  exit 2
}

jobCount() { nproc 2>/dev/null || getconf _NPROCESSORS_ONLN 2>/dev/null || echo 2; }

# --- Packages

# packageLines GROUP...: the lines of the list in these groups, as PACKAGE|PROBE|REASON without blanks around "|".
packageLines() {
  local wanted=" $* " group package probe reason
  while IFS='|' read -r group package probe reason; do
    group=${group//[[:space:]]/}
    [[ -n $group && $group != \#* && $wanted == *" $group "* ]] || continue
    printf '%s|%s|%s\n' "${package//[[:space:]]/}" "${probe//[[:space:]]/}" "${reason# }"
  done <"$root/scripts/packages.txt"
}

isInstalled() { [[ $(dpkg-query -W -f='${db:Status-Abbrev}' "$1" 2>/dev/null) == ?i* ]]; }

isProbed() {
  case $1 in
    cmd:*) command -v "${1#cmd:}" >/dev/null ;;
    pc:*) command -v pkg-config >/dev/null && pkg-config --exists "${1#pc:}" ;;
    header:*) echo "#include <${1#header:}>" | "${CXX:-c++}" -std=c++20 -E -x c++ - >/dev/null 2>&1 ;;
    *) true ;;
  esac
}

# missingPackages GROUP...: Debian packages that are not installed; of alternatives the first that apt knows. A program
# that is there counts, wherever it came from.
missingPackages() {
  local packages probe alternatives name
  while IFS='|' read -r packages probe _; do
    [[ $probe == cmd:* ]] && isProbed "$probe" && continue
    IFS=, read -ra alternatives <<<"$packages"
    for name in "${alternatives[@]}"; do
      isInstalled "$name" && continue 2
    done
    for name in "${alternatives[@]}"; do
      [[ ${#alternatives[@]} -eq 1 ]] && break
      apt-cache show "$name" >/dev/null 2>&1 && break
      name=${alternatives[0]}
    done
    printf '%s\n' "$name"
  done < <(packageLines "$@") | sort -u
}

asRoot() {
  if [[ $(id -u) -eq 0 ]]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    fail "these packages need to be installed by an administrator: ${missing[*]}"
  fi
}

installMissing() {
  local missing
  mapfile -t missing < <(missingPackages "$@")
  [[ ${#missing[@]} -eq 0 ]] && return
  say "installing missing packages: ${missing[*]}"
  asRoot apt-get update -qq || say "the package lists could not be renewed; going on with those that are here"
  mapfile -t missing < <(missingPackages "$@") # with fresh lists another alternative may be the one that exists
  asRoot env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" ||
    fail "apt-get could not install all of: ${missing[*]}"
}

nameMissing() {
  local package probe reason
  while IFS='|' read -r package probe reason; do
    isProbed "$probe" || say "missing: $package ($reason); going on without it"
  done < <(packageLines "$@")
}

# needPackages GROUP...: installs what is missing on Debian, names it elsewhere and goes on with what is there.
needPackages() {
  if command -v dpkg-query >/dev/null && command -v apt-get >/dev/null; then
    installMissing "$@"
  else
    say "this is no Debian system, so nothing is installed here"
    nameMissing "$@"
  fi
  command -v cmake >/dev/null || fail "cmake is not installed, so nothing can be built"
  command -v ninja >/dev/null || fail "ninja is not installed, so nothing can be built"
}

# wantPackages GROUP...: installs what is missing and can be had within minutes, and goes on without the rest. What
# could not be had is tried again after a day.
wantPackages() {
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    nameMissing "$@"
    return
  fi
  local missing name tried=$root/build/packages-not-to-be-had
  mapfile -t missing < <(missingPackages "$@")
  [[ ${#missing[@]} -eq 0 || -n $(find "$tried" -mtime -1 2>/dev/null) ]] && return
  say "installing packages that some tests use: ${missing[*]}"
  local update=(timeout 60 apt-get update -qq)
  local install=(timeout 300 env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends)
  (asRoot "${update[@]}") || say "the package lists could not be renewed; going on with those that are here"
  rm -f "$tried"
  for name in "${missing[@]}"; do
    (asRoot "${install[@]}" "$name") && continue
    say "$name could not be installed; the tests that need it are skipped"
    mkdir -p "$root/build" && printf '%s\n' "$name" >>"$tried"
  done
}

# --- Building

# configureTree PRESET FOLDER ARGUMENT...: once, and again when the arguments change; ninja sees to the rest.
configureTree() {
  local preset=$1 folder=$2
  shift 2
  local asked="$preset $*" log=$folder/configure.log
  if [[ -f $folder/build.ninja && $(cat "$folder/configured-as" 2>/dev/null) == "$asked" ]]; then return; fi
  say "configuring ${folder#"$root"/}"
  mkdir -p "$folder"
  if ! (cd "$root" && cmake --preset "$preset" -B "$folder" "$@") >"$log" 2>&1; then
    tail -n 20 "$log" >&2
    fail "the build could not be configured (all of it: ${log#"$root"/})"
  fi
  printf '%s\n' "$asked" >"$folder/configured-as"
}

# buildTree FOLDER [TARGET...]: ninja's own progress line shows how far it is.
buildTree() {
  local folder=$1
  shift
  say "building ${folder#"$root"/}"
  NINJA_STATUS='[%f/%t, %es] ' ninja -C "$folder" -j "$(jobCount)" "${@:-all}" ||
    fail "the build failed; what the compiler says stands above"
}
