// What a full scan of a machine costs: in a process of its own, as a client does that takes one inventory, and repeated
// in a process that has scanned before. The machines are generated trees that a process enters as its root; beside them
// stands this machine, scanned by a process of its own and by the tools that tell about PCI functions, block devices
// and mounts.
//
// Mounts: a table of that many mounts, read anew (read) and asked for its sizes once more (scan), as each minute does.
//
// fresh: the program starts itself with "--scan <tree> <trace level>" and reports that process' CPU time and memory.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fixture_trees.h"
#include "inventory/mount_table.h"
#include "inventory/system_device_scan.h"
#include "trace/debug.h"

namespace {

namespace fs = std::filesystem;

constexpr int kFunctionsPerBus = 16;
constexpr int kServer = 64;  // the functions of a machine with two sockets
constexpr std::array kSizes = {kServer, 250, 500, 1000};
constexpr std::array kMountTables = {400, 4000, 40'000};
constexpr unsigned int kTimeoutMs = 60'000;
constexpr const char* kMachine = "/";

const FixtureTrees* s_Trees = nullptr;
std::string s_Program;

void Link(int functions, const std::string& path, const std::string& target) {
  fs::create_symlink(target, s_Trees->Path(functions) + path);
}

template <typename... Values>
std::string Format(const char* format, Values... values) {
  char text[256];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// Every sixteenth function is a network controller with an interface, every eighth an NVMe drive, the rest RAID
// controllers; half as many mounts as functions.
void MakeTree(int functions) {
  std::string devices;
  std::string mounts;
  fs::create_directories(s_Trees->Path(functions) + "/sys/block");
  for (int index = 0; index < functions; ++index) {
    const int bus = index / kFunctionsPerBus;
    const int device = index % kFunctionsPerBus / 2;
    const int function = index % 2;
    std::string header(256, '\0');
    header.replace(0, 4, "\x86\x80\x21\x15");
    header[11] = index % 16 == 0 ? '\x02' : '\x01';
    header[10] = index % 16 == 0 ? '\x00' : index % 8 == 1 ? '\x08' : '\x04';
    s_Trees->Write(functions, Format("/proc/bus/pci/%02x/%02x.%x", bus, device, function), header);
    devices += Format("%02x%02x\t80861521\tb", bus, device * 8 + function);
    for (int field = 0; field < 14; ++field)
      devices += "\t               0";
    devices += "\tdriver\n";
    const std::string link = Format("../../../0000:%02x:%02x.%x", bus, device, function);
    if (index % 16 == 0) {
      const std::string interface = "/sys/class/net/eth" + std::to_string(index);
      s_Trees->Write(functions, interface + "/address", "02:00:00:00:00:01\n");
      Link(functions, interface + "/device", link);
    } else if (index % 8 == 1) {
      Link(functions, "/sys/block/nvme" + std::to_string(index) + "n1",
           "../devices/pci0000:00" + link.substr(8) + "/nvme/nvme0/x");
    }
    if (index % 2 == 0) mounts += Format("/dev/sda%d /mnt/%d ext4 rw 0 0\n", index, index);
  }
  s_Trees->Write(functions, "/proc/bus/pci/devices", devices);
  s_Trees->Write(functions, "/etc/mtab", mounts);
  s_Trees->Write(functions, "/var/log/pelrix/.keep", "");
}

// In no order, as containers come and go.
void MakeMountTable(int mounts) {
  std::string text;
  for (int index = 0; index < mounts; ++index) {
    const int number = static_cast<int>(int64_t{index} * 7919 % mounts);
    text += Format("overlay /var/lib/containers/%06d/merged overlay rw,relatime 0 0\n", number);
  }
  s_Trees->Write(mounts, "/etc/mtab", text);
  // Older than a minute, and the larger table the later one: a process reads no table that is not newer.
  const auto age = std::chrono::hours(1000'000 / mounts);
  fs::last_write_time(s_Trees->Path(mounts) + "/etc/mtab", fs::file_time_type::clock::now() - age);
}

void TraceToLogFile(unsigned int level) {
  if (level == 0) return;
  ::setenv("QN_LOG_FILE_MAX_SIZE", "1000000000", 1);
  Debug.Init("bench");
  Debug.SetTarget(CDebug::kTargetLogFile);
  Debug.m_TraceLevelSaved = level;
  Debug.ForceMaxDebug(true);
}

bool FullScan(CSystemDeviceScan& scan) {
  return scan.ScanHardware(-1, false, kTimeoutMs, nullptr) == 0;
}

// The whole life of the process that takes one inventory.
int RunScan(const char* tree, const char* level) {
  if (::chroot(tree) != 0 || ::chdir("/") != 0) return 1;
  TraceToLogFile(static_cast<unsigned int>(std::atoi(level)));
  CSystemDeviceScan scan;
  return FullScan(scan) ? 0 : 1;
}

// Runs a program to its end with its output thrown away.
bool RunProgram(std::vector<std::string> arguments, rusage& usage) {
  std::vector<char*> argv;
  for (std::string& argument : arguments)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int error = ::posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return error == 0 && ::wait4(child, &status, 0, &usage) == child && status == 0;
}

double Milliseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

void Measure(benchmark::State& state, const std::vector<std::vector<std::string>>& programs) {
  if (!s_Trees->Leave()) state.SkipWithError("the tree cannot be left");
  double cpu = 0;
  long peak = 0;
  for (auto _ : state) {
    for (const std::vector<std::string>& program : programs) {
      rusage usage{};
      if (!RunProgram(program, usage)) state.SkipWithError((program[0] + " is missing or failed").c_str());
      cpu += Milliseconds(usage.ru_utime) + Milliseconds(usage.ru_stime);
      peak = std::max(peak, usage.ru_maxrss);
    }
  }
  state.counters["cpu_ms"] = benchmark::Counter(cpu, benchmark::Counter::kAvgIterations);
  state.counters["peak_kb"] = static_cast<double>(peak);
}

void Fresh(benchmark::State& state, const char* level) {
  Measure(state, {{s_Program, "--scan", s_Trees->Path(state.range(0)), level}});
}

void ThisMachine(benchmark::State& state) {
  Measure(state, {{s_Program, "--scan", kMachine, "0"}});
}

void Tools(benchmark::State& state) {
  Measure(state, {{"lspci", "-nn"}, {"lsblk", "-J"}, {"findmnt", "-J"}});
}

void Repeated(benchmark::State& state, unsigned int level) {
  if (!s_Trees->Enter(state.range(0))) state.SkipWithError("the tree cannot be entered");
  TraceToLogFile(level);
  CSystemDeviceScan scan;
  for (auto _ : state) {
    if (!FullScan(scan)) state.SkipWithError("the scan failed");
  }
  if (scan.GetAdapterCount() != static_cast<unsigned int>(state.range(0))) state.SkipWithError("adapters are missing");
  if (level != 0) Debug.ForceMaxDebug(false);
  state.SetComplexityN(state.range(0));
}

void Mounts(benchmark::State& state, bool isRead) {
  if (!s_Trees->Enter(state.range(0))) state.SkipWithError("the tree cannot be entered");
  std::vector<CSystemVolume> volumes;
  if (!isRead && build_fs_table() != state.range(0)) state.SkipWithError("mounts are missing");
  for (auto _ : state) {
    if (isRead && get_mount_table("/etc/mtab", kMountedList) != state.range(0)) state.SkipWithError("not read");
    if (isRead) continue;
    volumes.clear();
    CSystemVolume::ScanSystemVolumes(volumes);
  }
  state.SetComplexityN(state.range(0));
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : kSizes)
    benchmark->Arg(size);
  benchmark->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);
}

void MountTables(benchmark::internal::Benchmark* benchmark) {
  for (const int size : kMountTables)
    benchmark->Arg(size);
  benchmark->Unit(benchmark::kMillisecond)->UseRealTime()->Complexity(benchmark::oN);
}

BENCHMARK(ThisMachine)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Tools)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Fresh, trace_off, "0")->Arg(kServer)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Fresh, trace_3, "3")->Arg(kServer)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Mounts, read, true)->Apply(MountTables);
BENCHMARK_CAPTURE(Mounts, scan, false)->Apply(MountTables);
BENCHMARK_CAPTURE(Repeated, trace_off, 0U)->Apply(Sizes);
BENCHMARK_CAPTURE(Repeated, trace_3, 3U)->Arg(kServer)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--scan") == 0) return RunScan(argv[2], argv[3]);
  benchmark::Initialize(&argc, argv);
  s_Program = fs::canonical("/proc/self/exe").string();
  const FixtureTrees trees;
  s_Trees = &trees;
  for (const int size : kSizes)
    MakeTree(size);
  for (const int size : kMountTables)
    MakeMountTable(size);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
