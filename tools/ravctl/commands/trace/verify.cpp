// trace verify: whether a trace file is what the writer leaves.

#include "ravctl/commands/trace/group.h"
#include "ravctl/trace/trace_check.h"

namespace ravctl {

namespace {

ExitCode Run(const TraceSource& source, Output& out) {
  Findings findings;
  for (const TraceFile& file : ReadTraceFiles(source)) {
    for (const Finding& finding : CheckTrace(file))
      findings.push_back(finding);
  }
  return PrintFindings(kTraceVerify, findings, out);
}

}  // namespace

void AddTraceVerify(Command& trace) {
  auto source = std::make_shared<TraceSource>();
  Command& verify = trace.Add({"verify",
                               "Check the structure of trace files; exit status 5 when one is damaged",
                               {{"ravctl trace verify", "the daemon's ring buffers"},
                                {"ravctl trace verify ./log.ravd_a", "a file from another machine"}}},
                              [source](Output& out) { return Run(*source, out); });
  verify.Answers({&kTraceVerify});
  AddSourceOptions(verify, *source);
}

}  // namespace ravctl
