#pragma once

#include <CLI/CLI.hpp>

#include "ravctl/answer/output.h"
#include "ravctl/trace/trace_file.h"

namespace ravctl {

// trace and everything below it
void RegisterTrace(CLI::App& root);

// The commands below trace, each in a file of its own.
void AddTraceShow(CLI::App& trace);
void AddTraceFollow(CLI::App& trace);
void AddTraceHeader(CLI::App& trace);
void AddTraceStats(CLI::App& trace);
void AddTraceVerify(CLI::App& trace);
void AddTraceConfig(CLI::App& trace);
void AddTraceToggle(CLI::App& trace);
void AddTraceLevel(CLI::App& trace);

// The argument and options that say which trace is meant.
void AddSourceOptions(CLI::App& command, TraceSource& source);

// Warns about a file that was damaged; true when it was.
bool WarnAboutDamage(const TraceFile& file, Output& out);

// What trace verify finds: rows of file, check, good and finding.
Table VerifyTraces(const std::vector<TraceFile>& files, bool& isGood);

}  // namespace ravctl
