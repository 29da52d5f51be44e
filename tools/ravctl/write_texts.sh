#!/bin/sh
# write_texts.sh RAVCTL DIRECTORY PAGE: what the built tool tells of itself, for the packages: completions and schemas in
# the directory, which is made anew, and the manual page.
set -eu
tool=$1 directory=$2 page=$3
rm -rf "$directory"
mkdir -p "$directory/schemas"
for name in $("$tool" schema -o name --no-headings); do
  "$tool" schema "$name" >"$directory/schemas/$name.json"
done
"$tool" completion bash >"$directory/ravctl"
"$tool" completion zsh >"$directory/_ravctl"
"$tool" completion fish >"$directory/ravctl.fish"
"$tool" man >"$page"
