// A module switch that misbehaves as the environment variable ODD_SWITCH says, and always writes which of its
// operations was called. Built from the public headers alone, as any switch.

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "daemon/switch_interface.h"
#include "trace/debug.h"

namespace {

bool Does(const char* what) {
  const char* how = std::getenv("ODD_SWITCH");
  return how != nullptr && std::string(how).find(what) != std::string::npos;
}

class OddSwitch : public ISwitch {
 public:
  bool LoadModules(const _ExtensionModuleLoaderConfig& config) override {
    Debug.PrintAlways(0, "odd: load flags=%u mode=%u master=%d", config.Flags, config.RunMode, Debug.IsMaster());
    if (Does("throw")) throw std::runtime_error("cannot load");
    return !Does("fail");
  }
  bool UnloadModules(uint32_t argument) override {
    Debug.PrintAlways("odd: unload %u", argument);
    if (Does("throw")) throw 1;
    return true;
  }
  void StartModules() override { Debug.PrintAlways(0, "odd: start"); }
  void StopModules() override { Debug.PrintAlways(0, "odd: stop"); }
  void NotifyEvent(uint32_t event, void* data, void* reserved) override {
    Debug.PrintAlways(0, "odd: notify %08X level %d %d", event, data != nullptr ? *static_cast<int32_t*>(data) : -99,
                      reserved == nullptr);
  }
};

OddSwitch oddSwitch;

// Static objects of a module may trace while it is loaded and unloaded.
struct Tracer {
  Tracer() { Debug.PrintAlways(0, "odd: constructed"); }
  ~Tracer() { Debug.PrintAlways(0, "odd: destroyed"); }
} tracer;

}  // namespace

extern "C" __attribute__((visibility("default"))) void SW_Release() {
  Debug.PrintAlways(0, "odd: release");
}

extern "C" __attribute__((visibility("default"))) bool SW_QueryInterface(uint32_t, ISwitch** switchInterface) {
  *switchInterface = Does("null") ? nullptr : &oddSwitch;
  return !Does("refuse");
}
