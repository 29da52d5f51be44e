#pragma once

#include "support/fixture_root.h"
#include "trace/debug.h"

// A fixture root with the trace directory and, where a test wants them, trace configuration files.
class TraceRoot : public FixtureRoot {
 public:
  static constexpr const char* kConfig = "/etc/norrow/QuennetSuite/TraceConfig/";
  static constexpr const char* kIni = "/etc/norrow/QuennetSuite/TraceConfig/ravd.ini";
  static constexpr const char* kGlobal = "/etc/norrow/QuennetSuite/TraceConfig/global_trace.ini";
  static constexpr const char* kLog = "/var/log/pelrix/log.ravd";
  static constexpr const char* kStartUpRing = "/var/log/pelrix/log.ravd_i";
  static constexpr const char* kRunTimeRing = "/var/log/pelrix/log.ravd_a";

  TraceRoot() { MakeDirectory("/var/log/pelrix"); }

  // A ring buffer of 1 MiB (4 MiB while starting) at this level, without the memory column.
  void ConfigureRing(const std::string& level, const std::string& more = "") const {
    WriteFile(kIni, "[ravd]\nFileDebugLevel=" + level +
                        "\nRingBufferSizeFactor=1\nRingBufferSizeWeight=1\nMemoryTracesFlag=0\n" + more +
                        "[EndOfFile]\n");
  }
};

// A test with a root of its own.
class TraceTest : public ::testing::Test {
 protected:
  TraceRoot root;
};

inline constexpr const char* kEndMarker = "## TRACE-END ##\n";

// The text of the first entry that contains the word, without its header: "<time> [<thread>] ravd          <text>".
inline std::string TextOf(const std::string& file, const std::string& word) {
  const size_t at = file.find(word);
  if (at == std::string::npos) return "";
  const size_t begin = file.rfind('\n', at) == std::string::npos ? 0 : file.rfind('\n', at) + 1;
  const size_t tag = file.find("ravd          ", begin);
  return file.substr(tag + 14, file.find('\n', at) - tag - 14);
}

// The text of the first such entry in the log file, for the body of a run.
inline std::string LogText(const std::string& word) {
  return TextOf(ReadWholeFile(TraceRoot::kLog), word);
}
