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

// Of the stat file of a process, with the blank before it; fields from the third on, the first behind the name.
size_t FieldOf(const std::string& stat, int wanted) {
  size_t at = stat.rfind(')');
  for (int field = 2; field < wanted && at != std::string::npos; ++field)
    at = stat.find(' ', at + 1);
  return at;
}

// Whether it has ended, and its parent has not asked how: a container without an init keeps it for ever.
bool HasEnded(const std::string& stat) {
  const size_t state = FieldOf(stat, 3);
  return state != std::string::npos && stat.find_first_of("ZX", state) == state + 1;
}

// Start of the process in seconds since 1970: field 22 of its stat file counts clock ticks from the start of the
// system, which the kernel tells as a time of its own. So the answer is the same whenever the files are looked at.
int64_t StartTime(const std::string& stat) {
  constexpr std::string_view kSystemStart = "\nbtime ";
  std::string system;
  ReadFileInto("/proc/stat", system);
  const size_t start = system.find(kSystemStart);
  const size_t at = FieldOf(stat, 22);
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
  std::string stat;
  ReadFileInto("/proc/" + std::to_string(daemon.pid) + "/stat", stat);
  if (HasEnded(stat)) return std::nullopt;
  CProcess::GetProcessPath(daemon.executable, pid);
  uint64_t threads = 0;
  CProcess::GetProcessMemorySpecificInfo(pid, daemon.residentKb, "VmRSS:", CProcess::kilobytes);
  CProcess::GetProcessMemorySpecificInfo(pid, threads, "Threads:", CProcess::bytes);
  daemon.threads = static_cast<unsigned int>(threads);
  daemon.startedAt = StartTime(stat);
  return daemon;
}

}  // namespace ravctl
