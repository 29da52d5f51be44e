// A module on the library: it traces the load of the machine, at an interval that an INI file says, and keeps the
// highest one in the registry, where other modules of the process see it at once.

#include <algorithm>
#include <memory>

#include "perfmon/perf_mon.h"
#include "platform/ini_file.h"
#include "registry/registry.h"
#include "switch/module.h"
#include "trace/debug.h"

static std::unique_ptr<CPerfMon> monitor;

extern "C" {

__attribute__((visibility("default"))) bool ModuleStart() {
  CIniFile settings;
  settings.Open("/etc/pelrix/machine_load.ini");
  const uint32_t intervalMs = settings.GetNumber("MachineLoad", "IntervalMs", 1000);
  monitor = std::make_unique<CPerfMon>(60);
  TRACE(2, "\nMachineLoad         : a sample each %u ms", intervalMs);
  return monitor->StartMonitoring(CPerfMon::systemCpu, intervalMs);
}

__attribute__((visibility("default"))) void ModuleStop() {
  unsigned char percent = 0;
  monitor->GetAveragePercent(CPerfMon::cpuUsed, percent, 0);
  monitor.reset();  // no thread is left
  unsigned int highest = 0;
  CRegistry registry;
  registry.Open("", nullptr);  // the root
  registry.CreateKey(nullptr, "HKEY_LOCAL_MACHINE\\SOFTWARE\\Examples\\MachineLoad");
  registry.QueryValue(&highest, "Highest");
  highest = std::max<unsigned int>(highest, percent);
  registry.SetValue("Highest", highest);
  TRACE(2, "\nMachineLoad         : %u %% on average, at most %u %% so far", percent, highest);
}
}
