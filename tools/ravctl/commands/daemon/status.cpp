#include "ravctl/commands/daemon/status.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>

#include "platform/descriptor_io.h"
#include "platform/process.h"
#include "platform/unique_fd.h"
#include "ravctl/base/text.h"
#include "ravctl/line/command.h"

namespace ravctl {

namespace {

constexpr const char* kLockFile = "/var/lock/ravd.lock";
constexpr const char* kProgramName = "ravd";

std::string ReadSmallFile(const char* path, int& error) {
  std::string text;
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  error = file ? 0 : errno;
  if (file && !ReadToEnd(file.Get(), text)) error = errno;
  return text;
}

pid_t ParsePid(std::string_view text) {
  pid_t pid = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), pid);
  return result.ec == std::errc() && pid > 0 ? pid : 0;
}

// Start of the process in seconds since 1970: field 22 of its stat file counts clock ticks from the start of the
// system, which the kernel tells as a time of its own. So the answer is the same whenever the files are looked at.
int64_t StartTime(pid_t pid) {
  constexpr std::string_view kSystemStart = "\nbtime ";
  int error = 0;
  const std::string stat = ReadSmallFile(("/proc/" + std::to_string(pid) + "/stat").c_str(), error);
  const std::string system = ReadSmallFile("/proc/stat", error);
  const size_t start = system.find(kSystemStart);
  size_t at = stat.rfind(')');
  for (int field = 2; field < 22 && at != std::string::npos; ++field)
    at = stat.find(' ', at + 1);
  if (at == std::string::npos || start == std::string::npos) return 0;
  const auto ticks = static_cast<int64_t>(std::strtoull(stat.c_str() + at, nullptr, 10));
  return std::strtoll(system.c_str() + start + kSystemStart.size(), nullptr, 10) + ticks / ::sysconf(_SC_CLK_TCK);
}

std::string LocalTime(int64_t seconds) {
  const auto value = static_cast<time_t>(seconds);
  tm local{};
  std::array<char, 32> text{};
  if (seconds == 0 || localtime_r(&value, &local) == nullptr) return "";
  std::strftime(text.data(), text.size(), "%F %T", &local);
  return text.data();
}

ExitCode RunStatus(Output& out) {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  int error = 0;
  const std::string lock = ReadSmallFile(kLockFile, error);
  Json data = {{"running", daemon.has_value()},
               {"pid", daemon ? Json(daemon->pid) : Json()},
               {"executable", daemon && !daemon->executable.empty() ? Json(daemon->executable) : Json()},
               {"started", daemon && daemon->startedAt != 0 ? Json(LocalTime(daemon->startedAt)) : Json()},
               {"resident_kb", daemon ? Json(daemon->residentKb) : Json()},
               {"threads", daemon ? Json(daemon->threads) : Json()},
               {"pid_file", kPidFile},
               {"lock_owner", lock.empty() ? Json() : Json(lock)}};
  Table table({{.key = "name", .heading = "NAME"}, {.key = "value", .heading = "VALUE"}});
  for (const auto& [name, value] : data.items())
    table.Add({{"name", name}, {"value", value}});
  out.Print({"daemon-status"}, table, data);
  return daemon ? ExitCode::kDone : ExitCode::kNotRunning;
}

}  // namespace

std::optional<DaemonProcess> FindDaemon() {
  int error = 0;
  const std::string text = ReadSmallFile(kPidFile, error);
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

void RegisterDaemon(CLI::App& root) {
  CLI::App& daemon = AddGroup(root, "daemon", "The service daemon");
  AddCommand(daemon,
             {"status",
              "Show whether the daemon runs, and as what; exit status 6 when it does not",
              {{"ravctl daemon status", "process, memory and lock owner of the daemon"},
               {"ravctl daemon status --json | jq .data.pid", "its process number for a script"}}},
             [](Output& out) { return RunStatus(out); });
}

}  // namespace ravctl
