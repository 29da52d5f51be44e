#!/usr/bin/env bash
# pages.sh SOURCE INCLUDE LIBRARY COMPILER: the program that each page of the reference begins with is compiled as it
# stands, and run as root of an empty /etc: it succeeds and prints what the page says, or something where the page does
# not say it.
set -euo pipefail
source=$1 include=$2 library=$3 compiler=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "pages: $*" >&2
  exit 1
}

# The first block of a page with that mark.
block() { # mark, page
  awk -v mark="$1" '$0 == "```" && open { exit } open { print } $0 == "```" mark { open = 1 }' "$2"
}

compile() { # page, program
  block cpp "$1" >"$2.cpp"
  [ -s "$2.cpp" ] || fail "$1 begins with no program"
  "$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fPIC -I"$include" "$2.cpp" "$library" \
    -Wl,-rpath,"$(dirname "$library")" -o "$2" || fail "$1: its program does not compile"
}

run() { # page, program
  (cd "$work" && timeout 120 unshare --map-root-user --mount sh -c \
    'mount -t tmpfs none /etc && mkdir /etc/pelrix && exec "$0"' "$2") >"$2.out" || fail "$1: its program fails"
  block text "$1" >"$2.said"
  if [ -s "$2.said" ]; then
    diff "$2.said" "$2.out" || fail "$1: its program prints something else"
  else
    [ -s "$2.out" ] || fail "$1: its program prints nothing"
  fi
}

unshare --map-root-user --mount true || { echo "pages: no namespace of its own here"; exit 77; }
pages=$(ls "$source"/docs/api/*.md | grep -v /index.md)
for page in $pages; do
  compile "$page" "$work/$(basename "$page" .md)"
done
for page in $pages; do
  run "$page" "$work/$(basename "$page" .md)"
done
for page in $pages; do
  grep -F "($(basename "$page"))" "$source/docs/api/index.md" >/dev/null || fail "the index has no $page"
done
