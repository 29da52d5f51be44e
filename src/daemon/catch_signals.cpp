#include "daemon/catch_signals.h"

#include <csignal>
#include <cstdlib>

#include "daemon/daemon_name.h"
#include "daemon/run_level.h"
#include "trace/debug.h"

CEvent ExitEvent(false, true, nullptr);

namespace {

void ToggleTrace(int signal) {
  Debug.PrintAlways(0, "%s-MAIN: Signal %d (SIGHUP) caught\n", kDaemonName, signal);
  if (!Debug.m_TraceActive) {
    Debug.ForceMaxDebug(true);
    Debug.PrintAlways(0, "%s-MAIN: Trace forced due to SIGHUP\n", kDaemonName);
  } else {
    Debug.PrintAlways(0, "%s-MAIN: Trace reset due to SIGHUP\n", kDaemonName);
    Debug.ForceMaxDebug(false);
  }
}

void NotifyModules(CSwitchApi& switchApi, int32_t runLevel) {
  if (switchApi.switchInterface == nullptr) return;
  switchApi.switchInterface->NotifyEvent(SW_NOTIFY_STOP, nullptr, nullptr);
  if (runLevel != kRunLevelHalt && runLevel != kRunLevelReboot) return;
  if (switchApi.switchInterface != nullptr) {
    switchApi.switchInterface->NotifyEvent(SW_NOTIFY_OS_SHUTDOWN, &runLevel, nullptr);
  }
}

}  // namespace

void CatchSignals(int signal, CSwitchApi& switchApi) {
  if (signal == SIGALRM) {
    Debug.PrintAlways(0, "%s-MAIN: WARNING: Signal %d (SIGALRM) caught -> ignoring\n", kDaemonName, signal);
    return;
  }
  if (signal == SIGHUP) {
    ToggleTrace(signal);
    return;
  }
  Debug.PrintAlways(0, "%s-MAIN: Signal %d caught -> processing\n", kDaemonName, signal);
  NotifyModules(switchApi, DetermineRunLevel());
  ExitEvent.Set();
  if (signal != SIGINT && signal != SIGTERM) {
    Debug.PrintAlways(0, "%s-MAIN: Unexpected Signal %d caught -> ABORT\n", kDaemonName, signal);
    std::abort();
  }
}
