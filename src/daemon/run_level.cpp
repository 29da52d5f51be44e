#include "daemon/run_level.h"

#include <fcntl.h>
#include <unistd.h>
#include <utmp.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "daemon/daemon_name.h"
#include "platform/regular_file.h"
#include "platform/stream.h"
#include "trace/debug.h"

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";
constexpr const char* kRunLevelFile = "/etc/pelrix/RunLevel";
constexpr const char* kRunLevelCommand = "/sbin/runlevel";
constexpr std::array<std::string_view, 3> kReleasesWithRunLevelFile = {"RHEL7", "SLES12", "OL7"};

constexpr int kUnknown = -1;
constexpr int kSimpleStop = 5;
constexpr int kTries = 3;

std::string& Release() {
  static std::string release;
  return release;
}

void TraceRelease() {
  if (Release().empty()) {
    Debug.PrintAlways(0, "%s-MAIN: cannot identify OS (from QN_NICKNAME) on which we are running\n", kDaemonName);
  } else {
    TRACE(1, "%s-MAIN: we are runing on OS \"%s\"\n", kDaemonName, Release().c_str());
  }
}

bool UsesRunLevelFile() {
  if (::access(kSystemctl, F_OK) == 0) {
    TRACE(1, "%s-MAIN: %s detected on this OS\n", kDaemonName, kSystemctl);
    return true;
  }
  for (const std::string_view known : kReleasesWithRunLevelFile) {
    if (Release() == known) return true;
  }
  TRACE(1, "%s-MAIN: try to indentify runlevel on older OS\n", kDaemonName);
  return false;
}

int ReadRunLevelFile() {
  FileStream file;
  for (int attempt = 0; attempt < kTries; ++attempt) {
    file.reset(OpenRegularStream(kRunLevelFile, O_RDONLY, 0, "r"));
    if (file != nullptr) break;
    Debug.PrintAlways(0, "%s-MAIN: cannot open %s (try %d)\n", kDaemonName, kRunLevelFile, attempt);
    ::sleep(1);
  }
  if (file == nullptr) {
    Debug.PrintAlways(0, "%s-MAIN: this seems to be a simple stop of %s (not OS shutdown)\n", kDaemonName, kDaemonName);
    return kSimpleStop;
  }
  int runLevel = kUnknown;
  if (std::fscanf(file.get(), "%d", &runLevel) != 1) return kUnknown;
  TRACE(1, "%s-MAIN: OS shutdown reguired: RunLevel = %d from %s\n", kDaemonName, runLevel, kRunLevelFile);
  return runLevel == kRunLevelHalt || runLevel == kRunLevelReboot ? runLevel : kUnknown;
}

// The first run level record; its low byte is the character of the run level.
std::optional<int> ReadLoginRecords() {
  std::optional<int> runLevel;
  ::setutent();
  while (const utmp* record = ::getutent()) {
    if (record->ut_type != RUN_LVL) continue;
    runLevel = record->ut_pid % 256 - '0';
    break;
  }
  ::endutent();
  return runLevel;
}

// "N 5" => 5
int AskRunLevelCommand() {
  const PipeStream pipe(::popen(kRunLevelCommand, "re"));
  char line[64];
  if (pipe == nullptr || std::fgets(line, sizeof line, pipe.get()) == nullptr) return kUnknown;
  const char* blank = std::strchr(line, ' ');
  return blank != nullptr ? blank[1] - '0' : kUnknown;
}

int AskOlderSystem() {
  const std::optional<int> recorded = ReadLoginRecords();
  return recorded && *recorded != kUnknown ? *recorded : AskRunLevelCommand();
}

}  // namespace

void RememberRelease() {
  const char* nickname = std::getenv("QN_NICKNAME");
  Release() = nickname != nullptr ? nickname : "";
}

int DetermineRunLevel() {
  TraceRelease();
  const int runLevel = UsesRunLevelFile() ? ReadRunLevelFile() : AskOlderSystem();
  Debug.PrintAlways(0, "%s-MAIN: Current RunLevel = %d\n", kDaemonName, runLevel);
  return runLevel;
}
