#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "trace/debug_trace_config_file.h"

namespace ravctl {

inline constexpr const char* kTraceConfigDirectory = "/etc/norrow/QuennetSuite/TraceConfig";

// One trace setting as an application that starts now would take it.
struct TraceSetting {
  std::string name;     // "level"
  std::string value;    // effective
  std::string source;   // "environment", "file" or "default"
  std::string from;     // the variable, or the file and key; empty for a default
  std::string comment;  // what the number means, or why it has no effect; may be empty
};

// A file of the configuration directory and what became of it.
struct TraceConfigFile {
  std::string path;
  bool isUsed = false;
  std::string reason;  // why it was not used, or for what it was
};

// The trace configuration of an application as the trace object itself reads it, and where each value comes from. The
// environment is that of the running daemon when the application is the daemon and may be looked into, else the
// caller's own; it takes the place of the caller's while an object is made, which only one thread may do.
class TraceSettings {
 public:
  explicit TraceSettings(std::string application);

  const std::vector<TraceSetting>& Settings() const { return m_Settings; }
  const std::vector<TraceConfigFile>& Files() const { return m_Files; }
  const std::string& Directory() const { return m_Directory; }
  // "process 123" or "this command".
  const std::string& EnvironmentOf() const { return m_EnvironmentOf; }
  // The file that holds the application's section; empty when none does.
  const std::string& ApplicationFile() const { return m_ApplicationFile; }
  uint32_t Level() const { return m_Level; }
  uint32_t DynamicUpdate() const { return m_DynamicUpdate; }
  // Whether the application traces at all: level, factor and weight are set.
  bool IsTracing() const { return m_IsTracing; }
  // Whether the level comes from the environment.
  bool IsLevelFromEnvironment() const { return m_IsLevelFromEnvironment; }

 private:
  // A number of the trace object's: the first of the variables that is set gave it, else the key, else nobody.
  void Add(const std::string& name, uint32_t value, const std::vector<std::string>& variables,
           const CDebugTraceConfigFile* file = nullptr, const char* key = "");
  std::string ReadEnvironment();
  void ReadFiles();
  void Compute();

  std::string m_Application;
  std::string m_EnvironmentOf;
  std::string m_ApplicationFile;
  std::string m_GlobalFile;
  bool m_IsDirectoryEmpty = false;  // it exists without an ini file: nothing at all is configured
  std::vector<TraceSetting> m_Settings;
  std::vector<TraceConfigFile> m_Files;
  std::string m_Directory;
  uint32_t m_Level = 0;
  uint32_t m_DynamicUpdate = 0;
  bool m_IsTracing = false;
  bool m_IsLevelFromEnvironment = false;
};

}  // namespace ravctl
