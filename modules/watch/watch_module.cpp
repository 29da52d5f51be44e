// The module watch: tells what has come, gone or changed. docs/modules.md describes what and where.

#include "daemon/version.h"
#include "switch/module_interface.h"
#include "watch/watch.h"

static std::unique_ptr<Watch> watch;

extern "C" {

__attribute__((visibility("default"))) extern const uint32_t ModuleInterface = kModuleInterface;
__attribute__((visibility("default"))) extern const char ModuleVersion[] = RAVD_VERSION;

__attribute__((visibility("default"))) bool ModuleStart() {
  watch = std::make_unique<Watch>(WatchSettings::Read());
  watch->Start();
  return true;
}

__attribute__((visibility("default"))) void ModuleStop() {
  watch.reset();
}
}
