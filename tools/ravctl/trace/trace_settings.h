#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

// The trace configuration of an application: the environment before the ini files before the defaults, read the way the
// trace object reads them. The environment is that of the running daemon when the application is the daemon and may be
// looked into, else the caller's own.
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
  struct Variable {
    std::string name;
    std::string value;
  };

  void ReadEnvironment();
  void ReadFiles();
  void Compute();
  const std::string* Find(const std::string& variable) const;
  uint32_t Add(const std::string& name, const std::vector<std::string>& variables, const std::string& key,
               uint32_t defaultValue);

  std::string m_Application;
  std::vector<Variable> m_Environment;
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
