#include "ravctl/daemon/process.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>

#include "platform/process.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"

namespace ravctl {

namespace {

constexpr const char* kProgramName = "ravd";

pid_t ParsePid(std::string_view text) {
  pid_t pid = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), pid);
  return result.ec == std::errc() && pid > 0 ? pid : 0;
}

// Start of the process in seconds since 1970: field 22 of its stat file counts clock ticks from the start of the
// system, which the kernel tells as a time of its own. So the answer is the same whenever the files are looked at.
int64_t StartTime(pid_t pid) {
  constexpr std::string_view kSystemStart = "\nbtime ";
  std::string stat, system;
  ReadFileInto("/proc/" + std::to_string(pid) + "/stat", stat);
  ReadFileInto("/proc/stat", system);
  const size_t start = system.find(kSystemStart);
  size_t at = stat.rfind(')');
  for (int field = 2; field < 22 && at != std::string::npos; ++field)
    at = stat.find(' ', at + 1);
  if (at == std::string::npos || start == std::string::npos) return 0;
  const auto ticks = static_cast<int64_t>(std::strtoull(stat.c_str() + at, nullptr, 10));
  return std::strtoll(system.c_str() + start + kSystemStart.size(), nullptr, 10) + ticks / ::sysconf(_SC_CLK_TCK);
}

}  // namespace

std::optional<DaemonProcess> FindDaemon() {
  std::string text;
  const int error = ReadFileInto(kPidFile, text);
  if (error != 0 && error != ENOENT) throw SystemFailure("cannot read the PID file", kPidFile, error);
  DaemonProcess daemon;
  daemon.pid = ParsePid(text);
  std::string name;
  // A PID file that outlived its daemon may name any process by now.
  if (daemon.pid == 0 || !CProcess::GetProcessName(name, static_cast<uint32_t>(daemon.pid)) || name != kProgramName) {
    return std::nullopt;
  }
  const auto pid = static_cast<uint32_t>(daemon.pid);
  CProcess::GetProcessPath(daemon.executable, pid);
  uint64_t threads = 0;
  CProcess::GetProcessMemorySpecificInfo(pid, daemon.residentKb, "VmRSS:", CProcess::bytes);
  CProcess::GetProcessMemorySpecificInfo(pid, threads, "Threads:", CProcess::bytes);
  daemon.threads = static_cast<unsigned int>(threads);
  daemon.startedAt = StartTime(daemon.pid);
  return daemon;
}

}  // namespace ravctl
