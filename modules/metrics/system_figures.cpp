#include "metrics/system_figures.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <memory>

#include "base/whole_file.h"
#include "platform/ini_file.h"
#include "switch/module_interface.h"
#include "trace/debug.h"

namespace {

constexpr const char* kStat = "/proc/stat";
constexpr const char* kMeminfo = "/proc/meminfo";
constexpr const char* kNetDev = "/proc/net/dev";
constexpr const char* kOwnStat = "/proc/self/stat";
constexpr const char* kOwnDescriptors = "/proc/self/fd";
constexpr const char* kNetClass = "/sys/class/net/";
constexpr const char* kDeviceDirectories[] = {"/sys/bus/pci/devices", "/sys/block"};
constexpr uint64_t kBytesPerMegabit = 125'000;

std::string_view NextWord(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  const size_t end = std::min(text.find_first_of(" \t\n"), text.size());
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end);
  return word;
}

std::string_view NextLine(std::string_view& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

std::optional<uint64_t> ToNumber(std::string_view text) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

double Sum(const CpuSeconds& seconds) {
  double sum = 0;
  for (const double part : seconds)
    sum += part;
  return sum;
}

// Those of sysfs. The kernel says "unknown" of an interface without a link of its own that is up.
void AddProperties(InterfaceFigures& interface) {
  const std::string directory = kNetClass + interface.device + "/";
  interface.mac = ReadLine(directory + "address");
  char target[512];
  const ssize_t length = ::readlink((directory + "device").c_str(), target, sizeof target);
  const std::string device(target, length > 0 ? static_cast<size_t>(length) : 0);
  const std::string name = device.substr(device.rfind('/') + 1);
  if (name.size() >= 12 && name[name.size() - 2] == '.') {
    interface.address = name;
  } else if (!name.empty()) {  // a virtio device lies below its PCI function
    std::error_code error;
    const std::string parent =
        std::filesystem::canonical(directory + "device", error).parent_path().filename().string();
    if (parent.size() >= 12 && parent[parent.size() - 2] == '.') interface.address = parent;
  }
  const std::string state = ReadLine(directory + "operstate");
  if (!state.empty()) interface.isUp = state == "up" || state == "unknown";
  const std::optional<uint64_t> megabits = ToNumber(ReadLine(directory + "speed"));  // "-1" is no number
  // Some drivers say 2^32 - 1 for a link that is down.
  if (megabits && *megabits > 0 && *megabits < UINT32_MAX) interface.speed = *megabits * kBytesPerMegabit;
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

std::vector<InterfaceFigures> ParseInterfaces(std::string_view text) {
  std::vector<InterfaceFigures> interfaces;
  while (!text.empty()) {
    std::string_view line = NextLine(text);
    const size_t colon = line.rfind(':');
    if (colon == std::string_view::npos) continue;  // the headings
    std::string_view name = line.substr(0, colon);
    InterfaceFigures interface;
    interface.device = NextWord(name);
    line.remove_prefix(colon + 1);
    interface.received = ToNumber(NextWord(line));
    for (int column = 1; column < 8; ++column)
      NextWord(line);
    interface.sent = ToNumber(NextWord(line));
    if (!interface.device.empty()) interfaces.push_back(std::move(interface));
  }
  return interfaces;
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
  figures.interfaces = ParseInterfaces(ReadWhole(kNetDev).value_or(""));
  std::ranges::for_each(figures.interfaces, AddProperties);
  std::ranges::sort(figures.interfaces, {}, [](const InterfaceFigures& interface) {
    return std::pair(interface.address.empty(), interface.device);
  });
  if (figures.interfaces.size() > kMaxInterfaces) figures.interfaces.resize(kMaxInterfaces);
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

std::string ListDevices() {
  std::vector<std::string> names;
  for (const char* directory : kDeviceDirectories) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error))
      names.push_back(entry->path().string());
  }
  std::ranges::sort(names);
  std::string list;
  for (const std::string& name : names)
    list += name + '\n';
  return list;
}
