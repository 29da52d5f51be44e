#include "daemon/pid_file.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "daemon/daemon_name.h"
#include "platform/regular_file.h"
#include "trace/debug.h"

namespace {

constexpr const char* kPidFile = "/var/run/ravd.pid";
constexpr mode_t kPidFileMode = 0666;  // before the umask

// 0, or the errno of what failed.
int WriteFile(const std::string& text) {
  const UniqueFd file = OpenRegularFile(kPidFile, O_WRONLY | O_CREAT | O_TRUNC, kPidFileMode);
  if (!file) return errno;
  const ssize_t written = ::write(file.Get(), text.data(), text.size());
  if (written < 0) return errno;
  return written == static_cast<ssize_t>(text.size()) ? 0 : ENOSPC;
}

}  // namespace

void WritePidFile() {
  const int pid = ::getpid();
  const int error = WriteFile(std::to_string(pid) + "\n");
  if (error == 0) {
    TRACE(2, "%s-MAIN: ravd PID file %s created; ravd PID = %d", kDaemonName, kPidFile, pid);
    return;
  }
  TRACE(1, "%s-MAIN: ERROR! Cannot create ravd PID file %s for ravd PID %d (errno=%d)!", kDaemonName, kPidFile, pid,
        error);
  ::syslog(LOG_ERR, "Cannot create ravd PID file %s for ravd PID %d (errno = %d)!", kPidFile, pid, error);
}

void RemovePidFile() {
  ::unlink(kPidFile);
}
