#pragma once

#include <sys/types.h>

#include <string>

#include "platform/unique_fd.h"

namespace ravctl {

// Waits until something happens in a directory, a process ends, the reader of the standard output is gone or the time
// is over. Where the system offers no watch (inotify) it waits for the time alone. A write through a mapping is nothing
// that happens in a directory.
class FileWatch {
 public:
  // pid: 0 = no process.
  FileWatch(const std::string& directory, pid_t pid);

  bool HasWatch() const { return static_cast<bool>(m_Watch); }
  bool IsProcessGone() const { return m_IsProcessGone; }
  // The standard output is a pipe that nobody reads from any more.
  bool IsReaderGone() const { return m_IsReaderGone; }
  // True when something happened in the directory, or when that cannot be told. timeoutMs: -1 = without end.
  bool Wait(int timeoutMs);

 private:
  UniqueFd m_Watch;
  UniqueFd m_Process;
  pid_t m_Pid;
  bool m_IsProcessGone = false;
  bool m_IsReaderGone = false;
};

}  // namespace ravctl
