#pragma once

#include <cstdint>

// What this switch asks of a module: a shared object "NAME.so" in the directory "modules" beside libswitch.so that
// exports the names below, unmangled. A module that keeps to ModuleStart, ModuleStop and ModuleNotify alone runs as
// well, in this switch and in the one of the examples.
//
// Each module has a thread of the switch to itself, on which all its functions are called, one at a time. It lives from
// before ModuleStart until after ModuleStop, with SIGINT, SIGTERM, SIGHUP and SIGALRM blocked. A function that throws
// or takes too long costs the module its place and nobody else anything.
//
// Settings are the keys of the section [NAME] in kModulesFile, which the module reads itself. Three are the switch's:
//   Run=0         the module is not loaded; without the key or the section it is
//   StartMs=10000 how long ModuleStart and a notification may take
//   StopMs=2000   how long ModuleStop may take

inline constexpr const char* kModulesFile = "/etc/pelrix/modules.ini";

// Which modules there are and how they are, written by the switch at every change: an INI file with a section for each.
//   State    running, failed, stopped or lost (it did not come back from a call; its code stays in memory)
//   Since    of that state, seconds since 1970
//   Version, BuildId, File, and Reason of a failure
// The section [ravd] holds the Pid of the daemon. Missing while no daemon runs, unless one was killed.
inline constexpr const char* kModuleStates = "/run/ravd-modules.ini";

inline constexpr uint32_t kModuleInterface = 1;

extern "C" {

// Optional: the interface that the module was written for, kModuleInterface; 1 without it. Another one is refused.
extern const uint32_t ModuleInterface;

// Optional: the module's version, a text such as "3.12.5".
extern const char ModuleVersion[];

// Starts the module, which may start threads. False when it cannot run; it is then not stopped either.
bool ModuleStart();

// Ends everything that ModuleStart began: no thread of the module may be left when it returns.
void ModuleStop();

// Optional. event: SW_NOTIFY_STOP or SW_NOTIFY_OS_SHUTDOWN; data as in ISwitch::NotifyEvent.
void ModuleNotify(uint32_t event, void* data);
}
