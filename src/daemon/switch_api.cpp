#include "daemon/switch_api.h"

#include <dlfcn.h>

#include <cerrno>

#include "trace/debug.h"

namespace {

constexpr const char* kLibrary = "libswitch.so";
constexpr uint32_t kSwitchInterface = 0;

}  // namespace

bool CSwitchApi::LoadSwitch() {
  if (library == nullptr) {
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
  if (library != nullptr) ::dlclose(library);
  library = nullptr;
  addRef = nullptr;
  release = nullptr;
  queryInterface = nullptr;
}
