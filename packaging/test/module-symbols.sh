#!/usr/bin/env bash
# module-symbols.sh FILE...: of all that a module leaves to others, only the trace object is the daemon's.
set -euo pipefail

for file in "$@"; do
  # Everything that names the trace classes has to be inside; the object itself comes from the executable.
  left=$(nm -DC --undefined-only "$file" | grep -E 'CDebug|CCriticalSection|ResidentMemory|ISwitch' || true)
  [ -z "$left" ] || { echo "$file needs what the daemon does not export: $left" >&2; exit 1; }
  nm -D --undefined-only "$file" | grep -E ' U Debug$' >/dev/null || { echo "$file does not trace" >&2; exit 1; }
done
