#!/usr/bin/env bash
# module-test-checks.sh MODULE_TEST RAVD MODULE...: the module test takes the modules, and refuses one that leaves something
# behind, one that traces an error, one that does not start, one that ends the process and one that is slow to stop.
set -euo pipefail
module_test=$1 ravd=$2
shift 2
source=$(dirname "$(readlink -f "$0")")/../..
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "module-test-checks: $*" >&2
  exit 1
}

run() { # MODULE [SECONDS [STOP_MS]]; in an /etc of its own
  unshare --map-root-user --mount --propagation unchanged sh -euc \
    'mount -t tmpfs none /etc; mkdir /etc/pelrix; exec "$@"' sh "$module_test" "$ravd" "$@" >"$work/said" 2>&1
}

refused() { # what is said, what the module does at its start, what at its stop, MILLISECONDS
  printf '#include <fcntl.h>\n#include <stdlib.h>\n#include <unistd.h>\n#include <thread>\n#include "trace/debug.h"
    extern "C" bool ModuleStart() { %s return true; }\nextern "C" void ModuleStop() { %s }\n' "$2" "$3" >"$work/bad.cpp"
  g++ -std=c++20 -shared -fPIC -I"$source/src" "$work/bad.cpp" -o "$work/bad.so"
  ! run "$work/bad.so" 0 "$4" || fail "taken: $1"
  grep -aF "$1" "$work/said" >/dev/null || fail "expected '$1': $(tail -n 3 "$work/said")"
}

unshare --map-root-user --mount true 2>/dev/null || { echo "module-test-checks: no private namespaces here"; exit 77; }
for module in "$@"; do
  run "$module" 1 5000 || fail "$module: $(tail -n 20 "$work/said")"
done
refused 'Left behind: descriptor ' 'open("/dev/null", O_RDONLY);' '' 5000
refused 'Left behind: thread ' 'std::thread([] { pause(); }).detach();' '' 5000
refused 'traced an error' 'TRACE(1, "\\nBad                 : ERROR! no disk");' '' 5000
refused 'was not started' 'return false;' '' 5000
refused 'daemon' 'exit(3);' '' 5000
refused 'to stop, more than 200' '' 'usleep(300000);' 200
echo "module-test-checks: passed"
