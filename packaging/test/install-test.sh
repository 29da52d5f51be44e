#!/usr/bin/env bash
# install-test.sh [ROOT]: from this tree to an installed, running, upgraded, stopped and purged service in a clean root,
# made with debootstrap or copied from the directory ROOT. Called by ./dev install-test, as root.
#
# Everything happens in namespaces of its own below build/install-test. The service manager of the root runs there as
# process 1; where it cannot, or with BY_HAND=1, this script starts the service the way the unit tells and listens for its
# readiness itself. Ends with 77 where the machine does not allow it, with the reason.
set -Eeuo pipefail
trap 'echo "install: \"$BASH_COMMAND\" in line $LINENO failed" >&2' ERR
here=$(cd "$(dirname "$(readlink -f "$0")")" && pwd)
source=${here%/packaging/test}
cd "$source"

packages=$source/build/package
work=$source/build/install-test
root=$work/root
kit=$root/root/kit  # what was built from the development package
given_root=${1:-}
guide=docs/module-writers-guide.md
package_test=packaging/debian/tests/service
version=$(sed -n 's/^project(ravd VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
next=${version%.*}.$((${version##*.} + 1))
tools=(g++ cmake make pkg-config)
most_exposure=28     # tenths
most_stop_tenths=25  # a stop that waits for the run level file takes three seconds
init=                # process 1 of the root as this machine numbers it
starter=
group=

say() { echo "install: $*"; }

skip() {
  echo "install: skipped: $*" >&2
  exit 77
}

fail() {
  echo "install: $*" >&2
  if [ -n "$init" ]; then
    inside systemctl status --no-pager -l ravd >&2 || true
    inside tail -n 20 /var/log/pelrix/log.ravd >&2 || true
  fi
  exit 1
}

stop_root() {
  [ -n "$starter" ] || return 0
  kill -KILL "$starter" 2>/dev/null || true
  wait "$starter" 2>/dev/null || true
  starter=
}

clean_up() {
  stop_root
  leave_group
}
trap clean_up EXIT

# --- What is tested: packages and a clean root ---------------------------------------------------------------------------

# Those of the tree as it stands; built again when a source is newer.
build_packages() {
  local newest
  newest=$(git ls-files -z --cached --others --exclude-standard -- . ':!tests' ':!fuzz' ':!bench' ':!packaging/test' ':!.ci' \
    ':!README.md' ':!CONTRIBUTING.md' 2>/dev/null | xargs -0r stat -c %Y | sort -n | tail -n 1 || true)
  if [ "$(stat -c %Y "$packages/ravd_${version}_amd64.deb" 2>/dev/null || echo 0)" -lt "${newest:-1}" ]; then
    packaging/build-packages.sh >"$work/package.log" 2>&1 || fail "$(tail -n 20 "$work/package.log")"
  fi
  if [ ! "$packages/next/ravd_${next}_amd64.deb" -nt "$packages/ravd_${version}_amd64.deb" ]; then
    packaging/build-packages.sh next >"$work/package.log" 2>&1 || fail "$(tail -n 20 "$work/package.log")"
  fi
}

packages_are_clean() {
  command -v lintian >/dev/null || fail "lintian is not installed"
  lintian --allow-root --fail-on error --tag-display-limit 0 "$packages"/*.changes || fail "lintian: see above"
}

# Where this machine gets its own packages from.
mirror() {
  cat /etc/apt/sources.list.d/*.sources /etc/apt/sources.list 2>/dev/null |
    sed -n 's/^URIs: *\([^ ]*\).*/\1/p; s/^deb \(\[[^]]*\] \)\?\([^ ]*\) .*/\2/p' | sed -n 1p || true
}

make_root() {
  rm -rf "$root"
  if [ -n "$given_root" ]; then
    cp -a "$given_root" "$root"
    return
  fi
  local suite from said
  suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
  from=$(mirror)
  command -v debootstrap >/dev/null || skip "no debootstrap and no root given"
  [ -n "$suite" ] && [ -n "$from" ] || skip "the sources of apt-get do not tell where to get a root from"
  mkdir -p "$work/cache"
  if [ ! -e "$work/base.made" ]; then
    rm -rf "$work/base"
    said=$(unshare --mount debootstrap --variant=minbase --include=systemd-sysv --cache-dir="$work/cache" \
      "$suite" "$work/base" "$from" 2>&1) || skip "debootstrap does not work here: ${said##*$'\n'}"
    touch "$work/base.made"
  fi
  cp -a "$work/base" "$root"
}

# A command in the root before it runs: with the network of this machine, for what is downloaded.
prepare() {
  unshare --mount --pid --fork --kill-child --ipc "$here/boot-root.sh" "$root" "$@"
}

fill_root() {
  rm -f "$root/etc/fstab"
  mkdir -p "$root/root/source/build" "$root/var/cache/apt/archives/partial"
  cp -r "$packages" "$root/root/source/build/package"
  rm -rf "$root/root/source/build/package/tree"
  install -D "$package_test" "$root/root/source/$package_test"
  cp -n "$work/cache"/*.deb "$root/var/cache/apt/archives/" 2>/dev/null || true
  prepare sh -euc "echo 'APT::Keep-Downloaded-Packages \"true\";' >/etc/apt/apt.conf.d/keep
    apt-get update -qq
    cd /root/source/build/package
    apt-get install -y -qq --no-install-recommends --download-only ./ravd_*.deb ./libravagent3_*.deb ./ravd-modules_*.deb ./ravctl_*.deb ${tools[*]}" >"$work/apt.log" 2>&1 ||
    fail "$(tail -n 5 "$work/apt.log")"
  cp -n "$root"/var/cache/apt/archives/*.deb "$work/cache/" 2>/dev/null || true
}

# --- The root as a running machine ---------------------------------------------------------------------------------------

# A control group of our own, which the root takes for the whole hierarchy.
make_group() {
  local mounted
  mounted=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/mounts)
  [ -n "$mounted" ] || return 1
  group=$mounted$(sed -n 's/^0::\(.*\)/\1/p' /proc/self/cgroup | sed 's#/$##')/ravd-install-test-$$
  mkdir "$group" 2>/dev/null || { group=; return 1; }
}

leave_group() {
  [ -n "$group" ] && [ -d "$group" ] || return 0
  for _ in $(seq 50); do
    find "$group" -depth -type d -exec rmdir {} + 2>/dev/null && break
    sleep 0.1
  done
  group=
}

start_root() { # program...
  (
    [ -z "$group" ] || echo $BASHPID >"$group/cgroup.procs"
    exec unshare --mount --pid --fork --kill-child --uts --ipc --net --cgroup "$here/boot-root.sh" "$root" "$@"
  ) >"$work/console" 2>&1 </dev/null &
  starter=$!
  init=
  for _ in $(seq 100); do
    init=$(tr -d ' ' <"/proc/$starter/task/$starter/children" 2>/dev/null || true)
    [ -z "$init" ] || [ "$(cat "/proc/$init/comm" 2>/dev/null)" != "$(basename "$1")" ] || return 0
    sleep 0.1
  done
  return 1
}

inside() { nsenter --target "$init" --mount --uts --ipc --net --pid --cgroup --root --wd env -i container=private \
  PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive "$@"; }

boot() {
  by_hand=${BY_HAND:+as asked}
  [ -n "$group" ] || make_group || by_hand="no control group of its own"
  if [ -z "$by_hand" ]; then
    if start_root /lib/systemd/systemd; then
      for _ in $(seq 200); do
        case "$(inside systemctl is-system-running 2>/dev/null || true)" in
        running | degraded) say "booted, systemd is process 1"; return ;;
        esac
        sleep 0.1
      done
    fi
    by_hand="systemd does not come up: $(tail -n 1 "$work/console")"
    stop_root
  fi
  start_root /bin/sh -c 'while :; do sleep 1; done' || skip "no private namespaces: $(tail -n 1 "$work/console")"
  say "NO service manager in the root ($by_hand): the service is started by hand, from what the unit tells"
}

power_off() {
  inside systemctl poweroff 2>/dev/null || true
  for _ in $(seq 100); do
    kill -0 "$starter" 2>/dev/null || { init=; wait "$starter" 2>/dev/null || true; return 0; }
    sleep 0.1
  done
  fail "the root does not go down"
}

# --- The service, by the service manager or by hand ----------------------------------------------------------------------

# Runs ExecStart with the environment of the unit and waits until it tells READY=1.
start_by_hand() {
  inside sh -euc '
    unit=/usr/lib/systemd/system/ravd.service
    set -a; eval "$(sed -n "s/^Environment=//p" $unit)"; . /etc/default/ravd; set +a
    export NOTIFY_SOCKET=/run/notify
    rm -f $NOTIFY_SOCKET
    exec perl -MSocket -e "
      socket(S, AF_UNIX, SOCK_DGRAM, 0) && bind(S, sockaddr_un(q(/run/notify))) or die;
      defined(my \$child = fork) or die;
      if (!\$child) { close STDOUT; open STDOUT, q(>/dev/null); exec @ARGV or die }
      alarm 20;
      while (defined recv(S, my \$text, 4096, 0)) { exit 0 if \$text =~ /^READY=1\$/m }" \
      $(sed -n "s/^ExecStart=//p" $unit | sed "s/\$RAVD_OPTIONS/${RAVD_OPTIONS:-}/")'
}

service() { # start, stop, restart
  if [ -z "$by_hand" ]; then inside systemctl "$1" ravd; return; fi
  [ "$1" = start ] || inside sh -c 'MAINPID=$(cat /var/run/ravd.pid 2>/dev/null) $(sed -n "s/^ExecStop=//p" \
    /usr/lib/systemd/system/ravd.service)'
  [ "$1" = stop ] || start_by_hand
}

service_pid() { inside cat /var/run/ravd.pid 2>/dev/null; }

# What the newest run has traced.
traced() { # text
  inside sh -c 'cat /var/log/pelrix/log.ravd_a; gzip -dc /var/log/pelrix/log.ravd_i.gz 2>/dev/null' | grep -aF "$1" >/dev/null
}

traces_soon() { # text
  for _ in $(seq 50); do
    ! traced "$1" || return 0
    sleep 0.1
  done
  fail "no trace of: $1"
}

# A command of the documents, run as it stands there. packaging/test/command-checks.sh looks for it here.
documented() { # command
  local said
  said=$(inside sh -euc "cd /root/source; $1" 2>&1) || fail "'$1' fails: $said"
}

# --- The steps -----------------------------------------------------------------------------------------------------------

console_blocks() { # document
  awk '/^```console$/ { open = 1; next } /^```$/ { open = 0 } open' "$1"
}

# With nothing of ravd but its development package: what the guide tells, which finds it through cmake and pkg-config.
kit_builds_modules() {
  prepare sh -euc "cd /root/source/build/package
    apt-get install -y -qq --no-install-recommends ./libravagent3_*.deb ./libravagent-dev_*.deb ${tools[*]}" >"$work/apt.log" 2>&1 ||
    fail "$(tail -n 5 "$work/apt.log")"
  prepare sh -euc '! dpkg-query -W ravd ravctl 2>/dev/null | grep "[0-9]"
    mkdir /root/kit && cd /root/kit
    '"$(console_blocks "$guide")"'
    sed "s/TRACE(3, .*beat %u.*/if (unlink(\"\/run\/ravd-crash\") == 0) { TRACE(1, \"last words\"); __builtin_trap(); } &/" \
      my-modules/module/heartbeat.cpp >crashing.cpp
    g++ -std=c++20 -shared -fPIC $(pkg-config --cflags ravd) -Imy-modules crashing.cpp -o crashing.so
    [ "$(pkg-config --modversion ravd)" = '"$version"' ] && [ "$(pkg-config --variable=moduledir ravd)" = /usr/lib/ravd ]' \
    >"$work/kit.log" 2>&1 || fail "the kit: $(tail -n 20 "$work/kit.log")"
  "$here/module-symbols.sh" "$kit/libswitch.so" "$kit/heartbeat.so" "$kit/my-modules/build/lib/libswitch.so" \
    "$kit/my-modules/build/lib/modules/heartbeat.so" "$kit/my-modules/build/lib/library_modules/machine_load.so"
  say "modules and programs built from libravagent-dev alone, through cmake and through pkg-config"
}

# The other compiler, which is this machine's, with the headers and libraries of the root alone.
clang_builds_them_too() {
  local source output flags
  flags=$(PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_LIBDIR=$(echo "$root"/usr/lib/*/pkgconfig):$root/usr/share/pkgconfig \
    pkg-config --cflags --libs ravagent)
  mkdir "$kit/clang"
  for source in "$kit"/my-modules/library/*.cpp "$kit/my-modules/module/machine_load.cpp"; do
    output=$kit/clang/$(basename "$source" .cpp)
    case $source in */module/*) output="$output.so -shared" ;; esac
    clang++ --sysroot="$root" -std=c++20 -Wall -Wextra -Wconversion -Werror -I"$kit/my-modules" "$source" $flags -o $output \
      >"$work/clang.log" 2>&1 || fail "clang++: $(tail -n 20 "$work/clang.log")"
  done
  say "the programs and the module on the library are built by clang++ too"
}

# The programs on the library, without the daemon; the registry client once more after a save that somebody killed.
programs_run() { # of which directory of the kit
  prepare sh -euc "cd /root/kit/$1"'
    ./inventory_table | grep "^volume .*% used"
    ./load_sampler 1 | grep "^on average"
    ./interface_watcher 1 | grep "^lo "
    printf "[A]\nB=1\n" >example.ini && ./ini_edit example.ini A B 2 | grep -x "\[A\] B=2" && grep -x B=2 example.ini
    mkdir -p /etc/pelrix && ./registry_client && echo half >/etc/pelrix/registry.new
    ./registry_client | grep -x "run 2 is stored"; rm -r /etc/pelrix' >"$work/programs.log" 2>&1 ||
    fail "the programs on the library: $(tail -n 20 "$work/programs.log")"
  say "the programs on the library run ($1)"
}

# Everything that is there, with owner and mode, but for the books of the package tools and of the service manager.
snapshot() { # file
  inside find / -xdev \( -path /root/source -o -path /root/kit -o -path /var/cache -o -path /var/lib/apt \
    -o -path /var/lib/dpkg -o -path /var/log/apt -o -path /var/log/journal -o -path /var/lib/systemd/random-seed \) -prune \
    -o ! -type d -printf '%p %u %g %m\n' -o -printf '%p/ %u %g %m\n' |
    grep -vE '^/(var/log/(dpkg|alternatives|wtmp|lastlog|btmp)|etc/(ld.so.cache|machine-id)|var/lib/systemd/(timers|catalog))' |
    sort >"$1"
}

ravd_needs_no_library() {
  local new
  new=$(inside sh -euc 'cd /root/source/build/package; apt-get install -s --no-install-recommends ./ravd_*.deb' |
    awk '$1 == "Inst" { print $2 }' | tr '\n' ' ')
  [ "$new" = "ravd " ] || fail "installing ravd brings $new"
}

has() { # path, type, mode
  local found
  found=$(inside stat -c '%F %a %U:%G' "$1") || fail "$1 is not there"
  [ "$found" = "$2 $3 root:root" ] || fail "$1 is $found instead of $2 $3"
}

files_are_right() {
  has /usr/sbin/ravd 'regular file' 755
  has /usr/bin/ravctl 'regular file' 755
  has /usr/libexec/ravd/ravd-stop 'regular file' 755
  has /usr/libexec/ravd/ravd-keep-crash 'regular file' 755
  has /usr/lib/ravd directory 755
  has /usr/lib/tmpfiles.d/ravd.conf 'regular file' 644
  has /usr/lib/systemd/system/ravd.service 'regular file' 644
  has /etc/default/ravd 'regular file' 644
  has /etc/pelrix directory 755
  has /etc/norrow/QuennetSuite/TraceConfig directory 755
  has /etc/norrow/QuennetSuite/TraceConfig/ravd.ini 'regular file' 644
  has /var/log/pelrix directory 750
  has /usr/share/man/man1/ravctl.1.gz 'regular file' 644
  has /usr/share/man/man8/ravd.8.gz 'regular file' 644
  for file in bash-completion/completions/ravctl zsh/vendor-completions/_ravctl fish/vendor_completions.d/ravctl.fish \
    ravctl/schemas/pci.json; do
    has "/usr/share/$file" 'regular file' 644
  done
  local wrong
  wrong=$(inside sh -c 'dpkg -L ravd libravagent3 libravagent-dev ravctl | grep . | sort -u | xargs -d "\n" -I{} find {} -maxdepth 0 \
    \( ! -user root -o ! -group root -o -perm /7022 \) ! -type l')
  [ -z "$wrong" ] || fail "owner or mode of $wrong"
  "$here/hardening.sh" "$root/usr/sbin/ravd" "$root/usr/bin/ravctl" >/dev/null || fail "hardening: see above"
  say "files, owners, modes and hardening are right"
}

# As ravd_add_module_test has it run, with the daemon of the package.
module_test_runs() {
  local module
  for module in my-modules/build/lib/{modules/heartbeat,library_modules/machine_load}.so clang/machine_load.so; do
    inside sh -euc "/usr/lib/*/ravd-module-test/module-test /usr/sbin/ravd /root/kit/$module 1" \
      >"$work/module-test.log" 2>&1 || fail "the module test: $(tail -n 20 "$work/module-test.log")"
  done
  say "the module test runs the modules in a daemon of their own"
}

waits_for_its_switch() {
  [ -z "$by_hand" ] || return 0
  [ "$(inside systemctl is-enabled ravd)" = enabled ] || fail "the service is not enabled"
  [ "$(inside systemctl show -P ConditionResult ravd)" = no ] || fail "the service started without a switch"
}

# What a distribution runs after it has built the packages.
distribution_test_passes() {
  [ -z "$by_hand" ] || return 0
  inside "/root/source/$package_test" >"$work/package-test.log" 2>&1 || fail "$package_test: $(tail -n 20 "$work/package-test.log")"
  say "the test that comes with the packages passes"
}

# The suite's own switch may take the place of theirs, so they are tried first.
modules_do_work() {
  [ -z "$by_hand" ] || return 0
  documented 'apt-get install -y ./build/package/libravagent3_*.deb ./build/package/ravd-modules_*.deb'
  inside bash -euc 'for _ in $(seq 100); do
      { exec 3<>/dev/tcp/127.0.0.1/9469 && printf "GET /metrics HTTP/1.0\r\n\r\n" >&3 && cat <&3 >/root/page; } 2>/dev/null || true
      ! grep -q "^ravd_volume_size_bytes{mountpoint=\"/\"}" /root/page || break
      sleep 0.1
    done
    for module in metrics watch; do grep -F "ravd_module_up{module=\"$module\"} 1" /root/page; done
    grep "^ravd_volume_size_bytes{mountpoint=\"/\"}" /root/page && rm /root/page
    ! grep -E "(ERROR|FAILED)" /var/log/pelrix/log.ravd && test -e /usr/share/ravd/ravd.rules.yml' >"$work/modules.log" 2>&1 ||
    fail "the modules: $(tail -n 20 "$work/modules.log")"
  documented 'apt-get purge -y ravd-modules'
  ! inside systemctl -q is-active ravd || fail "the service runs without a switch"
  inside test -d /usr/lib/ravd || fail "the modules take the directory of the switch along"
  say "the modules of ravd-modules do their work, and the service ends with them"
}

put_switch() {
  inside sh -euc 'cp /root/kit/libswitch.so /usr/lib/ravd/
    mkdir -p /usr/lib/ravd/modules && cp /root/kit/my-modules/build/lib/modules/heartbeat.so /usr/lib/ravd/modules/
    cp /root/kit/my-modules/build/lib/library_modules/machine_load.so /root/kit/crashing.so /usr/lib/ravd/modules/'
  documented "sed -i 's/^FileDebugLevel=.*/FileDebugLevel=3/' /etc/norrow/QuennetSuite/TraceConfig/ravd.ini"
  inside sed -i 's/^FileDebugLevel=3/FileDebugLevel=4/' /etc/norrow/QuennetSuite/TraceConfig/ravd.ini  # the library's, too
}

service_starts() {
  if [ -z "$by_hand" ]; then documented 'systemctl start ravd'; else start_by_hand || fail "not ready in 20 seconds"; fi
  [ -n "$(service_pid)" ] || fail "ready, but there is no PID file"
  traces_soon 'Heartbeat           : beat'
  traces_soon 'MachineLoad         : a sample each 1000 ms'
  traces_soon 'CPerfMon::Start     : Start performance monitoring'
  traced 'RAVD-MAIN' || fail "the daemon itself does not trace"
  [ -n "$by_hand" ] || [ "$(inside systemctl show -P MainPID ravd)" = "$(service_pid)" ] || fail "the wrong main process"
  say "the service is ready and the module built from the package traces into it"
}

service_is_confined() {
  [ -z "$by_hand" ] || return 0
  local said
  said=$(inside systemd-analyze verify --man=no ravd.service 2>&1) || fail "$said"
  said=$(inside systemd-analyze security --no-pager --threshold=$most_exposure ravd.service) || fail "${said##*$'\n'}"
  say "${said##*→ }"
  said=$(inside sh -c 'grep -h ^NoNewPrivs:.1 /proc/$(cat /var/run/ravd.pid)/status; ! nsenter -m -t \
    $(cat /var/run/ravd.pid) touch /usr/written 2>/dev/null || echo written')
  [ "$said" = "NoNewPrivs:	1" ] || fail "the running service is not confined: $said"
}

# What the service manager, the journal and the package tools say comes along in a bundle.
bundle_tells_of_the_service() {
  [ -z "$by_hand" ] || return 0
  inside sh -euc 'mkdir /root/kit/bundle && cd /root/kit/bundle && ravctl bundle b.tar.gz && tar -xzf b.tar.gz ravctl
    cd ravctl && grep -x "ActiveState=active" unit.txt && grep "Started ravd" journal.txt
    for package in ravd ravctl libravagent3 libravagent-dev; do grep "^$package '"$version"' installed" packages.txt; done
    for module in libswitch modules/heartbeat modules/machine_load; do grep "^/usr/lib/ravd/$module.so [0-9]" modules.txt; done
    grep libravagent.so.3 modules.txt; ls net-list.json perf-sample.json' >"$work/bundle.log" 2>&1 ||
    fail "the bundle of the running service: $(tail -n 20 "$work/bundle.log")"
  say "a bundle brings the unit, its journal, packages, modules and the live answers"
}

documents_hold() {
  documented 'ravctl daemon status'
  documented "ravctl trace show -n 20"
  [ -z "$by_hand" ] || return 0
  documented 'systemctl status ravd'
  documented 'systemctl kill -s HUP ravd'
  documented 'journalctl -u ravd'
  documented 'systemd-analyze security ravd'
  documented 'mkdir -p /etc/systemd/system/ravd.service.d'
  documented 'cp /usr/share/doc/ravd/examples/ravd-open.conf /etc/systemd/system/ravd.service.d/'
  documented 'systemctl daemon-reload'
  documented 'systemctl restart ravd'
  inside sh -euc 'nsenter -m -t $(cat /var/run/ravd.pid) touch /usr/written; rm /usr/written' || fail "the drop-in does not open"
  inside sh -euc 'rm -r /etc/systemd/system/ravd.service.d; systemctl daemon-reload; systemctl restart ravd'
}

service_stops() {
  local pid started tenths
  pid=$(service_pid)
  started=$(date +%s%N)
  if [ -z "$by_hand" ]; then documented 'systemctl stop ravd'; else service stop; fi
  tenths=$((($(date +%s%N) - started) / 100000000))
  ! inside test -d "/proc/$pid/exe" || fail "process $pid is still there"
  [ $tenths -lt $most_stop_tenths ] || fail "the stop took $tenths tenths of a second"
  [ "$(inside cat /etc/pelrix/RunLevel)" = 5 ] || fail "run level $(inside cat /etc/pelrix/RunLevel)"
  inside sh -c '[ ! -e /var/run/ravd.pid ] && [ ! -e /var/lock/ravd.lock ]' || fail "PID or lock file is left"
  [ -n "$by_hand" ] || [ "$(inside systemctl show -P Result ravd)" = success ] || fail "the stop did not succeed"
  traces_soon 'Heartbeat           : thread ends'
  say "the service stopped in $tenths tenths of a second, run level file written"
}

service_comes_back_after_a_crash() {
  [ -z "$by_hand" ] || return 0
  local pid
  documented 'systemctl reset-failed ravd'
  pid=$(service_pid)
  inside touch /run/ravd-crash  # a module waits for it
  for _ in $(seq 100); do
    ! inside systemctl -q is-active ravd || [ "$(service_pid)" = "$pid" ] || { crash_is_kept "$pid"; return; }
    sleep 0.1
  done
  fail "no new start after a crash"
}

crash_is_kept() { # pid
  local said
  said=$(inside sh -euc "cd /var/log/pelrix/crash-*Z; stat -c %a .; cat exit; grep -ac 'last words' log.ravd_a" 2>&1) ||
    fail "what the crash left: $said"
  grep -q '^750$' <<<"$said" && grep -q '^signal=ILL$' <<<"$said" && grep -q "^pid=$1\$" <<<"$said" || fail "what the crash left: $said"
  say "a crash is followed by a new start, the last words of the module are kept"
}

upgrade_keeps_it_running() {
  local pid banner
  pid=$(service_pid)
  inside sh -euc "cd /root/source/build/package/next
    apt-get install -y -qq ./ravd_*.deb ./ravctl_*.deb ./libravagent3_*.deb ./libravagent-dev_*.deb" >"$work/apt.log" 2>&1 || fail "$(cat "$work/apt.log")"
  [ -z "$by_hand" ] || service restart
  [ "$(inside dpkg-query -W -f '${Version}' ravd)" = "$next" ] || fail "not upgraded"
  [ "$(inside ravctl --version)" = "ravctl $next" ] || fail "ravctl is not upgraded"
  [ -n "$(service_pid)" ] && [ "$(service_pid)" != "$pid" ] || fail "the upgrade did not start the new daemon"
  banner=$(echo "$next" | sed -E 's/\.([0-9])$/-0\1/; s/\.([0-9]+)$/-\1/')
  traces_soon "$banner"
  traces_soon 'Heartbeat           : beat'
  inside grep '^FileDebugLevel=4' /etc/norrow/QuennetSuite/TraceConfig/ravd.ini >/dev/null || fail "configuration lost"
  say "upgraded to $next while it ran, configuration kept"
}

# Modules learn that the machine goes down; the next boot starts the service and forgets the run level.
machine_goes_down_and_up() {
  [ -z "$by_hand" ] || return 0
  power_off
  [ "$(cat "$root/etc/pelrix/RunLevel")" = 0 ] || fail "run level at power off: $(cat "$root/etc/pelrix/RunLevel")"
  grep -a 'Heartbeat           : the system goes down, run level 0' "$root/var/log/pelrix/log.ravd_a" >/dev/null ||
    fail "the module did not learn of the shutdown"
  boot
  inside systemctl -q is-active ravd || fail "not started at boot"
  inside test ! -e /etc/pelrix/RunLevel || fail "the run level is left after the boot"
  say "power off told to the module as run level 0; started again at boot"
}

removed_and_purged() {
  local pid
  pid=$(service_pid)
  documented 'apt-get remove -y ravd ravctl libravagent-dev libravagent3'
  if [ -z "$by_hand" ]; then
    ! inside test -e "/proc/$pid" || fail "removed, but process $pid runs"
  else
    inside kill "$pid"
    for _ in $(seq 50); do inside test -e /var/run/ravd.pid || break; sleep 0.1; done
  fi
  inside test ! -e /usr/sbin/ravd || fail "removed, but there is a daemon"
  inside test -e /var/log/pelrix/log.ravd || fail "a removal takes the traces away"
  inside test -e /etc/norrow/QuennetSuite/TraceConfig/ravd.ini || fail "a removal takes the configuration away"
  inside test -e /usr/lib/ravd/libswitch.so || fail "a removal takes the suite's library away"
  inside rm -r /usr/lib/ravd
  documented 'apt-get purge -y ravd'
}

nothing_is_left() {
  snapshot "$work/after"
  diff "$work/before" "$work/after" >"$work/difference" || fail "left behind: $(cat "$work/difference")"
  say "removed and purged: nothing is left"
}

[ "$(id -u)" = 0 ] || skip "not root"
unshare --mount --pid --fork --kill-child --uts --ipc --net --cgroup true 2>/dev/null || skip "no private namespaces here"
mkdir -p "$work"
timed() {
  local start=$SECONDS
  "$@"
  [ $((SECONDS - start)) -lt 3 ] || say "$1 took $((SECONDS - start)) s"
}
timed build_packages
timed packages_are_clean
timed make_root
timed fill_root
timed kit_builds_modules
timed clang_builds_them_too
timed programs_run my-modules/build
timed programs_run clang
# What the packages bring as dependencies is part of the machine before them.
prepare sh -euc 'apt-get purge -y -qq libravagent-dev libravagent3; cd /root/source/build/package
  apt-get install -y -qq --no-install-recommends pciutils $(apt-get install -s --no-install-recommends ./ravctl_*.deb ./ravd_*.deb ./libravagent3_*.deb ./ravd-modules_*.deb |
    awk "\$1 == \"Inst\" && \$2 !~ /^(lib)?rav/ { print \$2 }")' >"$work/apt.log" 2>&1 || fail "$(tail -n 5 "$work/apt.log")"
timed boot
snapshot "$work/before"
ravd_needs_no_library
documented 'apt-get install -y ./build/package/ravd_*.deb ./build/package/ravctl_*.deb'
documented 'apt-get install -y ./build/package/libravagent3_*.deb ./build/package/libravagent-dev_*.deb'
timed files_are_right
timed module_test_runs
waits_for_its_switch
timed distribution_test_passes
timed modules_do_work
put_switch
timed service_starts
timed service_is_confined
timed bundle_tells_of_the_service
timed documents_hold
timed service_stops
service start
timed service_comes_back_after_a_crash
timed upgrade_keeps_it_running
timed machine_goes_down_and_up
timed removed_and_purged
timed nothing_is_left
[ -n "$by_hand" ] || power_off
say "passed in $SECONDS s"
