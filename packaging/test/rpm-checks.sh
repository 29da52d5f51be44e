#!/usr/bin/env bash
# rpm-checks.sh PACKAGES: the RPM packages in PACKAGES/rpm hold what the Debian packages in PACKAGES hold, with the same
# modes and the same programs, at the places of their own systems; their scriptlets tell the service manager the right
# things.
set -euo pipefail
packages=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "rpm: $*" >&2
  exit 1
}

rpm_of() { echo "$packages/rpm/$1"-[0-9]*.rpm; }
deb_of() { echo "$packages/$1"_[0-9]*.deb; }

# "MODE OWNER PATH" of each file, and of each directory that only this package has; without what Debian alone wants, and
# without ".gz", which either may add to texts.
ours() {
  sed -E 's/\.gz$//' | grep -E '^-|/[^/]*(rav|pelrix|norrow)' | grep -vE '/(copyright|changelog|lintian/.*|doc/(ravctl|libravagent3))$' | sort
}

in_deb() {
  dpkg-deb -c "$(deb_of "$1")" | awk '{ sub("/root$", "", $2); sub("^\\.", "", $6); sub("/$", "", $6); print $1, $2, $6 }' |
    sed 's#/usr/lib/x86_64-linux-gnu/#/usr/lib64/#; s#/etc/default/#/etc/sysconfig/#' | ours
}

in_rpm() { rpm -qp --qf '[%{FILEMODES:perms} %{FILEUSERNAME} %{FILENAMES}\n]' "$(rpm_of "$1")" | ours; }

holds_the_same() { # RPM, Debian package
  [ -f "$(rpm_of "$1")" ] && [ -f "$(deb_of "$2")" ] || fail "no package $1 or $2 in $packages"
  diff <(in_deb "$2") <(in_rpm "$1") || fail "$1 differs from Debian's $2: see above"
}

unpack() { # RPM; into its own directory
  mkdir "$work/$1"
  rpm2cpio "$(rpm_of "$1")" | cpio -idm --quiet -D "$work/$1"
}

program_is_the_same() { # package, path
  unpack "$1"
  dpkg-deb -x "$(deb_of "$1")" "$work/$1/deb"
  local id
  id=$(readelf -n "$work/$1$2" | grep 'Build ID') || fail "$2 has no build ID"
  [ "$id" = "$(readelf -n "$work/$1/deb$2" | grep 'Build ID')" ] || fail "$2 is another program than Debian's"
}

configuration_is_kept() {
  local found
  found=$(rpm -qp --qf '[%{FILEFLAGS:fflags} %{FILENAMES}\n]' "$(rpm_of ravd)" | grep '^[a-z]*c')
  [ "$found" = "cn /etc/norrow/QuennetSuite/TraceConfig/ravd.ini
cn /etc/sysconfig/ravd" ] || fail "configuration: $found"
  grep -x 'EnvironmentFile=-/etc/sysconfig/ravd' "$work/ravd/usr/lib/systemd/system/ravd.service" >/dev/null ||
    fail "the unit does not read /etc/sysconfig/ravd"
}

# What a scriptlet has systemctl do, on a machine that runs under systemd.
calls() { # scriptlet, number of versions of the package that there will be
  printf '#!/bin/sh\necho "$*"\nexit 1\n' >"$work/systemctl"
  chmod +x "$work/systemctl"
  rpm -qp --qf "%{$1}" "$(rpm_of ravd)" >"$work/scriptlet"
  PATH="$work:$PATH" unshare --map-root-user --mount sh -euc \
    "mount -t tmpfs none /run; mkdir -p /run/systemd/system; exec sh -e '$work/scriptlet' $2" | tr '\n' ';' ||
    fail "$1 $2: a failure of the service manager would stop the package"
}

told() { # scriptlet, versions, what systemctl is told
  local found
  found=$(calls "$1" "$2")
  [ "$found" = "$3" ] || fail "$1 $2 calls systemctl $found instead of $3"
}

service_is_told() {
  told POSTIN 1 '--no-reload enable ravd.service;daemon-reload;start ravd.service;'
  told POSTIN 2 'daemon-reload;'
  told PREUN 1 ''
  told PREUN 0 'stop ravd.service;--no-reload disable ravd.service;'
  told POSTUN 1 'daemon-reload;try-restart ravd.service;'
  told POSTUN 0 'daemon-reload;'
}

# Names alone: versions of libraries are those of the machine that built.
requires_what_it_should() { # RPM, pattern
  local wrong
  wrong=$(rpm -qp --requires "$(rpm_of "$1")" | grep -vE "^(rpmlib\(|config\(|rtld\(|/bin/sh|(lib(c|m|gcc_s|stdc\+\+)|ld-linux-x86-64)\.so\.|$2)" || true)
  [ -z "$wrong" ] || fail "$1 requires $wrong"
}

holds_the_same ravd ravd
holds_the_same ravctl ravctl
holds_the_same ravd-modules ravd-modules
holds_the_same libravagent libravagent3
holds_the_same libravagent-devel libravagent-dev
holds_the_same ravd-doc ravd-doc
program_is_the_same ravd /usr/sbin/ravd
program_is_the_same ravctl /usr/bin/ravctl
program_is_the_same ravd-modules /usr/lib/ravd/libswitch.so
configuration_is_kept
requires_what_it_should ravd 'systemd$'
requires_what_it_should ravctl 'lib(smartcols|archive|elf|z|re2|cap-ng|pci|nettle)\.so\.'
requires_what_it_should ravd-modules 'ravd = |lib(microhttpd|systemd|ravagent)\.so\.'
requires_what_it_should libravagent 'nothing'
requires_what_it_should libravagent-devel '/bin/bash|/usr/bin/(pkg-config|cmake)|cmake-filesystem|libravagent(\.so\.3| = )|pkgconfig\(ravd\)'
if unshare --map-root-user --mount true 2>/dev/null; then
  service_is_told
else
  echo "rpm: no private namespaces here: the scriptlets were not run"
fi
echo "rpm: passed"
