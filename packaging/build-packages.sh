#!/usr/bin/env bash
# Builds the Debian packages of this tree in build/package. Called by ./dev package, which installs what it needs.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

version=$(sed -n 's/^project(ravd VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
out=build/package
tree=$out/ravd-$version

# debian/changelog: the newest entry of CHANGELOG.md, whose heading is "## VERSION (DATE)".
changelog() {
  local heading
  heading=$(grep -m1 '^## ' CHANGELOG.md)
  [ "${heading% (*}" = "## $version" ] || { echo "package: CHANGELOG.md begins with $heading, not $version" >&2; exit 1; }
  local day=${heading##*(}
  printf 'ravd (%s) unstable; urgency=medium\n\n' "$version"
  sed -n '/^## /,$p' CHANGELOG.md | sed '1d' | sed '/^## /,$d; /^$/d' | sed ':join; N; s/\n  / /; tjoin; P; D' |
    while read -r _ item; do fold -s -w 74 <<<"$item" | sed '1s/^/  * /; 2,$s/^/    /; s/ $//'; done
  printf '\n -- %s  %s\n' "$(sed -n 's/^Maintainer: //p' packaging/debian/control)" "$(date -u -R -d "${day%)}")"
}

rm -rf "$out"
mkdir -p "$tree"
if git rev-parse --git-dir >/dev/null 2>&1; then
  git ls-files -z --cached --others --exclude-standard
else
  find . \( -name build -o -name .git \) -prune -o -type f -print0
fi | tar --null --files-from=- -cf - | tar -xf - -C "$tree"
cp -r packaging/debian "$tree/debian"
changelog >"$tree/debian/changelog"
(cd "$tree" && dpkg-buildpackage -b -us -uc)
rm -rf "$tree"
ls "$out"/*.deb
