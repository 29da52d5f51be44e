#!/usr/bin/env bash
# boot-root.sh ROOT PROGRAM...: makes ROOT the root of this process, whose namespaces are its own, and becomes PROGRAM.
# What belongs to the kernel of the whole machine can be read there and not be written.
set -euo pipefail
root=$1
shift

bind_read_only() { # path below the root
  mount --bind "$1" "$1"
  mount -o remount,bind,ro "$1"
}

mount --make-rprivate /
mount --bind "$root" "$root"
cd "$root"
mount -t proc -o nosuid,noexec,nodev proc proc
for path in proc/sys proc/sysrq-trigger proc/irq proc/bus; do [ ! -e $path ] || bind_read_only $path; done
mount -t sysfs -o ro,nosuid,noexec,nodev sysfs sys
mount -t tmpfs -o mode=755,nosuid tmpfs dev
for node in null zero full random urandom tty; do : >dev/$node && mount --bind /dev/$node dev/$node; done
mkdir dev/pts dev/shm
mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd
mount -t tmpfs -o mode=1777 tmpfs dev/shm
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=1777 tmpfs tmp
mkdir run/lock
mount -t cgroup2 -o nosuid,noexec,nodev cgroup2 sys/fs/cgroup 2>/dev/null || true
pivot_root . mnt
cd /
# Lazily: the shell that runs this still lies on the old root.
umount -l /mnt
exec setpriv --bounding-set -sys_module,-sys_time,-syslog,-mac_admin,-mac_override \
  --inh-caps -sys_module,-sys_time,-syslog,-mac_admin,-mac_override \
  env -i container=private PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive "$@"
