#!/bin/sh
# Runs the browser test, or ends with status 77 and the reason why it cannot.
#
#   run.sh KZV KZV-SERVICE BUNDLE [SCREENSHOT-FOLDER]
#
# playwright-core, which drives the browser, is fetched from npm once for a build folder, in the version and with the
# checksum that package-lock.json names.
folder=$(dirname -- "$0")
modules=$(cd -- "$(dirname -- "$1")/.." && pwd)/browser-test

skip() {
  echo "SKIPPED: $1"
  exit 77
}

fetchPlaywright() {
  cmp -s "$folder/package-lock.json" "$modules/fetched" && return
  command -v npm >/dev/null || skip "no npm to fetch playwright-core with (apt-get install npm)"
  mkdir -p "$modules" && cp "$folder/package.json" "$folder/package-lock.json" "$modules/" || exit 1
  # Its cache lies in the build folder too: a test leaves nothing in a home.
  timeout 90 npm ci --prefix "$modules" --cache "$modules/cache" --ignore-scripts --no-audit --no-fund \
    --fetch-retries 1 --fetch-timeout 30000 >"$modules/npm.log" 2>&1 ||
    skip "npm could not fetch playwright-core (see $modules/npm.log)"
  cp "$folder/package-lock.json" "$modules/fetched" # last, so that half a download is no download
}

command -v node >/dev/null || skip "no Node.js (apt-get install nodejs)"
[ "$(node -p 'parseInt(process.versions.node)')" -ge 18 ] || skip "Node.js is older than version 18"
fetchPlaywright
exec node "$folder/signin.mjs" "$modules/node_modules/playwright-core/index.mjs" "$@"
