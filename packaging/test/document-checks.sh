#!/usr/bin/env bash
# document-checks.sh SOURCE RAVD VERSION [RAVCTL]: the manual pages are clean and complete, that of the client as it
# prints it; what documents name exists, and one version stands everywhere.
set -euo pipefail
source=$1 ravd=$2 version=$3 ravctl=${4:-}
man=$source/packaging/man
cd "$source"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
pages=("$man"/*)
if [ -n "$ravctl" ]; then
  "$ravctl" man >"$work/ravctl.1"
  pages+=("$work/ravctl.1")
fi

fail() {
  echo "documents: $*" >&2
  exit 1
}

pages_are_clean() {
  command -v mandoc >/dev/null || { echo "documents: mandoc is not installed: the pages were not looked at"; return; }
  local page said
  for page in "${pages[@]}"; do
    # Which manuals are installed on this machine does not count.
    said=$(mandoc -Tlint "$page" 2>&1 | grep -vE 'referenced manual not found|outdated mandoc.db' || true)
    [ -z "$said" ] || fail "$said"
  done
}

pages_have_their_sections() {
  local page section
  for page in "${pages[@]}"; do
    for section in NAME SYNOPSIS DESCRIPTION FILES EXAMPLES 'SEE ALSO'; do
      [ "$section:${page##*/}" != SYNOPSIS:ravd-ini.5 ] || continue
      grep -E "^\.(Sh|SH) \"?$section" "$page" >/dev/null || fail "$page has no $section"
    done
  done
  for page in "$man/ravd.8" "${pages[@]:${#pages[@]}-1}"; do
    [[ $page != *.5 ]] || continue
    for section in ENVIRONMENT 'EXIT STATUS'; do
      grep -E "^\.(Sh|SH) $section" "$page" >/dev/null || fail "$page has no $section"
    done
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
    for name in $(grep -oP '(?<![\w/.-])(docs|src|examples|packaging|tests|fuzz|bench)/[\w/.-]+\.(md|h|cpp|sh|ini|conf)(\.in)?\b' \
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
  [ -z "$ravctl" ] || [ "$("$ravctl" --version)" = "ravctl $version" ] || fail "$("$ravctl" --version) is not $version"
  [ -e "packaging/abi/$version.txt" ] || fail "no packaging/abi/$version.txt: record it with abi_check"
}

pages_are_clean
pages_have_their_sections
every_option_is_told
every_name_exists
versions_agree
echo "documents: passed"
