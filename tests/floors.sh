#!/usr/bin/env bash
# Each folder includes only what the table of docs/ARCHITECTURE.md lets it include, and the table goes one way: a row names
# only rows below it. Tests, fixtures and benchmarks may include anything.
# usage: floors.sh [ROOT]
set -euo pipefail
cd "${1:-$(dirname "${BASH_SOURCE[0]}")/..}"

# From the document: "row FOLDER NUMBER" for each folder, "may FOLDER PATTERN" for what it includes, "door FILE FOLDER".
rules() {
  awk -F'|' '
    /^\| folder \| includes \|/ { table = "row"; next }
    /^\| file \| reaches up into \|/ { table = "door"; next }
    !/^\|/ { table = "" }
    /^\|-/ || table == "" { next }
    {
      number++
      left = split($2, from, "`"); right = split($3, to, "`")  # what stands in backquotes has an even place
      for (i = 2; i <= left; i += 2) {
        if (table == "row") { print "row", from[i], number; for (k = 2; k <= left; k += 2) print "may", from[i], from[k] }
        for (k = 2; k <= right; k += 2) print (table == "row" ? "may" : "door"), from[i], to[k]
      }
    }' docs/ARCHITECTURE.md
}

# "FILE INCLUDED" for each include of our own.
includes() {
  find -- * \( -name build -o -name tests -o -name testing -o -name fuzz -o -name benchmarks \) -prune -o \
    -name '*.h' -print -o -name '*.cpp' ! -name '*_test.cpp' -print | xargs grep -HEo '^#include "[^"]+"' |
    sed -E 's/:#include "(.*)"/ \1/'
}

{ rules; includes | sed 's/^/include /'; } | awk '
  function folder(path) { sub(/[^\/]*$/, "", path); return path }
  function complain(text) { print text; bad = 1 }
  $1 == "row" { row[$2] = $3 }
  $1 == "may" { may[$2, ++count[$2]] = $3 }
  $1 == "door" { door[$2, $3] = 1 }
  $1 == "include" {
    seen++
    if (!(folder($2) in row)) { complain($2 ": its folder is not in the table"); next }
    for (i = 1; i <= count[folder($2)]; i++) {
      rule = may[folder($2), i]
      if (rule == folder($3)) next
      if (rule ~ /\*/) { pattern = rule; gsub(/\./, "\\.", pattern); sub(/\*/, "[^/]*", pattern); if ($3 ~ "^" pattern "$") next }
    }
    if (($2, folder($3)) in door) { used[$2, folder($3)] = 1; next }
    complain($2 " includes " $3)
  }
  END {
    for (key in may) {
      split(key, from, SUBSEP)
      target = folder(may[key])
      if (!(target in row) || row[target] < row[from[1]]) complain("the table lets " from[1] " include " target ", which is not below it")
    }
    for (key in door) if (!(key in used)) { split(key, from, SUBSEP); complain(from[1] " no longer includes " from[2]) }
    if (seen == 0 || length(row) == 0) complain("no includes or no table found")
    exit bad
  }'
