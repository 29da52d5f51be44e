#pragma once

// The life of the daemon, from its first check to its last message; the result is the exit status.
//
// Starts in a fixed order (root, instance lock, fork, trace, options, signals, module switch, PID file, modules), waits
// for signals on the main thread and stops in a fixed order. 0 after an orderly stop; 1 when it is not run by root,
// when another instance runs, when it cannot fork or when the module switch cannot be loaded. The parent of the fork
// leaves at once with status 0 and does not return from here. In the background the standard descriptors are /dev/null.
int RunDaemon(int argc, char** argv);
