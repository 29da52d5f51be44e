#include "daemon/command_line.h"

#include <array>
#include <string_view>

#include "daemon/daemon_name.h"
#include "trace/debug.h"

namespace {

struct RunModeRow {
  std::string_view option;
  uint32_t runMode;
  const char* trace;
};

constexpr std::array kRunModeRows = {
    RunModeRow{"-agentless", RUNMODE_AGENTLESS, "\n%s-MAIN::ParseCommandLine   : Agentsless mode due to -agentless"},
    RunModeRow{"-vantle", RUNMODE_VANTLE, "\n%s-MAIN::ParseCommandLine   : VANTLE mode due to -vantle"},
    RunModeRow{"-tessel", RUNMODE_TESSEL, "\n%s-MAIN::ParseCommandLine   : TESSEL mode due to -tessel"},
    RunModeRow{"-tessel-agentless", RUNMODE_DORLAN,
               "\n%s-MAIN::ParseCommandLine   : DORLAN mode due to -tessel-agentless"},
};

}  // namespace

bool IsForeground(int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    const std::string_view argument = argv[index];
    if (argument == "-n" || argument == "-nodemon") return true;
  }
  return false;
}

_ExtensionModuleLoaderConfig ParseCommandLine(int argc, char** argv) {
  _ExtensionModuleLoaderConfig config;
  for (int index = 1; index < argc; ++index) {
    const std::string_view argument = argv[index];
    if (argument == "-rescan") {
      config.Flags |= kLoaderFlagForceRescan;
      TRACE(2, "\n%s-MAIN::ParseCommandLine   : RESCAN due to -rescan", kDaemonName);
    }
    for (const RunModeRow& row : kRunModeRows) {
      if (argument != row.option) continue;
      config.RunMode = row.runMode;
      TRACE(2, row.trace, kDaemonName);
    }
  }
  TRACE(2, "%s-MAIN: RUN MODE: %d", kDaemonName, static_cast<int>(config.RunMode));
  return config;
}
