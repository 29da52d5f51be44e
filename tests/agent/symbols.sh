#!/usr/bin/env bash
# symbols.sh LIBRARY INCLUDE: the library exports what its public headers mark, and nothing else; it needs the standard
# library alone, and nothing keeps it in a process that wants it gone.
set -euo pipefail
library=$1 include=$2

fail() {
  echo "agent: $*" >&2
  exit 1
}

# The word in front of the first parenthesis, brace or colon of what is marked.
marked=$(grep -rhE 'RAVD_EXPORT' "$include" | grep -v '#define' |
  sed -E 's/.*RAVD_EXPORT //; s/ ?[:({;].*//; s/ .*=.*//; s/.*[ *&]//' | sort -u)
[ "$(wc -l <<<"$marked")" -gt 25 ] || fail "the headers mark only: $marked"
exported=$(nm -DC --defined-only "$library" | cut -d' ' -f3- |
  sed -E 's/^(vtable|typeinfo|typeinfo name|guard variable) for //; s/^libnetif:://; s/(::|\(|\[).*//' | sort -u)
[ -z "$(comm -13 <(echo "$marked") <(echo "$exported"))" ] || fail "exported, but not marked: $(comm -13 <(echo "$marked") <(echo "$exported"))"
[ -z "$(comm -23 <(echo "$marked") <(echo "$exported"))" ] || fail "marked, but not exported: $(comm -23 <(echo "$marked") <(echo "$exported"))"
! nm -D "$library" | grep ' u ' || fail "unique symbols: see above"
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | grep -vE '^(libstdc\+\+|libgcc_s|libm|libc|ld-linux-x86-64)\.so' || true)
[ -z "$needed" ] || fail "needs $needed"
readelf -d "$library" | grep -F 'Library soname: [libravagent.so.3]' >/dev/null || fail "no soname"
