#include "ravctl/commands/doctor.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "ravctl/commands/daemon_status.h"
#include "ravctl/core/command.h"
#include "ravctl/core/text.h"

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

std::vector<Finding> CheckDiskSpace() {
  std::vector<Finding> findings;
  for (const char* path : {"/var/log/pelrix", "/etc/pelrix", "/var/run"}) {
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
    {"kernel", CheckKernelFiles},
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
