#pragma once

#include "daemon/switch_interface.h"

// Whether "-n" or "-nodemon" stands among the arguments: stay in the foreground. Compared exactly, as everything here.
bool IsForeground(int argc, char** argv);

// Evaluates the other options: "-rescan" sets bit 0 of Flags, the last of the run mode options sets RunMode. Unknown
// arguments are ignored. Traces every option that it finds, and the resulting run mode.
_ExtensionModuleLoaderConfig ParseCommandLine(int argc, char** argv);
