#!/bin/sh
# Runs the browser test, or ends with status 77 and the reason why it cannot.
folder=$(dirname -- "$0")
if ! command -v node >/dev/null; then
  echo "SKIPPED: no Node.js"
  exit 77
fi
exec node "$folder/signin.mjs" "$@"
