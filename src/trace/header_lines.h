#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trace/log_file.h"
#include "trace/ring_buffer.h"
#include "trace/trace_settings.h"

// The header block that stands at the start of a ring buffer and, where it is wanted, of the log file: the texts of its
// entries in their order, four groups and kEndOfHeader behind them. Any thread; whoever may look at what is passed.

using HeaderLines = std::vector<std::string>;

inline constexpr const char* kEndOfHeader = "# End of header.";

// None for an argc of 0.
HeaderLines CommandLineLines(const char* appName, int argc, char** argv);

// The environment variables and configuration names that matter, with their values as they are now: to be taken while
// nobody else can change the environment.
HeaderLines VariableLines(const char* appName);

HeaderLines IniValueLines(const TraceSettings& settings);

// What the trace object works with.
struct TraceState {
  uint32_t pid;
  uint32_t target;
  uint32_t level;
  uint32_t levelSaved;
  bool isApplInitDone;
  const TraceSettings& settings;
  const RingBuffer& ringBuffer;
  const LogFile& logFile;
};
HeaderLines StateLines(const TraceState& state);
