#!/bin/sh
# Includes go one way. In src/ a file may include its own folder and the floors below, in tools/ravctl its own folder and
# those that stand before it in the list. Prints each include that goes another way; status 1 when there is one.
# Usage: include_order.sh SOURCE_TREE
cd "$1" || exit 2
grep -rn --include='*.h' --include='*.cpp' '^#include "' src tools/ravctl | awk '
function rank(list, step,    rows, number, names, count, i, j) {
  number = split(list, rows, ";")
  for (i = 1; i <= number; ++i) {
    count = split(rows[i], names, " ")
    for (j = 1; j <= count; ++j) step[names[j]] = i
  }
}
# The folder of a path; the files of the ground floor, which never trace, stand for one of their own.
function folder(path,    parts, name) {
  split(path, parts, "/")
  name = parts[2]
  sub(/\.(h|cpp)$/, "", name)
  return parts[1] == "platform" && name in ground ? "ground" : parts[1]
}
function complain(from, to) {
  print from ": may not include " to
  wrong = 1
}
BEGIN {
  split("export critical_section process descriptor_io regular_file replace_file mapped_copy cancellation unique_fd " \
        "never_destroyed owned_text child_start directory_stream text_cursor", names, " ")
  for (i in names) ground[names[i]] = 1
  rank("ground;trace;platform;registry firmware perfmon netif;pci;inventory;daemon", floor)
  rank("base;answer;line;daemon;tree;registry ini trace hardware network;report;commands", step)
}
{
  file = $0; sub(/:.*/, "", file)
  header = $0; sub(/^[^"]*"/, "", header); sub(/".*/, "", header)
}
file ~ /^src\// {
  from = folder(substr(file, 5)); to = folder(header)
  if (!(from in floor) || !(to in floor)) complain(file, header)
  else if (from != to && floor[to] >= floor[from]) complain(file, header)
  else if (from == "daemon" && floor[to] > floor["platform"] && to != from) complain(file, header)
}
file ~ /^tools\/ravctl\/[^\/]*\// && header ~ /^ravctl\// {
  from = folder(substr(file, 14)); to = folder(substr(header, 8))
  if (!(from in step) || !(to in step) || (from != to && step[to] >= step[from])) complain(file, header)
}
END { exit wrong }'
