#!/usr/bin/env bash
# hardening.sh FILE...: every program and library was built and linked with the flags that it should have, and the
# daemon exports the trace object alone. Prints one line a file; 1 when something is missing.
set -euo pipefail
# Not grep -q: it ends at the first match, and what writes into the pipe would fail.

missing=0

check() { # file, what, command...
  local file=$1 what=$2
  shift 2
  "$@" && return
  echo "hardening: $file: no $what" >&2
  missing=1
}

is_position_independent() { readelf -hW "$1" | grep >/dev/null 'Type: *DYN'; }
is_pie() { is_position_independent "$1" && readelf -dW "$1" | grep >/dev/null 'FLAGS_1.*PIE'; }
has_relro() { readelf -lW "$1" | grep >/dev/null GNU_RELRO; }
binds_now() { readelf -dW "$1" | grep -E >/dev/null '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW'; }
has_stack_that_does_not_execute() { readelf -lW "$1" | grep GNU_STACK | grep >/dev/null 'RW '; }
has_no_writable_code() { ! readelf -lW "$1" | grep LOAD | grep >/dev/null 'RWE'; }
calls() { # pattern, file
  nm -D --undefined-only "$2" | grep -E >/dev/null "$1"
}
exports_debug_alone() {
  [ "$(nm -D --defined-only "$1" | sed 's/^[0-9a-f]* //; s/^[BD] //')" = Debug ]
}

for file in "$@"; do
  case $file in
  *.so*) check "$file" "position-independent code" is_position_independent "$file" ;;
  *) check "$file" PIE is_pie "$file" ;;
  esac
  check "$file" RELRO has_relro "$file"
  check "$file" "immediate binding" binds_now "$file"
  check "$file" "protected stack" has_stack_that_does_not_execute "$file"
  check "$file" "separation of data and code" has_no_writable_code "$file"
  check "$file" "stack protector" calls ' __stack_chk_fail' "$file"
  check "$file" "fortified library calls" calls ' __[a-z]+_chk' "$file"
  [ "${file##*/}" != ravd ] || check "$file" "export list with Debug alone" exports_debug_alone "$file"
  echo "$file: checked"
done
exit $missing
