#!/usr/bin/env bash
# Builds the benchmarks and runs those whose name matches.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

usage() {
  cat <<'END'
usage: ./bench [FILTER]

Runs the benchmarks whose name matches the regular expression FILTER (all without one). Results also go to
build/bench.json: an object with Google Benchmark's report of each program under the program's name.
END
}

[[ $# -le 1 ]] || usageError "one filter at most"
case ${1-} in
  --help | -h) usage && exit ;;
  -*) usageError "unknown argument: $1" ;;
esac
filter=${1:-.}

folder=$root/build/bench
results=$root/build/bench.json
needPackages build bench
configureTree release "$folder" -DKZV_BENCH=ON
buildTree "$folder" bench/all kzv-service

# runOne PROGRAM: false when the filter matches none of its benchmarks.
runOne() {
  local program=$1 report=$folder/${1##*/}.json
  [[ -n $("$program" --benchmark_list_tests "--benchmark_filter=$filter" 2>/dev/null) ]] || return 1
  say "${program##*/}"
  "$program" "--benchmark_filter=$filter" "--benchmark_out=$report" --benchmark_out_format=json ||
    fail "${program##*/} did not end well"
  printf '%s"%s":\n' "$separator" "${program##*/}" >>"$results.new"
  cat "$report" >>"$results.new"
}

trap 'rm -f "$results.new"' EXIT
separator=
printf '{' >"$results.new"
for program in "$folder"/bench/*; do
  [[ -f $program && -x $program ]] || continue
  if runOne "$program"; then separator=,; fi
done
printf '}\n' >>"$results.new"
[[ -n $separator ]] || fail "no benchmark matches: $filter"
mv "$results.new" "$results"
say "results in ${results#"$root"/}"
