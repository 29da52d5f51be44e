#pragma once

#include <cstdint>

// What the daemon and the module switch library libswitch.so agree on. docs/module-writers-guide.md shows a whole
// module.
//
// The library is loaded with RTLD_NOW | RTLD_GLOBAL and exports three unmangled symbols:
//   SW_QueryInterface  SwitchQueryInterfaceFunction; identifier 0 asks for the ISwitch, which is ready for use when it
//                      returns true with a non-null pointer. Required.
//   SW_Release         SwitchReferenceFunction; gives that reference back, called once when the daemon stops. Optional.
//   SW_AddRef          SwitchReferenceFunction; never called by the daemon. Optional.

// How the modules are to be loaded.
struct _ExtensionModuleLoaderConfig {
  uint32_t Flags = 0;    // bit 0: force a rescan; other bits 0
  uint32_t RunMode = 0;  // one of RUNMODE_...; what it means is the modules' business
};

// Of _ExtensionModuleLoaderConfig::Flags.
inline constexpr uint32_t kLoaderFlagForceRescan = 1;

// Run mode that an option of the daemon's command line chooses:
inline constexpr uint32_t RUNMODE_NORMAL = 0;     // none
inline constexpr uint32_t RUNMODE_AGENTLESS = 5;  // -agentless
inline constexpr uint32_t RUNMODE_VANTLE = 7;     // -vantle
inline constexpr uint32_t RUNMODE_TESSEL = 8;     // -tessel
inline constexpr uint32_t RUNMODE_DORLAN = 10;    // -tessel-agentless

// Event code of ISwitch::NotifyEvent:
inline constexpr uint32_t SW_NOTIFY_STOP = 0x00020000;         // data: null; the daemon was told to stop
inline constexpr uint32_t SW_NOTIFY_OS_SHUTDOWN = 0x00030000;  // data: int32_t*, 0 = the system halts, 6 = it reboots

// The module switch as the daemon drives it, from its main thread alone:
// LoadModules, StartModules (when loading succeeded), any number of NotifyEvent, StopModules, UnloadModules,
// SW_Release.
//
// The order of the operations is a binary interface: seventeen slots, of which the daemon calls five. A switch
// overrides what it implements and leaves the reserved ones alone.
class ISwitch {
 public:
  // Slots that the daemon never calls:
  virtual void AddRef() {}
  virtual void Release() {}

  // True when the modules were loaded. May throw: the daemon then goes on without modules.
  virtual bool LoadModules(const _ExtensionModuleLoaderConfig& config) = 0;
  // Called with 0, as soon as StopModules has returned and whatever came before. May throw.
  virtual bool UnloadModules(uint32_t argument) = 0;
  // Modules may start threads here. SIGINT, SIGTERM, SIGHUP and SIGALRM are blocked in all of them.
  virtual void StartModules() = 0;
  // When this returns, no thread of a module may run any more.
  virtual void StopModules() = 0;

  // Slots that keep their place and are never called:
  virtual void Reserved6() {}
  virtual void Reserved7() {}
  virtual void Reserved8() {}
  virtual void Reserved9() {}
  virtual void Reserved10() {}
  virtual void Reserved11() {}
  virtual void Reserved12() {}
  virtual void Reserved13() {}
  virtual void Reserved14() {}
  virtual void Reserved15() {}

  // Called while the modules' threads run. The third argument is always null.
  virtual void NotifyEvent(uint32_t event, void* data, void* reserved) = 0;

 protected:
  ~ISwitch() = default;  // a destructor in the table would move the slots
};

// Type of SW_AddRef and SW_Release.
using SwitchReferenceFunction = void (*)();
// Type of SW_QueryInterface. The object stays the library's; it has to live until SW_Release. False: there is no such
// interface, and the daemon ends with status 1.
using SwitchQueryInterfaceFunction = bool (*)(uint32_t identifier, ISwitch** switchInterface);
