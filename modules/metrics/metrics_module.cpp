// The module metrics: the machine's figures for Prometheus. docs/modules.md describes the page and the settings.

#include "daemon/version.h"
#include "metrics/metrics.h"
#include "switch/module_interface.h"

static std::unique_ptr<Metrics> metrics;

extern "C" {

__attribute__((visibility("default"))) extern const uint32_t ModuleInterface = kModuleInterface;
__attribute__((visibility("default"))) extern const char ModuleVersion[] = RAVD_VERSION;

__attribute__((visibility("default"))) bool ModuleStart() {
  metrics = std::make_unique<Metrics>(MetricsSettings::Read());
  if (metrics->Start()) return true;
  metrics.reset();
  return false;
}

__attribute__((visibility("default"))) void ModuleStop() {
  metrics.reset();
}
}
