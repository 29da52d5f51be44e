// A module switch that does one thing wrong, named by the environment variable BAD_SWITCH.

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "daemon/switch_interface.h"
#include "trace/debug.h"

namespace {

bool Does(const char* what) {
  const char* how = std::getenv("BAD_SWITCH");
  return how != nullptr && std::strcmp(how, what) == 0;
}

void Enter(const char* operation) {
  Debug.PrintAlways(0, "bad: %s", operation);
  if (Does(operation)) throw std::runtime_error("the switch is broken");
}

class BadSwitch : public ISwitch {
 public:
  bool LoadModules(const _ExtensionModuleLoaderConfig&) override {
    Enter("load");
    return !Does("no modules");
  }
  bool UnloadModules(uint32_t) override {
    Enter("unload");
    return true;
  }
  void StartModules() override {
    Enter("start");
    if (Does("late")) ::sleep(2);
    if (Does("descriptors"))
      for (int fd = 0; fd <= 2; ++fd)
        ::close(fd);
    if (Does("thread")) {
      pthread_t thread;
      ::pthread_create(
          &thread, nullptr,
          [](void*) -> void* {
            while (true)
              ::pause();
          },
          nullptr);
    }
  }
  void StopModules() override { Enter("stop"); }
  void NotifyEvent(uint32_t, void*, void*) override { Enter("notify"); }
};

}  // namespace

#ifndef WITHOUT_QUERY_INTERFACE
extern "C" __attribute__((visibility("default"))) bool SW_QueryInterface(uint32_t, ISwitch** switchInterface) {
  static BadSwitch badSwitch;
  if (Does("query throws")) throw 1;
  *switchInterface = Does("null") ? nullptr : &badSwitch;
  return !Does("refuse");
}
#endif
