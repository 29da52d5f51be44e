#!/usr/bin/env bash
# abi-checks.sh LIBRARY: the binary interface of libravagent, built with debugging information, against that of the
# soname's first release. What modules and programs stand on must not change, private members included; new operations
# may join. "abi-checks.sh --make LIBRARY" writes the reference, for a new soname alone.
set -euo pipefail
reference=$(dirname "$(readlink -f "$0")")/../abi/libravagent.so.3.abi.xz
ignored=${reference%/*}/ignored.abignore

if [ "$1" = --make ]; then
  abidw --suppressions "$ignored" --no-corpus-path --no-parameter-names --no-show-locs --no-comp-dir-path "$2" |
    xz -9e >"$reference"
  exit
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
xz -dc "$reference" >"$work/libravagent.abi"
abidiff --suppressions "$ignored" --no-added-syms "$work/libravagent.abi" "$1" ||
  { echo "abi: the interface of libravagent has changed: see above" >&2; exit 1; }
echo "abi: nothing has changed for who uses libravagent"
