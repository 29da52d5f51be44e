#!/bin/sh
# browser.sh RAVCTL MACHINES DIRECTORY: the pages of `ravctl report` of the machines that MACHINES writes, in Debian's
# chromium; browser.mjs has the checks. Pages and pictures stay in the directory. Status 77 with the reason where there
# is no browser, where what drives it cannot be fetched, and where no captured tree can be entered.
set -eu
ravctl=$1 machines=$2 directory=$3
here=$(dirname "$(readlink -f "$0")")
skip() {
  echo "skipped: $*"
  exit 77
}
for program in chromium node npm; do
  command -v $program >/dev/null || skip "there is no $program"
done
rm -rf "$directory"
mkdir -p "$directory" "$directory.tools"
[ -d "$directory.tools/node_modules/axe-core" ] && [ -d "$directory.tools/node_modules/playwright-core" ] ||
  timeout 120 npm install --prefix "$directory.tools" --no-save --no-audit --no-fund --ignore-scripts \
    playwright-core@1.56.1 axe-core@4.11.0 >"$directory/npm.log" 2>&1 ||
  skip "npm cannot fetch playwright-core and axe-core: $(tail -n 1 "$directory/npm.log")"
mkdir "$directory/empty"
"$ravctl" --sysroot "$directory/empty" trace list >"$directory/empty.log" 2>&1 || [ $? -ne 3 ] ||
  skip "no captured tree can be entered: $(tail -n 1 "$directory/empty.log")"
exec node --test-reporter=tap "$here/browser.mjs" "$ravctl" "$machines" "$directory"
