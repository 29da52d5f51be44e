#include "ravctl/commands/trace/group.h"

#include "ravctl/answer/json.h"
#include "ravctl/line/command.h"

namespace ravctl {

void AddDirectoryOption(Command& command, TraceSource& source) {
  command.AddOption("-d,--dir", &source.directory, "DIR",
                    "Where the application's traces are, if not where it is configured");
}

void AddPresentSource(Command& command, TraceSource& source) {
  command.AddWord("SOURCE", &source.what, "An application, or a trace file by its path (also .gz); usually ravd");
  AddDirectoryOption(command, source);
  const auto setPart = [&source](const std::string& part) {
    source.part = part == "start" ? TracePart::kStart
                  : part == "run" ? TracePart::kRun
                  : part == "log" ? TracePart::kLog
                                  : TracePart::kRings;
  };
  command.AddOption("-p,--part", setPart, "PART",
                    "rings (the usual: start-up and run-time ring buffer), start, run, or log for the log file",
                    OneOf({"rings", "start", "run", "log"}));
}

void AddSourceOptions(Command& command, TraceSource& source) {
  AddPresentSource(command, source);
  command.AddOption("--run", &source.run, "N",
                    "A run as trace list numbers them: 1 is the last that was kept, 0 (the usual) the present one",
                    NotNegative());
  command.AddFlag("--previous", &source.isPrevious, "The run that was kept last, as --run 1").excludes = "--run";
}

bool WarnAboutDamage(const TraceFile& file, Output& out) {
  if (file.HasNoEntry()) {
    out.Warn("not a trace: no line of it begins an entry", file.Path(), "name a file that an application traced to");
    return true;
  }
  if (file.Damage().empty()) return false;
  out.Warn("the trace cannot be unpacked to its end: " + file.Damage(), file.Path(), "what could be read is shown");
  return true;
}

}  // namespace ravctl
