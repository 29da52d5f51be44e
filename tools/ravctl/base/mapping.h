#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ravctl {

// A part of a file in the address space of a process.
struct Mapping {
  uint64_t begin = 0;
  uint64_t end = 0;
  uint64_t offset = 0;  // of the first byte in the file
  std::string path;     // with " (deleted)" behind it when the file is gone

  std::string Name() const { return path.substr(path.rfind('/') + 1); }
};

// A line of /proc/PID/maps (proc_pid_maps(5)); none for a mapping of no file.
//   "7f00-7fff r-xp 00001000 08:01 4711    /usr/lib/libx.so"
std::optional<Mapping> ParseMapping(const std::string& line);

// A whole text of hexadecimal digits.
std::optional<uint64_t> ParseHex(std::string_view text);

}  // namespace ravctl
