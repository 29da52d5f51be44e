// What a scan of the PCI functions costs beside the floor: opening, reading and closing the same files. The functions
// are files of a generated tree that the program enters as its root, so the figures leave out the bus traffic of real
// hardware, which the scan and the floor would share.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "fixture_trees.h"
#include "inventory/adapter_file.h"
#include "pci/device_bus_io.h"
#include "pci/pci_config_list.h"
#include "pci/pci_function_scan.h"

namespace {

constexpr int kFunctionsPerBus = 16;
constexpr std::array kSizes = {100, 250, 500, 1000};
constexpr int kNamedFunctions = 4096;  // the tree that has an adapter name file
constexpr size_t kAdapterFileSize = 1'800'000;

const FixtureTrees* s_Trees = nullptr;

std::string FunctionPath(int index) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/bus/pci/%02x/%02x.%x", index / kFunctionsPerBus,
                (index % kFunctionsPerBus) / 2, index % 2);
  return path;
}

// Every eighth function is a network controller, the rest are memory controllers; all have one memory range.
void MakeTree(int count) {
  std::string devices;
  for (int index = 0; index < count; ++index) {
    std::string header(256, '\0');
    header.replace(0, 4, "\x86\x80\x01\x10");
    header[11] = index % 8 == 0 ? '\x02' : '\x05';
    s_Trees->Write(count, FunctionPath(index), header);
    char line[128];
    std::snprintf(line, sizeof line, "%02x%02x\t80861001\tb\t%x\t0\t0\t0\t0\t0\t0\n", index / kFunctionsPerBus,
                  index % kFunctionsPerBus / 2 * 8 + index % 2, 0xD0000000U + static_cast<unsigned>(index) * 4096);
    devices += line;
  }
  s_Trees->Write(count, "/proc/bus/pci/devices", devices);
}

// Many vendors of a few devices each; the one of the functions comes last and does not know them.
void WriteAdapterFile(int count) {
  std::string text;
  char line[64];
  for (unsigned vendor = 1; text.size() < kAdapterFileSize; ++vendor) {
    std::snprintf(line, sizeof line, "[%04X]\nVendor=Vendor %u\n", vendor, vendor);
    text += line;
    for (unsigned device = 0; device < 30; ++device) {
      std::snprintf(line, sizeof line, "%04X=Adapter %u of that vendor\n", device, device);
      text += line;
    }
  }
  s_Trees->Write(count, "/etc/pelrix/Adapter.ini", text + "[8086]\nVendor=Last\n1002=Another\n");
}

bool Enter(benchmark::State& state) {
  if (s_Trees->Enter(state.range(0))) return true;
  state.SkipWithError("the tree cannot be entered");
  return false;
}

void Floor(benchmark::State& state) {
  if (!Enter(state)) return;
  std::vector<std::string> paths;
  for (int index = 0; index < state.range(0); ++index)
    paths.push_back(FunctionPath(index));
  for (auto _ : state) {
    for (const std::string& path : paths) {
      char header[64];
      const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      benchmark::DoNotOptimize(::read(fd, header, sizeof header));
      ::close(fd);
    }
  }
  state.SetComplexityN(state.range(0));
}

void Scan(benchmark::State& state, bool withSlots) {
  if (!Enter(state)) return;
  for (auto _ : state) {
    CPciConfigList list;
    CPciConfigList::ScanPciSlots(list, withSlots);
    if (list.size() != static_cast<size_t>(state.range(0))) state.SkipWithError("functions are missing");
  }
  state.SetComplexityN(state.range(0));
}

void NameList(benchmark::State& state) {
  if (!Enter(state)) return;
  for (auto _ : state) {
    CDeviceBusIo::NameList names;
    benchmark::DoNotOptimize(CDeviceBusIo::BuildPciDeviceNameList(names));
  }
  state.SetComplexityN(state.range(0));
}

// A refresh of the legacy tables, which are filled by the first round.
void LegacyTables(benchmark::State& state) {
  if (!Enter(state)) return;
  for (auto _ : state)
    ScanPciFunctions();
  state.SetComplexityN(state.range(0));
}

// What a dump of that many adapters asks the file.
void AdapterFiles(benchmark::State& state) {
  if (!Enter(state)) return;
  std::string name;
  for (auto _ : state) {
    for (int index = 0; index < state.range(0); ++index) {
      const CAdapterFile file;
      if (!file.GetVendorName(name, "8086", "")) state.SkipWithError("the vendor is missing");
      file.GetDeviceName(name, "8086", "", "10011002");
      file.GetDeviceName(name, "8086", "", "1001");
    }
  }
}

void Sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int size : kSizes)
    benchmark->Arg(size);
  benchmark->Unit(benchmark::kMicrosecond)->Complexity(benchmark::oN);
}

BENCHMARK(Floor)->Apply(Sizes);
BENCHMARK(NameList)->Apply(Sizes);
BENCHMARK_CAPTURE(Scan, without_slots, false)->Apply(Sizes);
BENCHMARK_CAPTURE(Scan, with_slots, true)->Apply(Sizes);
BENCHMARK(LegacyTables)->Apply(Sizes);
BENCHMARK(LegacyTables)->Name("LegacyTables/named")->Arg(kNamedFunctions)->Unit(benchmark::kMillisecond);
BENCHMARK(AdapterFiles)->Arg(kNamedFunctions)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const FixtureTrees trees;
  s_Trees = &trees;
  for (const int size : kSizes)
    MakeTree(size);
  MakeTree(kNamedFunctions);
  WriteAdapterFile(kNamedFunctions);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
