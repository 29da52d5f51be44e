// A module that does what the environment variable BAD_<its file name> says: "throw", "refuse", "hang", "slow-stop",
// "throw-stop" or nothing in particular.

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include "daemon/switch_interface.h"
#include "trace/debug.h"

namespace {

// "/lib/modules/b1.so" => "b1"
std::string Name() {
  Dl_info info{};
  dladdr(reinterpret_cast<void*>(&Name), &info);
  const std::string path = info.dli_fname;
  const size_t slash = path.rfind('/') + 1;
  return path.substr(slash, path.rfind('.') - slash);
}

bool Is(const char* fault) {
  const char* wanted = std::getenv(("BAD_" + Name()).c_str());
  return wanted != nullptr && std::strcmp(wanted, fault) == 0;
}

}  // namespace

extern "C" {

#ifdef FOREIGN_INTERFACE
__attribute__((visibility("default"))) extern const uint32_t ModuleInterface;
const uint32_t ModuleInterface = FOREIGN_INTERFACE;
#endif

__attribute__((visibility("default"))) bool ModuleStart() {
  if (Is("throw")) throw std::runtime_error("no disk");
  if (Is("throw-int")) throw 7;
  if (Is("hang")) sleep(2);
  if (Is("leave-thread")) std::thread([] { pause(); }).detach();
  TRACE(1, "\nBad                 : %s starts", Name().c_str());
  return !Is("refuse");
}

__attribute__((visibility("default"))) void ModuleStop() {
  TRACE(1, "\nBad                 : %s stops", Name().c_str());
  if (Is("slow-stop")) pause();
  if (Is("throw-stop")) throw std::runtime_error("no end");
}

__attribute__((visibility("default"))) void ModuleNotify(uint32_t event, void* data) {
  TRACE(1, "\nBad                 : %s is told %08X level %d", Name().c_str(), event,
        data != nullptr ? *static_cast<int*>(data) : -1);
  if (Is("throw-notify")) throw std::runtime_error("no ear");
}
}
