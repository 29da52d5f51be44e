#pragma once

#include "daemon/switch_api.h"
#include "platform/event.h"

// Set once the daemon is to stop; stays set. Manual reset.
extern CEvent ExitEvent;

// What the daemon does about a signal that its wait loop has taken: SIGALRM is ignored, SIGHUP toggles tracing, SIGINT
// and SIGTERM tell the module switch (also when the whole system goes down) and set ExitEvent.
//
// Runs in ordinary thread context on the main thread, so it traces, reads files and calls the modules; a stop may take
// three seconds when the run level file is missing. Any other signal is handled like a stop and then aborts the
// process.
void CatchSignals(int signal, CSwitchApi& switchApi);
