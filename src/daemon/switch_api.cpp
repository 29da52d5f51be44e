#include "daemon/switch_api.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "trace/debug.h"

namespace {

constexpr const char* kLibrary = "libswitch.so";
constexpr uint32_t kSwitchInterface = 0;
constexpr const char* kThreads = "/proc/self/task";
constexpr int kThreadEndMs = 200;  // a thread that was joined may be listed for a moment yet

long threadsWithoutLibrary = 0;  // what the process had before the library came

// 0 when it cannot be told.
long CountThreads() {
  std::error_code error;
  long count = 0;
  std::filesystem::directory_iterator thread(kThreads, error);
  for (; !error && thread != std::filesystem::directory_iterator(); thread.increment(error))
    ++count;
  return error ? 0 : count;
}

// The threads of the modules that have not ended.
long ThreadsLeft() {
  long left = CountThreads() - threadsWithoutLibrary;
  for (int waitedMs = 0; left > 0 && waitedMs < kThreadEndMs; ++waitedMs) {
    ::usleep(1000);
    left = CountThreads() - threadsWithoutLibrary;
  }
  return left;
}

// The code must stay where threads still run in it, or the process would not come to the end of its stop.
void Unload(void* library) {
  const long left = ThreadsLeft();
  if (left <= 0) {
    ::dlclose(library);
    return;
  }
  TRACE(1, "\nSWITCH API          : ## WARNING! The switch library stays loaded, threads still running: %ld\n", left);
}

}  // namespace

bool CSwitchApi::LoadSwitch() {
  if (library == nullptr) {
    threadsWithoutLibrary = CountThreads();
    library = ::dlopen(kLibrary, RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr) {
      loadError = errno;
      const char* reason = ::dlerror();
      TRACE(1, "LoadLibrary: ## ERROR:  %s\n", reason != nullptr ? reason : "");
      return false;
    }
  }
  addRef = reinterpret_cast<SwitchReferenceFunction>(::dlsym(library, "SW_AddRef"));
  release = reinterpret_cast<SwitchReferenceFunction>(::dlsym(library, "SW_Release"));
  queryInterface = reinterpret_cast<SwitchQueryInterfaceFunction>(::dlsym(library, "SW_QueryInterface"));
  if (queryInterface != nullptr && !queryInterface(kSwitchInterface, &switchInterface)) {
    switchInterface = nullptr;
    return false;
  }
  return switchInterface != nullptr;
}

bool CSwitchApi::LoadModules(const _ExtensionModuleLoaderConfig& config) {
  TRACE(3, "\nSWITCH API          : Loading modules, force rescan = %d",
        static_cast<int>(config.Flags & kLoaderFlagForceRescan));
  if (switchInterface != nullptr) {
    try {
      return switchInterface->LoadModules(config);
    } catch (...) {
      TRACE(1, "\nSWITCH DLL - Exception during LoadModules");
    }
  }
  TRACE(1, "\n\nSWITCH API          : ## ERROR! Loading modules FAILED!\n");
  return false;
}

bool CSwitchApi::UnloadModules(uint32_t argument) {
  TRACE(3, "\nSWITCH API          : Unloading modules...");
  if (switchInterface != nullptr) {
    try {
      return switchInterface->UnloadModules(argument);
    } catch (...) {
      TRACE(1, "\nSWITCH DLL - Exception during UnloadModules");
    }
  }
  TRACE(1, "\n\nSWITCH API          : ## ERROR! Unloading modules FAILED!\n");
  return false;
}

void CSwitchApi::Release() {
  switchInterface = nullptr;
  if (release != nullptr) release();
  CloseLibrary();
}

void CSwitchApi::CloseLibrary() {
  switchInterface = nullptr;
  if (library != nullptr) Unload(library);
  library = nullptr;
  addRef = nullptr;
  release = nullptr;
  queryInterface = nullptr;
}
