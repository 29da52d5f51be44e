#!/usr/bin/env bash
# service-checks.sh SOURCE UNIT: the unit is valid and confined, alone and with its drop-in; the stop helper tells the
# right run level and ends the process that it is told to end, and no other; the crash helper keeps what it should.
set -euo pipefail
source=$1 unit=$2
helper=$source/packaging/systemd/ravd-stop
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
most_exposure=28  # tenths

fail() {
  echo "service: $*" >&2
  exit 1
}

# The unit with programs that exist here.
unit_here() {
  sed 's#^ExecStart=[^ ]*#ExecStart=/bin/true#; s#^\(ExecStop\|ExecStopPost\)=.*#\1=/bin/true#; /^Documentation=/d' "$unit" \
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

# Runs in a root user's namespace with an empty /var/log, /etc and /run.
in_empty_machine() { # command
  unshare --map-root-user --mount sh -euc "keeper='$source/packaging/systemd/ravd-keep-crash'; $machine; $1"
}

machine='
  for directory in /etc /run /var/log; do mount -t tmpfs none $directory; done
  [ -L /var/lock ] || mount -t tmpfs none /var/lock
  mkdir -p /run/lock /var/log/pelrix
  cd /var/log/pelrix
  write() { for file in log.ravd log.ravd_i.gz log.ravd_a; do echo "$1 of $file" >$file; done; }
  crash() { SERVICE_RESULT=core-dump EXIT_CODE=dumped EXIT_STATUS=SEGV "$@" "$keeper" 2>&1 | sed "s/[0-9T]*Z/TIME/"; }
  expect() { [ "$1" = "$2" ] || { echo "$1 instead of $2"; exit 1; }; }'

helper_keeps_crashes() {
  in_empty_machine '
    write first; SERVICE_RESULT=success "$keeper"; expect "$(ls)" "log.ravd
log.ravd_a
log.ravd_i.gz"
    echo -n "ravd#4711" >/var/lock/ravd.lock
    expect "$(crash env)" "ravd-keep-crash: the traces of the last run are in /var/log/pelrix/crash-TIME"
    expect "$(stat -c %a crash-*)" 750
    expect "$(grep -v ^time= crash-*/exit)" "result=core-dump
status=
signal=SEGV
pid=4711"
    expect "time=$(echo crash-* | cut -c 7-)" "$(sed -n 1p crash-*/exit)"
    expect "$(cat crash-*/log.*)" "$(cat log.*)"
    mv crash-* crash-20000101T000001Z
    crash env; expect "$(ls -d crash-*)" crash-20000101T000001Z  # nothing new
    for second in 2 3 4; do
      write $second; SERVICE_RESULT=exit-code EXIT_CODE=exited EXIT_STATUS=$second "$keeper" >/dev/null
      mv crash-20[!0]* crash-2000010${second}T000000Z
    done
    expect "$(grep -h ^status= crash-*/exit)" "status=2
status=3
status=4"' || fail "the crash helper: see above"
}

helper_keeps_what_fits() {
  in_empty_machine '
    mount -t tmpfs -o size=64k,mode=750 none /var/log/pelrix; cd /var/log/pelrix
    write first; head -c 30000 /dev/zero >>log.ravd_a; head -c 40000 /dev/zero >rest 2>/dev/null || true
    crash env >/dev/null; expect "$(head -n 1 crash-*/log.ravd_a | tr -d "\0")" "first of log.ravd_a"
    expect "$(stat -c %s crash-*/log.ravd_a)" 30020' || fail "the crash helper on a full disk: see above"
}

helper_looks_elsewhere() {
  in_empty_machine '
    mkdir /run/traces /run/others; ln -s /run/traces /run/link; chmod 777 /run/others
    write first; ln log.ravd* /run/traces 2>/dev/null || cp log.ravd* /run/traces; cp log.ravd /run/others
    expect "$(crash env QN_LOG_RINGBUF_DIR=/run/link)" "ravd-keep-crash: the traces of the last run are in /run/link/crash-TIME"
    rm -r /run/traces/crash-*
    mkdir -p /etc/norrow/QuennetSuite/TraceConfig
    printf "[other]\nRingBufferDirectory=/x\n[Ravd]\nRingBufferDirectory=/run/traces\n[EndOfFile]\n" \
      >/etc/norrow/QuennetSuite/TraceConfig/ravd.ini
    expect "$(crash env QN_LOG_RINGBUF_DIR=)" "ravd-keep-crash: the traces of the last run are in /run/traces/crash-TIME"
    crash env QN_LOG_RINGBUF_DIR=/run/others | grep "others may write" >/dev/null
    expect "$(ls /run/others)" log.ravd' || fail "the crash helper elsewhere: see above"
}

helper_leaves_alone() { # links, and the files of another instance
  in_empty_machine '
    write first; echo secret >/run/secret; ln -sf /run/secret log.ravd_a
    (flock 9; crash env) 9>/var/lock/ravd.lock | grep "another instance" >/dev/null
    crash env >/dev/null; expect "$(ls crash-*)" "exit
log.ravd
log.ravd_i.gz"' || fail "the crash helper follows: see above"
}

sh -n "$helper"
if unshare --map-root-user --mount true 2>/dev/null; then
  helper_tells_the_run_level
  helper_ends yes ravd
  helper_ends no somebody_else
  helper_keeps_crashes
  helper_keeps_what_fits
  helper_looks_elsewhere
  helper_leaves_alone
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
