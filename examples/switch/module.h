#pragma once

#include <cstdint>

// What the example switch asks of a module: a shared object in the directory "modules" beside libswitch.so that exports
// these functions under their plain names. All are called from the daemon's main thread. They must not throw.
extern "C" {

// Starts the module, which may start threads. False when it cannot run; it is then not stopped either.
bool ModuleStart();

// Ends everything that ModuleStart began: no thread of the module may be left when it returns.
void ModuleStop();

// Optional. event: SW_NOTIFY_STOP or SW_NOTIFY_OS_SHUTDOWN; data as in ISwitch::NotifyEvent.
void ModuleNotify(uint32_t event, void* data);
}
