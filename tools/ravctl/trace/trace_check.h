#pragma once

#include "ravctl/answer/finding.h"
#include "ravctl/trace/trace_file.h"

namespace ravctl {

// Whether a trace file is what the writer leaves.
Findings CheckTrace(const TraceFile& file);

}  // namespace ravctl
