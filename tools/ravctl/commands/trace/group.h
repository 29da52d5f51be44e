#pragma once

#include "ravctl/answer/output.h"
#include "ravctl/line/command.h"
#include "ravctl/trace/trace_file.h"

namespace ravctl {

// ravctl trace ...
void AddTraceList(Command& trace);
void AddTraceShow(Command& trace);
void AddTraceFollow(Command& trace);
void AddTraceHeader(Command& trace);
void AddTraceStats(Command& trace);
void AddTraceVerify(Command& trace);
void AddTraceConfig(Command& trace);
void AddTraceToggle(Command& trace);
void AddTraceLevel(Command& trace);

// What they answer.
extern const Schema kTraceList, kTraceShow, kTraceEntry, kTraceHeader, kTraceStats, kTraceVerify, kTraceConfig,
    kTraceToggle, kTraceLevel;

// Where the traces are.
void AddDirectoryOption(Command& command, TraceSource& source);
// The argument and options that say which trace of the present run is meant; the second adds those of the kept runs.
void AddPresentSource(Command& command, TraceSource& source);
void AddSourceOptions(Command& command, TraceSource& source);

// Warns about a file that was damaged, or is none of a trace; true when it was.
bool WarnAboutDamage(const TraceFile& file, Output& out);

}  // namespace ravctl
