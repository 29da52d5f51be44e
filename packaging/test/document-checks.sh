#!/usr/bin/env bash
# document-checks.sh SOURCE RAVD VERSION: the manual pages are clean and complete, what documents name exists, and one
# version stands everywhere.
set -euo pipefail
source=$1 ravd=$2 version=$3
man=$source/packaging/man
cd "$source"

fail() {
  echo "documents: $*" >&2
  exit 1
}

pages_are_clean() {
  command -v mandoc >/dev/null || { echo "documents: mandoc is not installed: the pages were not looked at"; return; }
  local page said
  for page in "$man"/*; do
    said=$(mandoc -Tlint -W warning "$page") || fail "$said"
  done
}

pages_have_their_sections() {
  local page section
  for page in "$man"/*; do
    for section in NAME SYNOPSIS DESCRIPTION FILES EXAMPLES 'SEE ALSO'; do
      [ "$section:${page##*/}" != SYNOPSIS:ravd-ini.5 ] || continue
      grep -E "^\.(Sh|SH) \"?$section" "$page" >/dev/null || fail "$page has no $section"
    done
  done
  for section in ENVIRONMENT 'EXIT STATUS'; do
    grep "^\.Sh $section" "$man/ravd.8" >/dev/null || fail "ravd.8 has no $section"
  done
}

every_option_is_told() {
  local option name
  for option in $(grep -ho '"-[a-z-]*"' src/daemon/command_line.cpp | tr -d '"' | sort -u); do
    sed 's/\\//g' "$man/ravd.8" | grep -E "^\.It Fl .*\b${option#-}\b" >/dev/null || fail "ravd.8 does not tell $option"
  done
  for name in $(grep -ho '"QN_LOG_[A-Z_]*"' src/trace/*.cpp | tr -d '"' | sort -u); do
    [ "$name" != QN_LOG_FILE_DIR ] || continue  # only shown in the header block
    for page in "$man/ravd-trace-config.5" docs/configuration.md; do
      grep "$name" "$page" >/dev/null || fail "$page does not tell $name"
    done
  done
}

every_name_exists() {
  local document name
  for document in README.md CONTRIBUTING.md docs/*.md; do
    for name in $(grep -oP '(?<![\w/.-])(docs|src|examples|packaging|tests|fuzz|bench)/[\w/.-]+\.(md|h|cpp|sh|ini|conf)\b' \
      "$document"); do
      [ -e "$name" ] || fail "$document names $name"
    done
    for name in $(grep -oE '\./dev [a-z-]+' "$document" | cut -d' ' -f2 | sort -u); do
      ./dev help | grep -E "^  $name( |$)" >/dev/null || fail "$document names ./dev $name"
    done
  done
}

versions_agree() {
  local banner
  banner=$(echo "$version" | sed -E 's/\.([0-9])$/-0\1/; s/\.([0-9]+)$/-\1/')
  # The daemon holds the text that its banner is made of.
  grep -a -F "$banner" "$ravd" >/dev/null || fail "the daemon does not say $banner"
  grep -m1 '^## ' CHANGELOG.md | grep -F "## $version (" >/dev/null || fail "CHANGELOG.md does not begin with $version"
  [ -e "packaging/abi/$version.txt" ] || fail "no packaging/abi/$version.txt: record it with abi_check"
}

pages_are_clean
pages_have_their_sections
every_option_is_told
every_name_exists
versions_agree
echo "documents: passed"
