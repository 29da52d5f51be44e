#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "machine/interfaces.h"
#include "machine/machine_record.h"

// All that a page tells, as plain values. What is not known is absent, never a number that stands for it.

// Seconds since the start of the machine, in the order of the first line of /proc/stat.
inline constexpr std::array<const char*, 8> kCpuModes = {"user",   "nice", "system",  "idle",
                                                         "iowait", "irq",  "softirq", "steal"};
using CpuSeconds = std::array<double, kCpuModes.size()>;

struct MemoryFigures {
  std::optional<uint64_t> total, available, swapTotal, swapFree;  // bytes
};

struct ProcessFigures {
  std::optional<double> cpuSeconds, startTime;
  std::optional<uint64_t> residentBytes, virtualBytes, openFiles, maxFiles, threads;
};

struct ModuleFigures {
  std::string name, version, buildId;
  bool isRunning = false;
};

struct Figures {
  std::string version;     // of this package
  MachineRecords machine;  // of machine_scan.h
  MachineRecords volumes;
  std::vector<InterfaceFigures> interfaces;
  std::optional<CpuSeconds> cpu;
  std::optional<double> cpuBusy;  // of the last interval, 0 to 1
  MemoryFigures memory;
  ProcessFigures process;
  std::vector<ModuleFigures> modules;
  std::map<std::pair<std::string, std::string>, uint64_t> changes;  // by kind and change, since the start
  std::optional<time_t> lastChange;
  std::optional<bool> isTracing;
  std::optional<uint32_t> traceLevel;
};
