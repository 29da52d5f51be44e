#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "trace/debug_trace_config_file.h"

// The configuration values of the trace object and the files that they come from.
//
// The first members are read by modules that were built elsewhere, without the lock, while a followed file may change
// them: their order and sizes must not change.
class CDebugTraceConfig {
 public:
  // Read by anybody at any time, written by the trace object alone:
  std::atomic<uint32_t> m_TraceLevel = 0;       // a message of level L is written when L <= m_TraceLevel
  std::atomic<uint32_t> m_TraceLevelSaved = 0;  // what ForceMaxDebug(true) restores
  std::atomic<uint32_t> m_FileDebugLevel = 0;   // ini key FileDebugLevel
  std::atomic<uint32_t> m_TraceFlags = 0;       // ini key TraceFlags; for readers outside, means nothing in here
  std::atomic<bool> m_TraceActive = false;      // tested by every caller before it formats a message; takes no lock

 protected:
  char* m_AppName = nullptr;  // as given to Init; owned (new[])
  CDebugTraceConfigFile m_GlobalConfig;
  CDebugTraceConfigFile m_AppConfig;
  std::atomic<int32_t> m_DynamicUpdate = 0;  // seconds between two looks at the files, 0 = never
  time_t m_LastConfigCheck = 0;
};
