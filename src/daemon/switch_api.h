#pragma once

#include "daemon/switch_interface.h"

// The daemon's holder of the module switch library and of the interface obtained from it.
//
// Main thread only. The fields are public because the holder calls the slots without arguments directly, each only when
// switchInterface is not null. Failures are results and trace lines; exceptions of the library's LoadModules and
// UnloadModules end here, those of its other operations do not.
struct CSwitchApi {
  // Loads libswitch.so, which the dynamic loader finds by its ordinary search, and obtains the interface. True when an
  // interface is held. After a failure the library may be open: see CloseLibrary.
  bool LoadSwitch();

  // Forwarded to the interface; false when there is none, when it says so or when it throws.
  bool LoadModules(const _ExtensionModuleLoaderConfig& config);
  bool UnloadModules(uint32_t argument);

  // Forgets the interface, gives the reference back through SW_Release and closes the library. A library that has left
  // threads running is forgotten, too, but stays in memory until the process ends.
  void Release();

  // Closes the library after a failed LoadSwitch, when no reference is held.
  void CloseLibrary();

  SwitchReferenceFunction addRef = nullptr;
  SwitchReferenceFunction release = nullptr;
  SwitchQueryInterfaceFunction queryInterface = nullptr;
  void* library = nullptr;
  ISwitch* switchInterface = nullptr;
  int32_t loadError = 0;  // errno after a failed load of the library
};
