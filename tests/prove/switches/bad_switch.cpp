// A module switch that does the one thing wrong that the environment variable BAD_SWITCH names, and always writes which
// of its operations was called. Built from the public headers alone, as any switch.

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "daemon/switch_interface.h"
#include "trace/debug.h"

namespace {

// The environment as a module may change it: what the daemon needs of it, it has asked before.
void ChangeEnvironment() {
  ::setenv("QN_NICKNAME", "of a module", 1);
  ::unsetenv("NOTIFY_SOCKET");
}

bool Does(const char* what) {
  const char* how = std::getenv("BAD_SWITCH");
  return how != nullptr && std::strcmp(how, what) == 0;
}

// Prints where the standard descriptors were and closes them again.
void PrintAndClose() {
  static bool isClosed = false;
  for (int fd = 0; fd <= 2 && isClosed; ++fd)
    if (::write(fd, "stray output\n", 13) < 0) continue;
  for (int fd = 0; fd <= 2; ++fd)
    ::close(fd);
  isClosed = true;
}

// Goes on in this library after a stop that does not end it: what it calls and reads must still be there.
pthread_t threads[4];
std::atomic<bool> isOver = false;

void* Linger(void*) {
  while (!isOver)
    ::usleep(200);
  return nullptr;
}

void StopThreads() {
  isOver = true;
  for (pthread_t thread : threads)
    ::pthread_join(thread, nullptr);
}

void Enter(const char* operation) {
  Debug.PrintAlways(0, "bad: %s", operation);
  if (Does("descriptors")) PrintAndClose();
  if (Does((std::string("late ") + operation).c_str())) ::sleep(2);
  if (Does(operation)) throw std::runtime_error("the switch is broken");
}

class BadSwitch : public ISwitch {
 public:
  bool LoadModules(const _ExtensionModuleLoaderConfig& config) override {
    Debug.PrintAlways("bad: flags %u mode %u master %d", config.Flags, config.RunMode, Debug.IsMaster());
    Enter("load");
    ChangeEnvironment();
    return !Does("no modules");
  }
  bool UnloadModules(uint32_t argument) override {
    Debug.PrintAlways("bad: argument %u", argument);
    Enter("unload");
    return true;
  }
  void StartModules() override {
    Enter("start");
    for (pthread_t& thread : threads)
      if (Does("thread") || Does("joined thread")) ::pthread_create(&thread, nullptr, Linger, nullptr);
  }
  void StopModules() override {
    Enter("stop");
    if (Does("joined thread")) StopThreads();
  }
  void NotifyEvent(uint32_t event, void* data, void* reserved) override {
    const int level = data != nullptr ? *static_cast<int32_t*>(data) : -99;
    Debug.PrintAlways(0, "bad: event %08X level %d %d", event, level, reserved == nullptr);
    Enter("notify");
  }
};

// Static objects may trace while the library is loaded and closed.
struct Tracer {
  Tracer() { Debug.PrintAlways(0, "bad: constructed"); }
  ~Tracer() { Debug.PrintAlways(0, "bad: destroyed"); }
} tracer;

}  // namespace

#ifndef WITHOUT_QUERY_INTERFACE
extern "C" __attribute__((visibility("default"))) bool SW_QueryInterface(uint32_t, ISwitch** switchInterface) {
  static BadSwitch badSwitch;
  Debug.PrintAlways(0, "bad: query");
  if (Does("query throws")) throw 1;
  *switchInterface = Does("null") ? nullptr : &badSwitch;
  return !Does("refuse");
}

extern "C" __attribute__((visibility("default"))) void SW_Release() {
  Enter("release");
}
#endif

#ifdef WITH_UNDEFINED_SYMBOL
void NowhereToBeFound();
extern "C" __attribute__((visibility("default"))) void SW_AddRef() {
  NowhereToBeFound();
}
#endif
