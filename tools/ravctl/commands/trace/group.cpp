#include "ravctl/commands/trace/group.h"

#include "ravctl/answer/json.h"
#include "ravctl/line/command.h"

namespace ravctl {

void AddDirectoryOption(Command& command, TraceSource& source) {
  command.AddOption("-d,--dir", &source.directory, "DIR",
                    "Where the application's traces are, if not where it is configured");
}

void AddSourceOptions(Command& command, TraceSource& source) {
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

bool WarnAboutDamage(const TraceFile& file, Output& out) {
  if (file.Damage().empty()) return false;
  out.Warn("the trace cannot be unpacked to its end: " + file.Damage(), file.Path(), "what could be read is shown");
  return true;
}

}  // namespace ravctl
