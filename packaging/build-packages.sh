#!/usr/bin/env bash
# Builds the Debian packages of this tree in build/package. Called by ./dev package, which installs what it needs.
# "build-packages.sh rpm" packs what that has built as RPM packages too, in build/package/rpm.
# "build-packages.sh next" builds them once more as the version after this one, in build/package/next, from the tree that
# the first call has left: what changes from one release to the next at least, for a test of the upgrade.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

version=$(sed -n 's/^project(ravd VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
out=build/package
tree=$out/tree

fail() {
  echo "package: $*" >&2
  exit 1
}

# debian/changelog: the newest entry of CHANGELOG.md, whose heading is "## VERSION (DATE)".
changelog() { # version
  local heading day
  heading=$(grep -m1 '^## ' "$tree/CHANGELOG.md")
  [ "${heading% (*}" = "## $1" ] || fail "CHANGELOG.md begins with $heading, not $1"
  day=${heading##*(}
  printf 'ravd (%s) unstable; urgency=medium\n\n' "$1"
  sed -n '/^## /,$p' "$tree/CHANGELOG.md" | sed '1d' | sed '/^## /,$d; /^$/d' |
    sed ':join; N; s/\n  / /; tjoin; P; D' |
    while read -r _ item; do fold -s -w 74 <<<"$item" | sed '1s/^/  * /; 2,$s/^/    /; s/ $//'; done
  printf '\n -- %s  %s\n' "$(sed -n 's/^Maintainer: //p' packaging/debian/control)" "$(date -u -R -d "${day%)}")"
}

copy_sources() {
  rm -rf "$out"
  mkdir -p "$tree"
  if git rev-parse --git-dir >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard
  else
    find . \( -name build -o -name .git \) -prune -o -type f -print0
  fi | tar --null --files-from=- -cf - | tar -xf - -C "$tree"
}

# debhelper gives the build a home of its own; a compiler cache stays where it is.
[ -n "${CCACHE_DIR:-}" ] || ! command -v ccache >/dev/null || export CCACHE_DIR=$(ccache -k cache_dir)

build_packages() { # version, where they go, options of dpkg-buildpackage
  rm -rf "$tree/debian"
  cp -r packaging/debian "$tree/debian"
  changelog "$1" >"$tree/debian/changelog"
  (cd "$tree" && dpkg-buildpackage -b -us -uc "${@:3}")
  mkdir -p "$2"
  [ "$2" = "$out" ] || mv "$out"/*_"$1"_* "$2"
  ls "$2"/*.deb
}

# Whoever builds the same sources gets the same daemon, at another time and in another time zone: what depends on the
# moment of the build is built once more and compared. All that does is in the daemon's own sources.
check_reproducible() {
  local build first epoch
  build=$(echo "$tree"/obj-*)
  first=$(sha256sum <"$build/ravd")
  epoch=$(cd "$tree" && dpkg-parsechangelog -STimestamp)
  rm -f "$build/generated/daemon/build_info.h" "$build/ravd"
  (export TZ=Pacific/Kiritimati SOURCE_DATE_EPOCH="$epoch" && cmake "$build" && ninja -C "$build" ravd) >/dev/null
  [ "$first" = "$(sha256sum <"$build/ravd")" ] || fail "a second build gives another daemon"
  echo "package: a second build gives the same daemon"
}

# As on a machine whose own packages are RPMs, from the same programs.
build_rpms() {
  local build package
  build=$(echo "$PWD/$tree"/obj-*)
  rm -rf "$out/rpm"
  (
    cd "$tree"
    SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -STimestamp)
    export SOURCE_DATE_EPOCH
    cmake "$build" -DCMAKE_INSTALL_LIBDIR=lib64 -DRAVD_DEFAULTS_DIR=/etc/sysconfig
    ninja -C "$build"
    cd "$build"
    cpack -B ../../rpm
    cpack -B ../../rpm/again >/dev/null
  )
  for package in "$out"/rpm/*.rpm; do
    cmp "$package" "$out/rpm/again/${package##*/}" || fail "packing a second time gives another package"
  done
  rm -rf "$out"/rpm/_CPack_Packages "$out/rpm/again"
  ls "$out"/rpm/*.rpm
}

case "${1:-}" in
'')
  copy_sources
  build_packages "$version" "$out"
  check_reproducible
  ;;
rpm)
  [ -d "$tree" ] || fail "build the Debian packages of this version first"
  build_rpms
  ;;
next)
  [ -d "$tree" ] || fail "build the packages of this version first"
  next=${version%.*}.$((${version##*.} + 1))
  sed -i "s/^project(ravd VERSION [0-9.]*/project(ravd VERSION $next/" "$tree/CMakeLists.txt"
  grep -q "^## $next " "$tree/CHANGELOG.md" || sed -i "0,/^## /s/^## $version \(.*\)/## $next \1\n\n- What comes after $version.\n\n&/" "$tree/CHANGELOG.md"
  build_packages "$next" "$out/next" -nc
  ;;
*) fail "usage: build-packages.sh [rpm | next]" ;;
esac
