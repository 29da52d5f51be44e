#include "metrics/system_figures.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "base/text_cursor.h"
#include "base/whole_file.h"
#include "platform/ini_file.h"
#include "switch/module_interface.h"
#include "trace/debug.h"

namespace {

constexpr const char* kStat = "/proc/stat";
constexpr const char* kMeminfo = "/proc/meminfo";
constexpr const char* kOwnStat = "/proc/self/stat";
constexpr const char* kOwnDescriptors = "/proc/self/fd";

double Sum(const CpuSeconds& seconds) {
  double sum = 0;
  for (const double part : seconds)
    sum += part;
  return sum;
}

std::optional<uint64_t> CountEntries(const char* directory) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(directory), ::closedir);
  if (stream == nullptr) return std::nullopt;
  uint64_t count = 0;
  while (const dirent* entry = ::readdir(stream.get()))
    count += entry->d_name[0] != '.';
  return count - 1;  // that of the stream itself
}

double BootTime(std::string_view stat) {
  const size_t at = stat.find("\nbtime ");
  if (at == std::string_view::npos) return 0;
  stat.remove_prefix(at + 7);
  return static_cast<double>(ToNumber(NextWord(stat)).value_or(0));
}

// The fields of proc(5) behind the name of the command, which may hold anything.
ProcessFigures SampleProcess(double ticksPerSecond, double bootTime) {
  ProcessFigures process;
  const std::string text = ReadWhole(kOwnStat).value_or("");
  const size_t end = text.rfind(')');
  if (end == std::string::npos) return process;
  std::string_view rest = std::string_view(text).substr(end + 1);
  std::array<std::optional<uint64_t>, 25> field;  // from the third on
  for (size_t i = 3; i < field.size(); ++i)
    field[i] = ToNumber(NextWord(rest));
  if (field[14] && field[15]) process.cpuSeconds = static_cast<double>(*field[14] + *field[15]) / ticksPerSecond;
  if (field[22] && bootTime > 0) process.startTime = bootTime + static_cast<double>(*field[22]) / ticksPerSecond;
  if (field[24]) process.residentBytes = *field[24] * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  process.threads = field[20];
  process.virtualBytes = field[23];
  process.openFiles = CountEntries(kOwnDescriptors);
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) process.maxFiles = limit.rlim_cur;
  return process;
}

}  // namespace

bool ParseCpu(std::string_view text, double ticksPerSecond, CpuSeconds& seconds) {
  std::string_view line = NextLine(text);
  if (NextWord(line) != "cpu") return false;
  CpuSeconds found{};
  for (double& part : found) {
    const std::optional<uint64_t> ticks = ToNumber(NextWord(line));
    if (!ticks) return false;
    part = static_cast<double>(*ticks) / ticksPerSecond;
  }
  seconds = found;
  return true;
}

std::optional<double> BusyBetween(const CpuSeconds& before, const CpuSeconds& now) {
  constexpr size_t kIdle = 3, kIoWait = 4;
  const double all = Sum(now) - Sum(before);
  const double idle = now[kIdle] + now[kIoWait] - before[kIdle] - before[kIoWait];
  if (all <= 0) return std::nullopt;
  return std::clamp((all - idle) / all, 0.0, 1.0);
}

MemoryFigures ParseMemory(std::string_view text) {
  MemoryFigures memory;
  const std::pair<std::string_view, std::optional<uint64_t>*> wanted[] = {{"MemTotal:", &memory.total},
                                                                          {"MemAvailable:", &memory.available},
                                                                          {"SwapTotal:", &memory.swapTotal},
                                                                          {"SwapFree:", &memory.swapFree}};
  while (!text.empty()) {
    std::string_view line = NextLine(text);
    const std::string_view key = NextWord(line);
    for (const auto& [name, value] : wanted) {
      if (key != name) continue;
      if (const std::optional<uint64_t> kilobytes = ToNumber(NextWord(line))) *value = *kilobytes * 1024;
    }
  }
  return memory;
}

void SampleSystem(Figures& figures) {
  const double ticksPerSecond = static_cast<double>(::sysconf(_SC_CLK_TCK));
  const std::string stat = ReadWhole(kStat).value_or("");
  const std::optional<CpuSeconds> before = std::exchange(figures.cpu, std::nullopt);
  CpuSeconds now;
  figures.cpuBusy.reset();
  if (ParseCpu(stat, ticksPerSecond, now)) {
    if (before) figures.cpuBusy = BusyBetween(*before, now);
    figures.cpu = now;
  }
  figures.memory = ParseMemory(ReadWhole(kMeminfo).value_or(""));
  figures.process = SampleProcess(ticksPerSecond, BootTime(stat));
  figures.isTracing = Debug.m_TraceActive.load(std::memory_order_relaxed);
  figures.traceLevel = Debug.m_TraceLevel.load(std::memory_order_relaxed);
  figures.interfaces = ReadInterfaces();
}

std::vector<ModuleFigures> ReadModules() {
  CIniFile states;
  states.Open(kModuleStates);
  std::vector<std::string> names;
  states.GetSections(names);
  std::vector<ModuleFigures> modules;
  for (const std::string& name : names) {
    ModuleFigures module{name, "", "", false};
    std::string state;
    states.GetString(state, name.c_str(), "State", "");
    if (state.empty()) continue;  // the daemon's section
    states.GetString(module.version, name.c_str(), "Version", "");
    states.GetString(module.buildId, name.c_str(), "BuildId", "");
    module.isRunning = state == "running";
    modules.push_back(std::move(module));
  }
  return modules;
}
