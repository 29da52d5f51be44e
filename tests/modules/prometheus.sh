#!/bin/bash
# prometheus.sh RAVD SWITCH_DIRECTORY RULES RULES_TEST: promtool passes the alert rules; a real Prometheus scrapes a real
# daemon, in private directories and a network of its own. 77 where there is no Prometheus or no private namespace.
set -euo pipefail
command -v prometheus promtool >/dev/null || { echo "prometheus: it is not installed"; exit 77; }
unshare --map-root-user --mount --net true 2>/dev/null || { echo "prometheus: no private namespaces here"; exit 77; }
if [ "$1" != --inside ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  cp "$3" "$4" "$work"
  promtool check rules "$work/${3##*/}"
  promtool test rules "$work/${4##*/}"
  unshare --map-root-user --mount --net --pid --fork --kill-child --propagation private "$0" --inside "$1" "$2" "$work"
  exit
fi
ravd=$2 switch=$3 work=$4

fail() {
  echo "prometheus: $*" >&2
  tail -n 20 "$work/log" >&2
  exit 1
}

ip link set lo up
mount -t proc none /proc
for directory in /run /var/log; do mount -t tmpfs -o mode=0755 none $directory; done
[ -d /etc/pelrix ] || { mount -t tmpfs none /etc && mkdir /etc/pelrix && ln -s /proc/self/mounts /etc/mtab; }
mount -t tmpfs none /etc/pelrix
mkdir -p /run/lock /var/log/pelrix
printf '[metrics]\nTextFile=none\nListen=127.0.0.1:9469\nInterval=1\n' >/etc/pelrix/modules.ini
LD_LIBRARY_PATH=$switch "$ravd" -n &
cat >"$work/prometheus.yml" <<'YML'
global: {scrape_interval: 1s, evaluation_interval: 1s}
rule_files: [ravd.rules.yml]
scrape_configs:
  - job_name: ravd
    static_configs: [targets: ["127.0.0.1:9469"]]
YML
prometheus --config.file="$work/prometheus.yml" --storage.tsdb.path="$work/data" --web.listen-address=127.0.0.1:0 \
  >"$work/log" 2>&1 &
port=
for _ in $(seq 300); do
  port=$(sed -n 's/.*"Listening on" address=127.0.0.1:\([0-9]*\).*/\1/p; s/.*msg="Start listening for connections" address=127.0.0.1:\([1-9][0-9]*\).*/\1/p' "$work/log" | tail -n 1)
  [ -z "$port" ] || break
  sleep 0.1
done
[ -n "$port" ] || fail "does not listen"

ask() { # query; the value of its one series
  curl -sG "http://127.0.0.1:$port/api/v1/query" --data-urlencode "query=$1" |
    jq -r 'if (.data.result | length) == 1 then .data.result[0].value[1] else "none" end'
}
expect() { # query, value
  for _ in $(seq 300); do
    [ "$(ask "$1" 2>/dev/null)" != "$2" ] || return 0
    sleep 0.1
  done
  fail "$1 is $(ask "$1"), not $2"
}
expect 'up' 1
expect 'ravd_module_up{module="metrics"}' 1
expect 'sum(ravd_changes_total)' 0
expect 'count(ravd_interface_up{device="lo"})' 1
expect "ravd_memory_total_bytes" $((1024 * $(sed -n 's/^MemTotal: *\([0-9]*\) kB/\1/p' /proc/meminfo)))
expect "ravd_volume_size_bytes{mountpoint=\"/\"}" "$(df --output=size -B1 / | tail -n 1 | tr -d ' ')"
echo "prometheus: passed, $(ask 'scrape_samples_scraped') series"
