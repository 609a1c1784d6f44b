#!/usr/bin/env bash
# hardening.sh LEVEL FILE...: that programs and libraries carry the protections of cmake/KZVOptions.cmake. LEVEL is "full", or
# "linked" for trees that are compiled without them (debug, sanitizers).
set -euo pipefail
level=$1
shift
status=0 fortified=no
complain() { printf '%s: %s\n' "$1" "$2" && status=1; }
for file in "$@"; do
  headers=$(readelf -lW "$file") dynamic=$(readelf -dW "$file")
  [[ $headers == *GNU_RELRO* ]] || complain "$file" "relocations stay writable"
  [[ $dynamic == *BIND_NOW* || $dynamic == *"Flags: NOW"* ]] || complain "$file" "functions are bound late"
  [[ $headers =~ GNU_STACK[^R]*"RWE" ]] && complain "$file" "the stack can be executed"
  [[ $level == full ]] || continue
  symbols=$(readelf -sW --dyn-syms "$file")
  [[ $symbols == *__stack_chk_fail* ]] || complain "$file" "no stack protector"
  [[ $symbols == *_chk@* ]] && fortified=yes  # a library may call nothing that can be
  [[ $symbols == *__glibcxx_assert_fail* ]] || complain "$file" "containers are not checked"
done
[[ $level != full || $fortified == yes ]] || complain "all files" "no function is fortified"
exit "$status"
