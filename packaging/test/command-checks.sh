#!/usr/bin/env bash
# command-checks.sh SOURCE BUILD: every command that the documents show is run as it stands. Blocks marked "sh" run here,
# each document from its start to its end, as root of a fixture: the machine's own programs, what `cmake --install` brings,
# the example switch as the suite's library, and this tree as working directory; nothing of that is written through.
# Blocks marked "console" need a whole machine or a build: each of their commands has to be one that the install test, the
# continuous run or this script runs.
set -euo pipefail
source=$1 build=$2
cd "$source"
documents=(README.md CONTRIBUTING.md docs/*.md)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "commands: $*" >&2
  exit 1
}

# The lines of the blocks with a mark, without the indentation of their fences.
blocks() { # mark, document
  awk -v mark="$1" '
    match($0, /^ *```/) && !open { open = 1; indent = RLENGTH - 3; wanted = substr($0, RLENGTH + 1) == mark; next }
    match($0, /^ *```$/) && open { open = 0; next }
    open && wanted { print substr($0, indent + 1) }' "$2"
}

every_block_is_marked() {
  local document mark
  for document in "${documents[@]}"; do
    for mark in $(awk 'match($0, /^ *```/) { if (open = !open) print "<" substr($0, RLENGTH + 1) ">" }' "$document"); do
      case $mark in "<sh>" | "<console>" | "<cpp>") ;; *) fail "$document: a block with the mark $mark" ;; esac
    done
    # What is indented is no place for commands: nobody would run them.
    ! grep -nE '^    +(\$ |\./|sudo |systemctl |journalctl |apt-get |cmake |ravctl |ravd |g\+\+ )[^ ]' <(
      awk 'match($0, /^ *```/) { open = !open } !open' "$document") || fail "$document: a command outside of a block"
  done
}

# "documented 'COMMAND'", with either quote, in one of the scripts; the module writer's guide is run block by block.
is_run_somewhere() { # command
  grep -qF -e "documented '$1'" -e "documented \"$1\"" packaging/test/install-test.sh .ci/run "$0"
}

machine_commands_are_run() {
  local document command
  grep -qxF 'guide=docs/module-writers-guide.md' packaging/test/install-test.sh || fail "the install test reads no guide"
  for document in "${documents[@]}"; do
    [ "$document" != docs/module-writers-guide.md ] || continue
    while read -r command; do
      is_run_somewhere "$command" || fail "$document: no test runs: $command"
    done < <(blocks console "$document")
  done
}

# --- The fixture ---------------------------------------------------------------------------------------------------------

stage() {
  DESTDIR=$work/stage cmake --install "$build" >/dev/null
  local prefix=$work/stage$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
  rm -rf "$prefix/lib/ravd" && mkdir "$prefix/lib/ravd"  # the example switch and its modules, no others
  cp -r "$build/examples/lib/." "$prefix/lib/ravd"
  echo "$prefix"
}


# Becomes the fixture and runs a script there. The commands of one document leave nothing to the next.
in_fixture() { # prefix, seconds, script
  timeout -k 5 "$2" unshare --mount --pid --fork --kill-child --ipc --uts bash -euc '
    prefix=$1 source=$2 script=$3 stage=$4
    mount --make-rprivate /
    root=$stage/../fixture
    mkdir -p "$root"
    mount -t tmpfs fixture "$root"
    cd "$root"
    mkdir -p usr etc var/run var/lock var/log var/lib/dpkg dev proc sys tmp run root upper old "./$source"
    for name in bin sbin lib lib32 lib64 libx32; do
      [ ! -L /$name ] || ln -s "$(readlink /$name)" $name
    done
    mount -t overlay overlay -o "lowerdir=$prefix:/usr" usr
    mkdir upper/data upper/work
    mount -t overlay overlay -o "lowerdir=$source,upperdir=upper/data,workdir=upper/work" "./$source"
    cp -a "$stage/etc/." etc
    cp -a "$stage/var/." var
    for name in passwd group ld.so.cache ld.so.conf nsswitch.conf localtime alternatives; do
      [ ! -e /etc/$name ] || cp -a /etc/$name etc
    done
    mount --bind -o ro /var/lib/dpkg var/lib/dpkg
    mount --rbind /sys sys
    mount --rbind /dev dev
    mount -t proc proc proc
    cp "$script" tmp/script
    pivot_root . old
    cd /
    umount -l /old
    cd "$source"
    export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
    exec bash -e /tmp/script' fixture "$1" "$source" "$3" "$work/stage"
}

# Each command shows itself, so that the one that failed is known. The module in the README is what its commands build.
run_document() { # prefix, document
  { echo 'set -xo pipefail'; blocks sh "$2"; } >"$work/script"
  [ "$(wc -l <"$work/script")" -gt 1 ] || return 0
  [ "$2" != README.md ] || {
    {
      echo 'cat >my_module.cpp <<"END_OF_MODULE"'
      blocks cpp README.md
      echo END_OF_MODULE
      blocks sh README.md
      declare -f documented
    } >"$work/script"
    cat >>"$work/script" <<'SCRIPT'
documented './dev run'
SCRIPT
  }
  in_fixture "$1" 150 "$work/script" >"$work/said" 2>&1 || fail "$2: $(tail -n 15 "$work/said")"
  [ "$2" != README.md ] || grep -F 'MyModule            : still here' "$work/said" >/dev/null ||
    fail "./dev run does not show the module of the README: $(tail -n 15 "$work/said")"
}

# In the fixture: a command that runs until Ctrl-C, here until its module traces.
documented() {
  local status=0
  env --default-signal=INT $1 >/tmp/shown 2>&1 &
  for _ in $(seq 1000); do
    ! grep -F 'MyModule            : still here' /tmp/shown >/dev/null && kill -0 $! && sleep 0.1 || break
  done
  kill -INT $!
  wait $! || status=$?
  cat /tmp/shown
  [ $status = 0 ] || { echo "$1 ended with $status"; exit 1; }
}

every_block_is_marked
machine_commands_are_run
if [ "$build" != "$source/build/dev" ]; then
  echo "commands: the documents speak of build/dev, this is $build: nothing was run"
  exit 77
fi
if [ "$(id -u)" != 0 ] || ! unshare --mount --pid --fork true 2>/dev/null; then
  echo "commands: no private namespaces here: nothing was run"
  exit 77
fi
prefix=$(stage)
for document in "${documents[@]}"; do
  run_document "$prefix" "$document"
done
echo "commands: passed"
