#!/usr/bin/env bash
# service-checks.sh SOURCE UNIT: the unit is valid and confined, alone and with its drop-in; the stop helper tells the
# right run level and ends the process that it is told to end, and no other.
set -euo pipefail
source=$1 unit=$2
helper=$source/packaging/systemd/ravd-stop
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
most_exposure=30  # tenths

fail() {
  echo "service: $*" >&2
  exit 1
}

# The unit with programs that exist here.
unit_here() {
  sed 's#^ExecStart=[^ ]*#ExecStart=/bin/true#; s#^ExecStop=.*#ExecStop=/bin/true#; /^Documentation=/d' "$unit" \
    >"$work/ravd.service"
}

unit_is_valid() {
  local said
  said=$(systemd-analyze verify "$work/ravd.service" 2>&1) || fail "$said"
  [ -z "$said" ] || fail "$said"
}

unit_is_confined() {
  local said
  said=$(systemd-analyze security --offline=yes --no-pager --threshold=$most_exposure "$work/ravd.service") ||
    fail "${said##*$'\n'}"
  echo "${said##*→ }"
}

drop_in_is_valid() {
  mkdir "$work/ravd.service.d"
  cp "$source/packaging/systemd/ravd-open.conf" "$work/ravd.service.d/"
  unit_is_valid
  rm -r "$work/ravd.service.d"
}

# Where /etc is the test's own and systemctl says what the test wants.
run_helper() { # state, jobs, command
  mkdir -p "$work/bin"
  printf '#!/bin/sh\n[ "$1" = list-jobs ] && echo "%s"\n[ "$1" = is-system-running ] && echo "%s"\n' "$2" "$1" \
    >"$work/bin/systemctl"
  chmod +x "$work/bin/systemctl"
  PATH="$work/bin:$PATH" unshare --map-root-user --mount sh -euc "mount -t tmpfs none /etc; $3"
}

level_is() { # expected, state, jobs
  local level
  level=$(run_helper "$2" "$3" "MAINPID= '$helper'; cat /etc/pelrix/RunLevel")
  [ "$level" = "$1" ] || fail "state $2, jobs '$3': run level $level instead of $1"
}

helper_tells_the_run_level() {
  level_is 5 running 'No jobs running.'
  level_is 5 running '17 ravd.service stop running'
  level_is 5 degraded '17 ravd.service restart running'
  level_is 6 stopping '20 ravd.service stop running
21 reboot.target start waiting
22 shutdown.target start waiting'
  level_is 6 stopping '9 kexec.target start waiting'
  level_is 0 stopping '21 shutdown.target start waiting
22 poweroff.target start waiting'
  level_is 0 stopping '9 halt.target start waiting'
  level_is 0 stopping '9 my-own.target start waiting'
  level_is 5 running '9 reboot.target stop waiting'
}

# $1 is made a process called ravd, or something else; only the former is ended.
helper_ends() { # yes or no, name
  cp "$(command -v sleep)" "$work/$2"
  "$work/$2" 60 &
  local victim=$! ended=no
  run_helper running '' "MAINPID=$victim '$helper'"
  kill -0 $victim 2>/dev/null && ! grep 'State:.Z' /proc/$victim/status >/dev/null || ended=yes
  [ $ended = yes ] || kill $victim
  wait $victim 2>/dev/null || true
  [ $ended = "$1" ] || fail "a process called $2: ended is $ended"
}

sh -n "$helper"
if unshare --map-root-user --mount true 2>/dev/null; then
  helper_tells_the_run_level
  helper_ends yes ravd
  helper_ends no somebody_else
else
  echo "service: no private namespaces here: the stop helper was not run"
fi
unit_here
if command -v systemd-analyze >/dev/null; then
  unit_is_valid
  unit_is_confined
  drop_in_is_valid
else
  echo "service: systemd-analyze is not installed: the unit was not looked at"
fi
echo "service: passed"
