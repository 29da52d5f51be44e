#include "ravctl/commands/doctor.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/directory.h"
#include "ravctl/answer/finding.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/daemon/process.h"
#include "ravctl/daemon/service_check.h"
#include "ravctl/hardware/smbios_check.h"
#include "ravctl/ini/ini_check.h"
#include "ravctl/line/command.h"
#include "ravctl/registry/store_check.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/registry/store_findings.h"
#include "ravctl/trace/last_crash.h"
#include "ravctl/trace/trace_check.h"
#include "ravctl/trace/trace_settings.h"
#include "ravctl/tree/enter.h"
#include "ravctl/tree/machine_answers.h"

namespace ravctl {

namespace {

constexpr Schema kDoctor = {"doctor", 2, ListOf(kFindingFields)};

constexpr unsigned long long kLowSpace = 64ULL << 20;

Findings CheckDaemon() {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  if (!daemon) return {{Severity::kWarning, "", kPidFile, "the daemon does not run", "start it"}};
  return {{Severity::kGood, "", kPidFile, "runs as process " + std::to_string(daemon->pid), ""}};
}

// It stays a finding as long as its trace is kept.
Findings CheckLastCrash() {
  const std::optional<LastCrash> crash = FindLastCrash();
  if (!crash) return {{Severity::kGood, "", DirectoryOf(TraceSource()), "no run that crashed is kept"}};
  return {{Severity::kWarning, "", crash->path, "the last run that is kept " + crash->text,
           "see ravctl trace show --run 1, then remove the directory"}};
}

Findings CheckKernelFiles() {
  Findings findings;
  for (const char* path : {"/proc/stat", "/proc/meminfo", "/proc/net/dev", "/proc/bus/pci", "/proc/iomem", "/sys/block",
                           "/sys/class/net", "/sys/firmware/dmi/tables/DMI", "/dev/mem"}) {
    if (::access(path, R_OK) == 0) {
      findings.push_back({Severity::kGood, "", path, "readable", ""});
    } else if (errno == EACCES) {
      findings.push_back({Severity::kUnknown, "", path, "not readable for this user", "run as root"});
    } else {
      findings.push_back(
          {Severity::kWarning, "", path, std::strerror(errno), "the answers that stand on it are missing"});
    }
  }
  return findings;
}

// What the daemon believes or runs belongs to root and is written by nobody else.
void CheckWriters(const std::string& path, Findings& findings) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) {
    if (errno != ENOENT) findings.push_back({Severity::kUnknown, "", path, std::strerror(errno), "run as root"});
    return;
  }
  if (S_ISLNK(info.st_mode)) {
    findings.push_back(
        {Severity::kWarning, "", path, "a link: whoever can change its target decides", "use a plain file"});
  } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    findings.push_back({Severity::kBad, "", path, "others than its owner may write to it", "chmod go-w " + path});
  } else if (info.st_uid != 0 && !IsInSysroot()) {
    // A captured tree does not keep owners.
    findings.push_back(
        {Severity::kBad, "", path, "belongs to user " + std::to_string(info.st_uid), "chown root " + path});
  }
}

Findings CheckPermissions() {
  Findings findings;
  for (const char* directory : {"/etc/pelrix", kTraceConfigDirectory, "/var/log/pelrix"}) {
    const size_t before = findings.size();
    CheckWriters(directory, findings);
    std::vector<std::string> names;
    CDirectory::GetDirectoryContent(names, directory, false);
    std::ranges::sort(names);
    for (const std::string& name : names)
      CheckWriters(std::string(directory) + "/" + name, findings);
    if (findings.size() == before && ::access(directory, F_OK) == 0) {
      findings.push_back({Severity::kGood, "", directory, "written by its owner alone", ""});
    }
  }
  return findings;
}

constexpr size_t kMostOfOnePlace = 5;

// What a checker has to complain of or cannot tell, or one line that says that the place is sound.
void Pass(const Findings& found, const std::string& place, const std::string& good, Findings& findings) {
  const auto isTold = [](const Finding& each) {
    return each.severity >= Severity::kWarning || each.severity == Severity::kUnknown;
  };
  if (std::ranges::none_of(found, isTold)) findings.push_back({Severity::kGood, "", place, good});
  size_t count = 0;
  for (const Finding& each : found) {
    if (!isTold(each) || ++count > kMostOfOnePlace) continue;
    const std::string check = each.check.empty() ? "" : each.check + ": ";
    findings.push_back({each.severity, "", each.place, check + each.what, each.toDo});
  }
  if (count > kMostOfOnePlace) {
    findings.push_back({WorstOf(found), "", place, std::to_string(count - kMostOfOnePlace) + " more findings"});
  }
}

Findings CheckTraces() {
  Findings findings;
  for (const TraceFile& file : ReadTraceFiles(TraceSource()))
    Pass(CheckTrace(file), file.Path(), "sound", findings);
  return findings;
}

Findings CheckFirmware() {
  Findings findings;
  Pass(CheckSmbios(ReadSmbiosImage()), "SMBIOS", "sound", findings);
  return findings;
}

// Each file that a start may load.
Findings CheckRegistry() {
  Findings findings;
  for (const char* path : kStartOrder) {
    if (::access(path, F_OK) != 0) continue;
    const StoreCheck check = CheckStore(ReadWholeFile(path));
    Pass(FindingsOf(path, check, true), path, std::to_string(check.values) + " values", findings);
  }
  if (findings.empty()) {
    findings.push_back(
        {Severity::kWarning, "", kStoreFile, "there is no registry", "the first module that saves makes it"});
  }
  return findings;
}

constexpr const char* kNotTold = "a captured tree does not tell";

Findings CheckTheSwitch() {
  if (IsInSysroot()) return {{Severity::kUnknown, "", "module switch", kNotTold, "ask on the machine itself"}};
  Findings findings;
  Pass(CheckSwitch(), "module switch", "can be loaded, and root alone can change it", findings);
  return findings;
}

Findings CheckUnit() {
  const std::string told = IsInSysroot() ? ReadFileIfThere(kUnitAnswer).value_or("") : AskForUnit();
  if (!told.empty()) return UnitFindings(told);
  return {{Severity::kUnknown, "", kUnit, IsInSysroot() ? kNotTold : "no service manager tells of it"}};
}

Findings CheckServiceDefaults() {
  Findings findings;
  CheckWriters(DefaultsPath(), findings);
  Pass(CheckDefaults(), DefaultsPath(), "every line reaches the service", findings);
  return findings;
}

// Files of the trace configuration that are passed over, but for those of other applications.
Findings CheckTraceConfiguration() {
  const TraceSettings settings("ravd");
  Findings findings;
  for (const TraceConfigFile& file : settings.Files()) {
    const bool isGood = file.isUsed || file.reason.starts_with("has no section");
    findings.push_back({isGood ? Severity::kGood : Severity::kWarning, "", file.path, file.reason,
                        isGood ? "" : "see ravctl trace config"});
  }
  return findings;
}

// The same files as text: what reaches no reader.
Findings CheckIniFiles() {
  Findings findings;
  std::vector<std::string> names;
  CDirectory::GetDirectoryContent(names, kTraceConfigDirectory, false);
  std::ranges::sort(names);
  for (const std::string& name : names) {
    if (!name.ends_with(".ini")) continue;
    const std::string path = std::string(kTraceConfigDirectory) + "/" + name;
    Pass(CheckIni(path, ReadWholeFile(path)), path, "every line reaches a reader", findings);
  }
  return findings;
}

Findings CheckDiskSpace() {
  Findings findings;
  for (const char* path : {"/var/log/pelrix", "/etc/pelrix", "/var/run"}) {
    if (IsInSysroot()) {
      findings.push_back({Severity::kUnknown, "", path, kNotTold, "ask on the machine itself"});
      continue;
    }
    struct statvfs info {};
    if (::statvfs(path, &info) != 0) {
      findings.push_back({Severity::kWarning, "", path, std::strerror(errno), "create the directory"});
      continue;
    }
    const unsigned long long free = static_cast<unsigned long long>(info.f_bavail) * info.f_frsize;
    const bool isLow = free < kLowSpace;
    findings.push_back(
        {isLow ? Severity::kBad : Severity::kGood, "", path, HumanSize(free) + " free", isLow ? "make room" : ""});
  }
  return findings;
}

// Looks at one part of the machine and never throws for what it finds: a part that it may not see is kUnknown.
struct Check {
  const char* name;
  Findings (*run)();
};

// One line a check.
constexpr auto kChecks = std::to_array<Check>({
    {"daemon", CheckDaemon},
    {"switch", CheckTheSwitch},
    {"defaults", CheckServiceDefaults},
    {"unit", CheckUnit},
    {"leftovers", CheckLeftovers},
    {"ring", CheckMappedRings},
    {"crash", CheckLastCrash},
    {"permissions", CheckPermissions},
    {"kernel", CheckKernelFiles},
    {"smbios", CheckFirmware},
    {"registry", CheckRegistry},
    {"trace config", CheckTraceConfiguration},
    {"ini", CheckIniFiles},
    {"trace", CheckTraces},
    {"space", CheckDiskSpace},
});

Findings RunCheck(const Check& check) {
  Findings findings;
  try {
    findings = check.run();
  } catch (const CommandError& error) {
    const bool isDamage = error.Code() == ExitCode::kInputDamaged;
    findings = {{isDamage ? Severity::kBad : Severity::kUnknown, "", check.name, error.what()}};
  }
  for (Finding& finding : findings)
    finding.check = check.name;
  return findings;
}

ExitCode RunDoctor(Output& out) {
  Findings findings;
  for (const Check& check : kChecks) {
    for (const Finding& finding : RunCheck(check))
      findings.push_back(finding);
  }
  PrintFindings(kDoctor, findings, out);
  return WorstOf(findings) < Severity::kBad ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddDoctor(Command& root) {
  root.Add({"doctor",
            "Check everything that the daemon and the library stand on; exit status 1 when something is broken (bad), "
            "while a warning is none",
            {{"ravctl doctor", "one line a finding"},
             {"ravctl doctor --json | jq '.data[] | select(.severity == \"bad\")'", "what is broken"}}},
           [](Output& out) { return RunDoctor(out); })
      .Answers({&kDoctor});
}

}  // namespace ravctl
