#include "ravctl/commands/doctor.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "platform/directory.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/daemon/status.h"
#include "ravctl/commands/smbios/group.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/ini/ini_scan.h"
#include "ravctl/line/command.h"
#include "ravctl/registry/store_check.h"
#include "ravctl/registry/store_files.h"
#include "ravctl/trace/trace_settings.h"
#include "ravctl/tree/enter.h"

namespace ravctl {

namespace {

constexpr unsigned long long kLowSpace = 64ULL << 20;

std::vector<Finding> CheckDaemon() {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  if (!daemon) return {{Health::kWarning, kPidFile, "the daemon does not run", "start it"}};
  return {{Health::kGood, kPidFile, "runs as process " + std::to_string(daemon->pid), ""}};
}

std::vector<Finding> CheckKernelFiles() {
  std::vector<Finding> findings;
  for (const char* path : {"/proc/stat", "/proc/meminfo", "/proc/net/dev", "/proc/bus/pci", "/proc/iomem", "/sys/block",
                           "/sys/class/net", "/sys/firmware/dmi/tables/DMI", "/dev/mem"}) {
    if (::access(path, R_OK) == 0) {
      findings.push_back({Health::kGood, path, "readable", ""});
    } else if (errno == EACCES) {
      findings.push_back({Health::kUnknown, path, "not readable for this user", "run as root"});
    } else {
      findings.push_back({Health::kWarning, path, std::strerror(errno), "the answers that stand on it are missing"});
    }
  }
  return findings;
}

// What the daemon believes or runs belongs to root and is written by nobody else.
void CheckWriters(const std::string& path, std::vector<Finding>& findings) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) {
    if (errno != ENOENT) findings.push_back({Health::kUnknown, path, std::strerror(errno), "run as root"});
    return;
  }
  if (S_ISLNK(info.st_mode)) {
    findings.push_back({Health::kWarning, path, "a link: whoever can change its target decides", "use a plain file"});
  } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    findings.push_back({Health::kBad, path, "others than its owner may write to it", "chmod go-w " + path});
  } else if (info.st_uid != 0 && !IsInSysroot()) {
    // A captured tree does not keep owners.
    findings.push_back({Health::kBad, path, "belongs to user " + std::to_string(info.st_uid), "chown root " + path});
  }
}

std::vector<Finding> CheckPermissions() {
  std::vector<Finding> findings;
  for (const char* directory : {"/etc/pelrix", kTraceConfigDirectory, "/var/log/pelrix"}) {
    const size_t before = findings.size();
    CheckWriters(directory, findings);
    std::vector<std::string> names;
    CDirectory::GetDirectoryContent(names, directory, false);
    std::ranges::sort(names);
    for (const std::string& name : names)
      CheckWriters(std::string(directory) + "/" + name, findings);
    if (findings.size() == before && ::access(directory, F_OK) == 0) {
      findings.push_back({Health::kGood, directory, "written by its owner alone", ""});
    }
  }
  return findings;
}

std::vector<Finding> CheckTraces() {
  const std::vector<TraceFile> files = ReadTraceFiles(TraceSource());
  bool isGood = true;
  const Table table = VerifyTraces(files, isGood);
  std::vector<Finding> findings;
  for (size_t row = 0; row < table.Size(); ++row) {
    const Json& each = table.Row(row);
    if (each["good"]) continue;
    findings.push_back({Health::kBad, each["file"],
                        each["check"].get<std::string>() + ": " + each["finding"].get<std::string>(),
                        "the next start of the daemon makes it anew"});
  }
  for (const TraceFile& file : files) {
    if (isGood) findings.push_back({Health::kGood, file.Path(), "sound", ""});
  }
  return findings;
}

std::vector<Finding> CheckSmbios() {
  bool isDamaged = false;
  const Table table = VerifySmbios(ReadSmbiosImage(), isDamaged);
  std::vector<Finding> findings;
  for (size_t row = 0; row < table.Size(); ++row) {
    const Json& each = table.Row(row);
    if (each["health"] == "ok") continue;
    findings.push_back({each["health"] == "BAD" ? Health::kBad : Health::kWarning, each["subject"],
                        each["check"].get<std::string>() + ": " + each["finding"].get<std::string>(),
                        "a newer firmware may mend it; see ravctl smbios verify"});
  }
  if (findings.empty()) findings.push_back({Health::kGood, "SMBIOS", "sound", ""});
  return findings;
}

// One line for each file that a start may load.
std::vector<Finding> CheckRegistry() {
  std::vector<Finding> findings;
  for (const char* path : kStartOrder) {
    if (::access(path, F_OK) != 0) continue;
    const StoreCheck check = CheckStore(ReadStoreBytes(path));
    if (check.IsWhole()) {
      findings.push_back({Health::kGood, path, std::to_string(check.values) + " values", ""});
    } else {
      const auto damage = std::ranges::find(check.findings, StoreFinding::Health::kDamage, &StoreFinding::health);
      findings.push_back(
          {Health::kBad, path,
           std::to_string(check.Damage()) + " damaged: line " + std::to_string(damage->line) + ": " + damage->detail,
           "ravctl registry verify, ravctl registry recover"});
    }
  }
  if (findings.empty()) {
    findings.push_back({Health::kWarning, kStoreFile, "there is no registry", "the first module that saves makes it"});
  }
  return findings;
}

// Files of the trace configuration that are passed over, but for those of other applications.
std::vector<Finding> CheckTraceConfiguration() {
  const TraceSettings settings("ravd");
  std::vector<Finding> findings;
  for (const TraceConfigFile& file : settings.Files()) {
    const bool isGood = file.isUsed || file.reason.starts_with("has no section");
    findings.push_back(
        {isGood ? Health::kGood : Health::kWarning, file.path, file.reason, isGood ? "" : "see ravctl trace config"});
  }
  return findings;
}

// The same files as text: what reaches no reader.
std::vector<Finding> CheckIniFiles() {
  std::vector<Finding> findings;
  std::vector<std::string> names;
  CDirectory::GetDirectoryContent(names, kTraceConfigDirectory, false);
  std::ranges::sort(names);
  for (const std::string& name : names) {
    if (!name.ends_with(".ini")) continue;
    const std::string path = std::string(kTraceConfigDirectory) + "/" + name;
    const std::string text = ReadStoreBytes(path);
    const IniScan scan = ScanIni(text);
    const auto damage = std::ranges::find(scan.findings, true, &IniFinding::isDamage);
    if (damage == scan.findings.end()) {
      findings.push_back({Health::kGood, path, std::to_string(scan.sections.size()) + " sections", ""});
    } else {
      findings.push_back({Health::kBad, path, "line " + std::to_string(damage->line) + ": " + damage->text,
                          "ravctl ini check " + path});
    }
  }
  return findings;
}

std::vector<Finding> CheckDiskSpace() {
  std::vector<Finding> findings;
  for (const char* path : {"/var/log/pelrix", "/etc/pelrix", "/var/run"}) {
    if (IsInSysroot()) {
      findings.push_back({Health::kUnknown, path, "a captured tree does not tell", "ask on the machine itself"});
      continue;
    }
    struct statvfs info {};
    if (::statvfs(path, &info) != 0) {
      findings.push_back({Health::kWarning, path, std::strerror(errno), "create the directory"});
      continue;
    }
    const unsigned long long free = static_cast<unsigned long long>(info.f_bavail) * info.f_frsize;
    const bool isLow = free < kLowSpace;
    findings.push_back(
        {isLow ? Health::kBad : Health::kGood, path, HumanSize(free) + " free", isLow ? "make room" : ""});
  }
  return findings;
}

struct Check {
  const char* name;
  CheckFunction run;
};

// One line a check.
constexpr auto kChecks = std::to_array<Check>({
    {"daemon", CheckDaemon},
    {"permissions", CheckPermissions},
    {"kernel", CheckKernelFiles},
    {"smbios", CheckSmbios},
    {"registry", CheckRegistry},
    {"trace config", CheckTraceConfiguration},
    {"ini", CheckIniFiles},
    {"trace", CheckTraces},
    {"space", CheckDiskSpace},
});

const char* HealthName(Health health) {
  switch (health) {
    case Health::kGood:
      return "ok";
    case Health::kWarning:
      return "warning";
    case Health::kBad:
      return "BAD";
    case Health::kUnknown:
      break;
  }
  return "unknown";
}

Color HealthColor(const Json& row) {
  const std::string& health = row["health"].get_ref<const std::string&>();
  if (health == "ok") return Color::kGreen;
  return health == "BAD" ? Color::kRed : Color::kYellow;
}

std::vector<Finding> RunCheck(const Check& check) {
  try {
    return check.run();
  } catch (const CommandError& error) {
    return {{Health::kUnknown, check.name, error.what(), ""}};
  }
}

ExitCode RunDoctor(Output& out) {
  Table table({{.key = "health", .heading = "HEALTH", .color = HealthColor},
               {.key = "check", .heading = "CHECK"},
               {.key = "subject", .heading = "SUBJECT"},
               {.key = "finding", .heading = "FINDING"},
               {.key = "todo", .heading = "TO DO"}});
  bool isHealthy = true;
  for (const Check& check : kChecks) {
    for (const Finding& finding : RunCheck(check)) {
      isHealthy = isHealthy && (finding.health == Health::kGood || finding.health == Health::kUnknown);
      table.Add({{"health", HealthName(finding.health)},
                 {"check", check.name},
                 {"subject", finding.subject},
                 {"finding", finding.text},
                 {"todo", finding.toDo.empty() ? Json() : Json(finding.toDo)}});
    }
  }
  out.Print({"doctor"}, table);
  return isHealthy ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void RegisterDoctor(CLI::App& root) {
  AddCommand(root,
             {"doctor",
              "Check everything that the daemon and the library stand on; exit status 1 when something is wrong",
              {{"ravctl doctor", "one line a finding"},
               {"ravctl doctor --json | jq '.data[] | select(.health == \"BAD\")'", "what is broken"}}},
             [](Output& out) { return RunDoctor(out); });
}

}  // namespace ravctl
