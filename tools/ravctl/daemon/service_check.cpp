#include "ravctl/daemon/service_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "ravctl/base/child.h"
#include "ravctl/base/files.h"
#include "ravctl/base/mapping.h"
#include "ravctl/base/text.h"
#include "ravctl/daemon/library_check.h"
#include "ravctl/daemon/process.h"

namespace ravctl {

namespace {

constexpr const char* kServiceSwitch = "/usr/lib/ravd/libswitch.so";
constexpr const char* kDebianDefaults = "/etc/default/ravd";
constexpr const char* kRpmDefaults = "/etc/sysconfig/ravd";
constexpr const char* kManagerRuns = "/run/systemd/system";
constexpr const char* kManagerClient = "/usr/bin/systemctl";
constexpr int kManagerSeconds = 5;
constexpr const char* kLocks = "/proc/locks";
constexpr std::string_view kSwitchName = "/libswitch.so";
constexpr std::string_view kRingName = "/log.ravd_";
constexpr std::string_view kGone = " (deleted)";

constexpr auto kDaemonOptions = std::to_array<std::string_view>(
    {"-n", "-nodemon", "-rescan", "-agentless", "-vantle", "-tessel", "-tessel-agentless"});

// A file that the daemon has mapped.
struct MappedFile {
  std::string path;  // with " (deleted)" behind it when it is gone
  uint64_t end = 0;  // behind the last byte of the file that is mapped
};

// By part of their paths, each path once. None when the caller may not look.
std::vector<MappedFile> MappedFiles(pid_t pid, std::string_view part) {
  std::string maps;
  ReadFileInto("/proc/" + std::to_string(pid) + "/maps", maps);
  std::map<std::string, uint64_t> ends;
  for (const std::string& line : SplitList(maps, '\n')) {
    const std::optional<Mapping> mapping = ParseMapping(line);
    if (!mapping || mapping->path.find(part) == std::string::npos) continue;
    uint64_t& end = ends[mapping->path];
    end = std::max(end, mapping->offset + mapping->end - mapping->begin);
  }
  std::vector<MappedFile> files;
  for (const auto& [path, end] : ends)
    files.push_back({path, end});
  return files;
}

bool IsThere(const char* path) {
  return ::access(path, F_OK) == 0;
}

// Whether any process holds a lock of that kind on the file, with its number where the system tells it.
std::optional<std::string> HolderOf(const char* path) {
  struct stat info {};
  std::string locks;
  if (::stat(path, &info) != 0 || ReadFileInto(kLocks, locks) != 0) return std::nullopt;
  const std::string inode = ":" + std::to_string(info.st_ino);
  for (const std::string& line : SplitList(locks, '\n')) {
    // "1: FLOCK  ADVISORY  WRITE 4711 08:01:131 0 EOF"
    const std::vector<std::string> words = SplitList(line, ' ');
    if (words.size() >= 6 && words[1] == "FLOCK" && words[5].ends_with(inode)) return words[4];
  }
  return std::nullopt;
}

void CheckDefaultsLine(const std::string& line, const std::string& place, Findings& findings) {
  const size_t first = line.find_first_not_of(" \t\r");
  if (first == std::string::npos || line[first] == '#' || line[first] == ';') return;
  const size_t equals = line.find('=');
  const std::string name = line.substr(first, equals == std::string::npos ? equals : equals - first);
  const bool isName = !name.empty() && (name[0] < '0' || name[0] > '9') && std::ranges::all_of(name, [](char letter) {
    return letter == '_' || (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= 'a' && letter <= 'z');
  });
  if (equals == std::string::npos || !isName) {
    findings.push_back({Severity::kBad, "", place, "the service manager drops this line: " + line,
                        "write NAME=value, without export and without blanks around ="});
    return;
  }
  if (name != "RAVD_OPTIONS") return;
  std::string value = line.substr(equals + 1);
  std::erase_if(value, [](char letter) { return letter == '"' || letter == '\'' || letter == '\r'; });
  for (const std::string& option : SplitList(value, ' ')) {
    if (std::ranges::find(kDaemonOptions, option) != kDaemonOptions.end()) continue;
    const std::vector<std::string> known(kDaemonOptions.begin(), kDaemonOptions.end());
    findings.push_back({Severity::kWarning, "", place, "the daemon passes over the option " + option,
                        DidYouMean(option, known, "see ravd(8)")});
  }
}

}  // namespace

Findings CheckSwitch() {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  const std::vector<MappedFile> loaded = daemon ? MappedFiles(daemon->pid, kSwitchName) : std::vector<MappedFile>();
  std::string path = loaded.empty() ? kServiceSwitch : loaded.front().path;
  if (path.ends_with(kGone)) {
    path.resize(path.size() - kGone.size());
    return {{Severity::kWarning, "", path, "was replaced or removed while the daemon has the old one loaded",
             "restart the daemon"}};
  }
  if (!IsThere(path.c_str()) && (errno == ENOENT || errno == ENOTDIR)) {
    return {{Severity::kWarning, "", path, "there is none, so that the service starts nothing",
             "install the management suite that brings it"}};
  }
  return CheckLibrary(path, loaded.empty());
}

const char* DefaultsPath() {
  return IsThere(kRpmDefaults) && !IsThere(kDebianDefaults) ? kRpmDefaults : kDebianDefaults;
}

Findings CheckDefaults() {
  const std::string path = DefaultsPath();
  const std::optional<std::string> text = ReadFileIfThere(path);
  if (!text) return {};
  Findings findings;
  size_t number = 1;
  for (size_t at = 0; at < text->size(); ++number) {
    const size_t end = std::min(text->find('\n', at), text->size());
    CheckDefaultsLine(text->substr(at, end - at), path + ":" + std::to_string(number), findings);
    at = end + 1;
  }
  return findings;
}

Findings UnitFindings(std::string_view properties) {
  std::map<std::string, std::string> values;
  for (const std::string& line : SplitList(properties, '\n')) {
    const size_t equals = std::min(line.find('='), line.size());
    values[line.substr(0, equals)] = line.substr(std::min(equals + 1, line.size()));
  }
  const std::string state = values["ActiveState"] + " (" + values["SubState"] + ")";
  if (values["LoadState"] == "not-found") {
    return {{Severity::kNote, "", kUnit, "there is no such unit", "start the daemon by hand, or install the package"}};
  }
  if (values["LoadState"] == "masked") return {{Severity::kWarning, "", kUnit, "masked: it cannot be started"}};
  if (values["LoadState"] != "loaded") {
    return {{Severity::kBad, "", kUnit, "cannot be loaded: " + values["LoadState"], "see systemctl status ravd"}};
  }
  Findings findings;
  const std::string restarts = values["NRestarts"].empty() ? "0" : values["NRestarts"];
  const std::string ended = values["Result"] + ", started again " + restarts + " times";
  if (values["ActiveState"] == "failed") {
    findings.push_back({Severity::kBad, "", kUnit, "failed: " + ended,
                        "see journalctl -u ravd and ravctl trace list, then systemctl reset-failed ravd"});
  } else if (values["SubState"] == "auto-restart") {
    findings.push_back({Severity::kBad, "", kUnit, "ends again and again: " + ended, "see journalctl -u ravd"});
  } else if (values["ActiveState"] != "active") {
    findings.push_back({Severity::kWarning, "", kUnit, state, "systemctl start ravd"});
  } else {
    findings.push_back({restarts == "0" ? Severity::kGood : Severity::kWarning, "", kUnit,
                        state + (restarts == "0" ? "" : ", started again " + restarts + " times")});
  }
  if (values["UnitFileState"] == "disabled") {
    findings.push_back({Severity::kNote, "", kUnit, "does not start with the machine", "systemctl enable ravd"});
  }
  return findings;
}

std::string AskForUnit() {
  if (!IsThere(kManagerRuns)) return "";
  return RunProgram(kManagerSeconds, kManagerClient,
                    {"show", kUnit, "--property=LoadState,ActiveState,SubState,Result,NRestarts,UnitFileState"})
      .report;
}

Findings CheckLeftovers() {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  const std::optional<std::string> holder = HolderOf(kLockFile);
  Findings findings;
  if (!daemon && IsThere(kPidFile)) {
    findings.push_back({Severity::kWarning, "", kPidFile, "names no process of the daemon: it did not end by itself",
                        "the next start writes it anew"});
  }
  if (!IsThere(kLocks)) {
    findings.push_back({Severity::kUnknown, "", kLockFile, "whether it is held is not told here"});
  } else if (daemon && !holder) {
    findings.push_back({Severity::kWarning, "", kLockFile, "the running daemon does not hold it: another can start",
                        "restart the daemon"});
  } else if (!daemon && holder) {
    findings.push_back({Severity::kWarning, "", kLockFile,
                        "held by process " + *holder + ", though no daemon is named in " + kPidFile,
                        "it starts, or hangs in its start: look at that process"});
  } else if (!daemon && IsThere(kLockFile)) {
    findings.push_back(
        {Severity::kNote, "", kLockFile, "left over: the daemon did not end by itself", "the next start takes it"});
  } else {
    findings.push_back({Severity::kGood, "", kLockFile, daemon ? "held by the daemon" : "not held"});
  }
  return findings;
}

Findings CheckMappedRings() {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  if (!daemon) return {};
  const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  constexpr const char* kRestart = "it traces no more: keep the files, then restart the daemon";
  Findings findings;
  for (const MappedFile& ring : MappedFiles(daemon->pid, kRingName)) {
    struct stat info {};
    if (ring.path.ends_with(kGone) || ::stat(ring.path.c_str(), &info) != 0) {
      findings.push_back({Severity::kBad, "", ring.path, "removed under the running daemon", kRestart});
    } else if (static_cast<uint64_t>(info.st_size) + page <= ring.end) {
      findings.push_back({Severity::kBad, "", ring.path,
                          "cut short under the running daemon, to " + std::to_string(info.st_size) + " bytes",
                          kRestart});
    } else {
      findings.push_back({Severity::kGood, "", ring.path, "whole"});
    }
  }
  return findings;
}

}  // namespace ravctl
