#pragma once

#include <string_view>

#include "metrics/figures.h"

// The figures that change all the time, from /proc and /sys. One thread; what cannot be read or understood is absent.

// The first line of /proc/stat; false without one. "cpu  10 20 30 40 0 0 0 0" at 100 ticks a second => {0.1, 0.2, ...}
bool ParseCpu(std::string_view text, double ticksPerSecond, CpuSeconds& seconds);
// Share of the time between two samples that was neither idle nor waited for a disk; nothing when no time has passed.
std::optional<double> BusyBetween(const CpuSeconds& before, const CpuSeconds& now);
// /proc/meminfo.
MemoryFigures ParseMemory(std::string_view text);
// Fills cpu, memory, interfaces, process and trace; cpuBusy against the sample that the figures held.
void SampleSystem(Figures& figures);

// What the switch says of its modules (kModuleStates).
std::vector<ModuleFigures> ReadModules();
