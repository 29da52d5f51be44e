#pragma once

#include <cstddef>
#include <cstdint>

#include "trace/debug_trace_config_file.h"

// What the trace object is told by the ini files of the trace configuration directory, by the environment and, where
// both are silent, by the built-in defaults. docs/configuration.md lists the names and which source wins.
struct TraceSettings {
  static constexpr uint32_t kNotGiven = 0xFFFFFFFF;
  static constexpr size_t kPathSize = 256;

  // As the ini files have them, kNotGiven or "" where they do not.
  uint32_t iniRingBufferSizeFactor = 0;
  uint32_t iniRingBufferSizeWeight = 0;
  uint32_t iniNoHeader = 0;
  uint32_t iniDynamicUpdate = 0;
  char iniDirectory[kPathSize] = {};
  uint32_t memoryTracesFlag = 0;  // non-zero, "not given" included: the resident memory stands in every entry header
  uint32_t fileDebugLevel = 0;
  uint32_t traceFlags = 0;

  // In effect
  char directory[kPathSize] = {};
  uint32_t noHeader = 0;
  uint32_t traceLevel = 0;
  int32_t dynamicUpdate = 0;  // seconds between two looks at the files, 0 = never
  uint32_t ringBufferFactor = 0;
  uint32_t ringBufferWeight = 0;
  uint32_t maxLogFileSize = 0;  // bytes
};

// Reads everything at the start. Both files are left as those to be followed, or empty. The weight that the
// application's own variable gives counts only when tracing is on at all.
TraceSettings ReadTraceSettings(const char* appName, CDebugTraceConfigFile& global, CDebugTraceConfigFile& application);

// Looks at the followed files and takes over what a changed one says about the values that may change while the
// application runs: dynamicUpdate, fileDebugLevel, traceFlags, memoryTracesFlag. True when it gives a level.
bool UpdateTraceSettings(TraceSettings& settings, const char* appName, CDebugTraceConfigFile& global,
                         CDebugTraceConfigFile& application);

// As CDebug::BuildAppVarName.
void AppendAppName(char* buf, size_t size, const char* appName);

// The name of an application's own weight variable: "ravd" => "QN_LOG_RINGBUF_WEIGHT_RAVD", cut to the buffer.
struct WeightVariable {
  explicit WeightVariable(const char* appName);
  char name[48];
};
