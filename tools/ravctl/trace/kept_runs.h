#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "ravctl/answer/json_name.h"

namespace ravctl {

// A run of the daemon that did not end with success: the service keeps its trace files in a directory of its own beside
// those of the present run (docs/trace-files.md tells its name and the file `exit` in it).
struct KeptRun {
  std::string path;         // "/var/log/pelrix/crash-20261125T024523Z"
  int64_t endedAt = 0;      // seconds since 1970, as the name of the directory tells
  std::string result = {};  // "core-dump", "exit-code"; like what follows, empty where `exit` does not tell it
  std::optional<unsigned int> status = {};
  std::string signal = {};  // "SEGV"
  std::optional<unsigned int> pid = {};
};

// The runs that are kept in the trace directory, newest first, the newest hundred at most. Others may have prepared
// what lies there: no symbolic link is followed, little is read of `exit`, and its values are cut to 64 bytes; they may
// hold any character. None where there is no such directory. Throws CommandError when it cannot be looked into.
std::vector<KeptRun> FindKeptRuns(const std::string& directory);

// Opens for reading a file in the directory of a kept run, "/var/log/pelrix/crash-20261125T024523Z/exit": a symbolic
// link at its name is refused, and one at that of the directory, whatever is exchanged meanwhile. On failure errno
// tells why.
UniqueFd OpenKept(const std::string& path);

// {"result", "status", "signal", "pid"}, null for what is not told.
Json EndOf(const KeptRun& run);

}  // namespace ravctl
