#include "ravctl/tree/machine_answers.h"

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <set>

#include "ravctl/base/child.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/base/mapping.h"
#include "ravctl/base/text.h"
#include "ravctl/daemon/library_check.h"
#include "ravctl/daemon/process.h"
#include "ravctl/daemon/service_check.h"

namespace ravctl {

namespace fs = std::filesystem;

namespace {

constexpr int kSeconds = 5;
constexpr const char* kJournal = "/usr/bin/journalctl";
constexpr const char* kMostLines = "1000";
constexpr const char* kMostKernelLines = "5000";
constexpr const char* kModuleDirectory = "/usr/lib/ravd";
constexpr size_t kMostModules = 1000;

void AddText(const char* path, std::string text, Capture& capture) {
  if (!text.empty()) capture.AddText(path, std::move(text));
}

std::string LinesWith(const std::string& text, std::string_view part) {
  std::string lines;
  for (const std::string& line : SplitList(text, '\n'))
    if (line.find(part) != std::string::npos) lines += line + "\n";
  return lines;
}

std::string Packages() {
  const std::string debian =
      RunProgram(kSeconds, "/usr/bin/dpkg-query",
                 {"-W", "-f", "${Package} ${Version} ${db:Status-Status}\n", "ravd*", "ravctl*", "libravagent*"})
          .report;
  return debian.empty() ? RunProgram(kSeconds, "/usr/bin/rpm", {"-qa", "ravd*", "ravctl*", "libravagent*"}).report
                        : debian;
}

// The shared objects of the module directory, and those that the running daemon has mapped.
std::string Modules() {
  std::set<std::string> paths;
  std::error_code ignored;
  for (fs::recursive_directory_iterator at(kModuleDirectory, ignored), end; at != end; at.increment(ignored))
    if (at->path().extension() == ".so") paths.insert(at->path());
  std::string maps;
  try {
    if (const std::optional<DaemonProcess> daemon = FindDaemon()) {
      ReadFileInto("/proc/" + std::to_string(daemon->pid) + "/maps", maps);
    }
  } catch (const CommandError&) {
    // The PID file stands among what could not be read.
  }
  for (const std::string& line : SplitList(maps, '\n')) {
    const std::optional<Mapping> mapping = ParseMapping(line);
    if (mapping && mapping->path.find(".so") != std::string::npos) paths.insert(mapping->path);
  }
  std::string text;
  size_t count = 0;
  for (const std::string& path : paths) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || ++count > kMostModules) continue;
    const std::string buildId = BuildIdOf(path);
    text += path + " " + std::to_string(info.st_size) + " " + (buildId.empty() ? "-" : buildId) + "\n";
  }
  return text;
}

}  // namespace

void CaptureAnswers(Capture& capture) {
  AddText(kUnitAnswer, AskForUnit(), capture);
  AddText(kJournalAnswer,
          RunProgram(kSeconds, kJournal,
                     {"-q", "-u", kUnit, "-n", kMostLines, "-o", "short-iso", "--no-hostname", "--no-pager"})
              .report,
          capture);
  const std::string kernel =
      RunProgram(kSeconds, kJournal, {"-q", "-o", "cat", "--no-pager", "-n", kMostKernelLines, "_TRANSPORT=kernel"})
          .report;
  AddText(kKernelAnswer, LinesWith(kernel, "ravd["), capture);
  AddText(kPackagesAnswer, Packages(), capture);
  AddText(kModulesAnswer, Modules(), capture);
}

}  // namespace ravctl
