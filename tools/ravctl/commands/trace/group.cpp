#include "ravctl/commands/trace/group.h"

#include "ravctl/line/command.h"

namespace ravctl {

void RegisterTrace(CLI::App& root) {
  CLI::App& trace = AddGroup(root, "trace", "Traces of the daemon and of other applications of the library");
  AddTraceShow(trace);
  AddTraceFollow(trace);
  AddTraceHeader(trace);
  AddTraceStats(trace);
  AddTraceVerify(trace);
  AddTraceConfig(trace);
  AddTraceToggle(trace);
  AddTraceLevel(trace);
}

void AddSourceOptions(CLI::App& command, TraceSource& source) {
  command.add_option("SOURCE", source.what, "An application, or a trace file by its path (also .gz); usually ravd");
  command.add_option("-d,--dir", source.directory, "Where the application's traces are, if not where it is configured")
      ->type_name("DIR");
  command
      .add_option_function<std::string>(
          "-p,--part",
          [&source](const std::string& part) {
            source.part = part == "start" ? TracePart::kStart
                          : part == "run" ? TracePart::kRun
                          : part == "log" ? TracePart::kLog
                                          : TracePart::kRings;
          },
          "rings (the usual: start-up and run-time ring buffer), start, run, or log for the log file")
      ->type_name("PART")
      ->check(CLI::IsMember({"rings", "start", "run", "log"}).description(""));
}

bool WarnAboutDamage(const TraceFile& file, Output& out) {
  if (file.Damage().empty()) return false;
  out.Warn("the trace cannot be unpacked to its end: " + file.Damage(), file.Path(), "what could be read is shown");
  return true;
}

}  // namespace ravctl
