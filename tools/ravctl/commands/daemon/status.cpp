// daemon status: whether the daemon runs, and as what.

#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/base/times.h"
#include "ravctl/commands/daemon/group.h"
#include "ravctl/daemon/process.h"
#include "ravctl/trace/last_crash.h"

namespace ravctl {

namespace {

constexpr auto kStatusFields = std::to_array<Field>({
    {"running", kBoolean, "whether the daemon runs"},
    {"pid", kCountOrNull, "its process number"},
    {"executable", kTextOrNull, "the file that it was started from"},
    {"started", kTimeOrNull, "when it was started"},
    {"resident_kb", kCountOrNull, "memory that it holds, in KiB"},
    {"threads", kCountOrNull, "how many threads it has"},
    {"pid_file", kText, "where its process number is written"},
    {"lock_owner", kTextOrNull, "what the lock file says"},
    {"last_crash", kTextOrNull, "when and how the newest of the runs ended whose trace is kept; null when none is"},
    {"last_crash_trace", kTextOrNull, "where that trace is"},
});
constexpr auto kLineFields = std::to_array<Field>({
    {"name", kText, "what is told"},
    {"value", kAnything, "how it is"},
});
constexpr Schema kDaemonStatus = {"daemon-status", 1, Record(kStatusFields), kLineFields};

// Who may not look into the trace directory is told the rest.
std::optional<LastCrash> LastCrashIfTold(Output& out) {
  try {
    return FindLastCrash();
  } catch (const CommandError& error) {
    out.Warn(error.what());
    return std::nullopt;
  }
}

ExitCode RunStatus(Output& out) {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  const std::optional<LastCrash> crash = LastCrashIfTold(out);
  std::string lock;
  ReadFileInto(kLockFile, lock);
  Json data = {{"running", daemon.has_value()},
               {"pid", daemon ? Json(daemon->pid) : Json()},
               {"executable", daemon && !daemon->executable.empty() ? Json(daemon->executable) : Json()},
               {"started", daemon && daemon->startedAt != 0 ? Json(LocalTimeText(daemon->startedAt)) : Json()},
               {"resident_kb", daemon ? Json(daemon->residentKb) : Json()},
               {"threads", daemon ? Json(daemon->threads) : Json()},
               {"pid_file", kPidFile},
               {"lock_owner", lock.empty() ? Json() : Json(lock)},
               {"last_crash", crash ? Json(crash->text) : Json()},
               {"last_crash_trace", crash ? Json(crash->path) : Json()}};
  Table table(kDaemonStatus);
  for (const auto& [name, value] : data.items())
    table.Add({{"name", name}, {"value", value}});
  out.Print(kDaemonStatus, table, data);
  return daemon ? ExitCode::kDone : ExitCode::kNotRunning;
}

}  // namespace

void AddDaemonStatus(Command& daemon) {
  daemon
      .Add({"status",
            "Show whether the daemon runs, and as what; exit status 6 when it does not",
            {{"ravctl daemon status", "process, memory and lock owner of the daemon"},
             {"ravctl daemon status --json | jq .data.pid", "its process number for a script"}}},
           [](Output& out) { return RunStatus(out); })
      .Answers({&kDaemonStatus});
}

}  // namespace ravctl
