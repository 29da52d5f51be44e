// What a full scan of a machine costs: adapters, drives and volumes of a generated tree that the program enters as its
// root. Beside it, for the machine at hand, the commands that tell the same: lspci -nn, lsblk -J and findmnt -J.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fixture_trees.h"
#include "inventory/system_device_scan.h"
#include "trace/debug.h"

namespace {

constexpr int kFunctionsPerBus = 32;
constexpr unsigned int kTimeoutMs = 10000;
// The first is about a two-socket server: so many adapters and half as many mounts.
constexpr std::array kSizes = {40, 250, 500, 1000};

const FixtureTrees* s_Trees = nullptr;

// Every eighth function is a network controller with an interface, every eighth a disk controller.
void MakeTree(int count) {
  std::string devices;
  for (int index = 0; index < count; ++index) {
    const int bus = index / kFunctionsPerBus;
    const int device = index % kFunctionsPerBus;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/bus/pci/%02x/%02x.0", bus, device);
    std::string header(256, '\0');
    header.replace(0, 4, "\x86\x80\x01\x10");
    header[11] = index % 8 == 0 ? '\x02' : index % 8 == 1 ? '\x01' : '\x05';
    s_Trees->Write(count, path, header);
    char line[128];
    std::snprintf(line, sizeof line, "%02x%02x\t80861001\tb\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\tdriver\n", bus,
                  device * 8);
    devices += line;
  }
  s_Trees->Write(count, "/proc/bus/pci/devices", devices);
  for (int interface = 0; interface < 3; ++interface) {
    s_Trees->Write(count, "/sys/class/net/eth" + std::to_string(interface) + "/address", "02:00:00:00:00:01\n");
  }
  std::string mounts = "/dev/sda1 / ext4 rw 0 0\n";
  for (int mount = 0; mount < count / 2; ++mount) {
    const std::string point = "/mnt/" + std::to_string(mount);
    s_Trees->Write(count, point + "/file", "");
    mounts += "/dev/sdb" + std::to_string(mount) + " " + point + " ext4 rw 0 0\n";
  }
  s_Trees->Write(count, "/etc/mtab", mounts);
  s_Trees->Write(count, "/proc/scsi/scsi", "Attached devices:\n");
  s_Trees->Write(count, "/var/log/pelrix/.keep", "");
}

void FullScan(benchmark::State& state, unsigned int level) {
  if (!s_Trees->Enter(state.range(0))) return state.SkipWithError("the tree cannot be entered");
  ::setenv("QN_LOG_FILE_MAX_SIZE", "10000000", 1);
  Debug.Init("bench");
  Debug.SetTarget(CDebug::kTargetLogFile);
  Debug.m_TraceLevelSaved = level;
  Debug.ForceMaxDebug(level > 0);
  CSystemDeviceScan scan;
  for (auto _ : state) {
    if (scan.ScanDevices(-1, false, kTimeoutMs) != 0) state.SkipWithError("the scan failed");
  }
  if (scan.GetAdapterCount() < static_cast<unsigned int>(state.range(0))) state.SkipWithError("adapters are missing");
  Debug.ForceMaxDebug(false);
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_MB"] = static_cast<double>(usage.ru_maxrss) / 1024;
  state.SetComplexityN(state.range(0));
}

void Command(benchmark::State& state, const char* command) {
  if (!s_Trees->Leave() || std::system((std::string(command) + " >/dev/null 2>&1").c_str()) != 0) {
    return state.SkipWithError("not installed here");
  }
  for (auto _ : state)
    benchmark::DoNotOptimize(std::system((std::string(command) + " >/dev/null").c_str()));
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : kSizes)
    benchmark->Arg(size);
  benchmark->Unit(benchmark::kMicrosecond)->UseRealTime()->Complexity(benchmark::oN);
}

BENCHMARK_CAPTURE(FullScan, trace_off, 0)->Apply(Sizes);
BENCHMARK_CAPTURE(FullScan, trace_level_3, 3)->Apply(Sizes);
BENCHMARK_CAPTURE(Command, lspci, "lspci -nn")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(Command, lsblk, "lsblk -J")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(Command, findmnt, "findmnt -J")->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const FixtureTrees trees;
  s_Trees = &trees;
  for (const int size : kSizes)
    MakeTree(size);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
