#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace ravctl {

inline constexpr const char* kPidFile = "/var/run/ravd.pid";
inline constexpr const char* kLockFile = "/var/lock/ravd.lock";

// The daemon as its PID file and /proc tell.
struct DaemonProcess {
  pid_t pid = 0;
  std::string executable;  // empty when that cannot be told
  uint64_t residentKb = 0;
  unsigned int threads = 0;
  int64_t startedAt = 0;  // seconds since 1970, 0 when not known
};

// The running daemon; nullopt when there is no PID file or its process is gone, has ended, or is another program.
// Throws CommandError when the PID file cannot be read.
std::optional<DaemonProcess> FindDaemon();

}  // namespace ravctl
