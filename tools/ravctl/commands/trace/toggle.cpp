// trace toggle: switch the daemon's trace on or off.

#include <poll.h>

#include <cerrno>
#include <csignal>

#include "ravctl/answer/json.h"
#include "ravctl/commands/trace/group.h"
#include "ravctl/daemon/process.h"
#include "ravctl/trace/trace_entry.h"
#include "ravctl/trace/trace_file.h"
#include "ravctl/trace/trace_settings.h"

namespace ravctl {

namespace {

constexpr int kAnswerTries = 20;
constexpr int kAnswerStepMs = 50;

CommandError NotRunning() {
  return {ExitCode::kNotRunning, "the daemon does not run", kPidFile, "start it first"};
}

// The newest answer to a SIGHUP in the daemon's log file; empty when there is none.
std::string NewestAnswer(const std::string& logFile) {
  std::string newest;
  try {
    const TraceFile file(logFile);
    for (const std::string_view part : file.Layout().parts) {
      ForEachEntry(part, [&newest](std::string_view whole) {
        if (whole.find(" due to SIGHUP\n") != std::string_view::npos) newest = whole;
        return true;
      });
    }
  } catch (const CommandError&) {
    // Without a log file there is no answer.
  }
  return newest;
}

ExitCode Run(Output& out) {
  const std::optional<DaemonProcess> daemon = FindDaemon();
  if (!daemon) throw NotRunning();
  const TraceSettings settings("ravd");
  const std::string log = PathsOf(settings.Directory(), "ravd").log;
  const std::string before = NewestAnswer(log);
  if (::kill(daemon->pid, SIGHUP) != 0) {
    const int error = errno;
    if (error == ESRCH) throw NotRunning();
    throw SystemFailure("cannot signal the daemon", "process " + std::to_string(daemon->pid), error);
  }
  std::string answer = before;
  for (int tries = 0; tries < kAnswerTries && answer == before; ++tries) {
    ::poll(nullptr, 0, kAnswerStepMs);
    answer = NewestAnswer(log);
  }
  const bool isTold = answer != before;
  const bool isOn = answer.find("Trace forced") != std::string::npos;
  const bool hasLevel = settings.IsTracing();
  if (isTold && isOn && !hasLevel) {
    out.Warn("tracing is on but no level is configured, so nothing is traced", kTraceConfigDirectory,
             "set one with ravctl trace level and restart the daemon");
  }
  if (!isTold) out.Warn("the daemon has not answered yet", log, "look there for \"due to SIGHUP\"");
  const std::string state = !isTold ? "asked to toggle" : isOn ? "on" : "off";
  out.Print(kTraceToggle, "trace of process " + std::to_string(daemon->pid) + ": " + state + "\n",
            {{"pid", daemon->pid}, {"tracing", isTold ? Json(isOn) : Json()}});
  return ExitCode::kDone;
}

}  // namespace

void AddTraceToggle(Command& trace) {
  trace
      .Add({"toggle",
            "Switch the trace of the running daemon on or off (SIGHUP)",
            {{"ravctl trace toggle", "off when it is on, on with the configured level when it is off"}},
            Effect::kChanges},
           [](Output& out) { return Run(out); })
      .Answers({&kTraceToggle});
}

}  // namespace ravctl
