#include "trace/header_lines.h"

#include <cstdlib>

namespace {

// A reader of trace files knows the names of both lists in this order.
constexpr const char* kEnvironment[] = {
    "LD_LIBRARY_PATH",
    "QN_SYSTEM",
    "QN_OS",
    "QN_OS_MAJOR",
    "QN_OS_MINOR",
    "QN_VVOS",
    "QN_RELEASE",
    "QN_VENDOR",
    "QN_HOSTNAME",
    "QN_HOSTOSREVMAJOR",
    "QN_HOSTOSREVMINOR",
    "QN_SYSNAME",
    "QN_VERSION",
    "QN_NICKNAME",
    "QN_HWPLATFORM",
    "QN_RUNNINGONVM",
    "QN_RUNNINGONPAN",
    "QN_VMREL",
    "QN_ARCH",
    "QN_REPO",
    "QN_RAID_EXISTS",
    "QN_RAID_READY",
    "QN_RAID_VERSION",
    "QN_INSTALL_DATE",
    "QN_USE_SG_IO_HDR_T",
    "QN_AGENT_X_SOCKET",
    "QN_RAVD_REPLY_TIME",
    "QN_DAEMON_COREFILE_LIMIT",
    "QN_VME_WAIT_TIME_FOR_VMSERVER",
    "QN_KPL_PROVIDER_TRACE",
    "QN_KPL_NOSIGNAL",
    "QN_LOG_DYNAMIC_UPDATE",
    "QN_KPL_DEBUG_LEVEL",
    "QN_LOG_FILE_DIR",
    "QN_LOG_FILE_MAX_SIZE",
    "QN_LOG_RINGBUF_DIR",
    "QN_LOG_DEBUG_LEVEL",
    "QN_LOG_RINGBUF_WEIGHT",
    "QN_LOG_NOHDR_TOSDTERR",
    "OLB_QN_HOME",
    "OLB_SYSLOG_FIFO",
};

constexpr const char* kConfiguration[] = {
    "AgentPermission",          "AgentShut",         "ShutdownDelay",      "UserGroup",
    "ScanTapeDevices",          "TraceFileLimit",    "NoAccountCheck",     "InventoryRescan",
    "CDPollInterval",           "AgentsToBeStarted", "WaitForRavdSockets", "WaitForRavdTerm",
    "InvAgtPollNetUtilization",
};

void AddVariable(HeaderLines& lines, const char* name) {
  const char* value = std::getenv(name);
  lines.push_back(std::string(name) + "=" + (value != nullptr ? value : "NotSet"));
}

// All numbers of the header are signed 32-bit ones, "not given" being -1.
template <class Number>
std::string Text(Number number) {
  return std::to_string(static_cast<int32_t>(number));
}

}  // namespace

HeaderLines CommandLineLines(const char* appName, int argc, char** argv) {
  HeaderLines lines;
  if (argc <= 0) return lines;
  lines.push_back(std::string(appName) + " Command Line Options:");
  for (int index = 0; index < argc; ++index)
    lines.push_back("argv[" + std::to_string(index) + "] = \"" + argv[index] + "\"");
  return lines;
}

HeaderLines VariableLines(const char* appName) {
  HeaderLines lines = {"Quennet Environment:"};
  for (const char* name : kEnvironment)
    AddVariable(lines, name);
  AddVariable(lines, WeightVariable(appName).name);
  lines.emplace_back("Quennet Configuration File:");
  for (const char* name : kConfiguration)
    AddVariable(lines, name);
  return lines;
}

HeaderLines IniValueLines(const TraceSettings& settings) {
  return {
      "Debug values from ini file :",
      "DynamicUpdate              : " + Text(settings.iniDynamicUpdate),
      "DebugLevel                 : " + Text(settings.fileDebugLevel),
      "RingBufferSizeFactor       : " + Text(settings.iniRingBufferSizeFactor),
      "RingBufferSizeWeight       : " + Text(settings.iniRingBufferSizeWeight),
      "RingBufferDirectory        : " + std::string(settings.iniDirectory),
      "No Header to LogFile       : " + Text(settings.iniNoHeader),
  };
}

HeaderLines StateLines(const TraceState& state) {
  return {
      "Internal Debug values      :",
      "Process PID                : " + Text(state.pid),
      "Trace Target               : " + Text(state.target),
      "Trace Level                : " + Text(state.level),
      "Trace Level Saved          : " + Text(state.levelSaved),
      "Application Init Done      : " + Text(state.isApplInitDone),
      "LogFile Path               : " + std::string(state.logFile.Path()),
      "LogFile Max Size           : " + Text(state.logFile.MaxSize()),
      "Ring Buffer FD             : " + Text(state.ringBuffer.Descriptor()),
      "Ring Buffer Factor         : " + Text(state.ringBuffer.Factor()),
      "Ring Buffer Weight         : " + Text(state.ringBuffer.Weight()),
      "Ring Buffer Size           : " + Text(state.ringBuffer.Size()),
      "Ring Buffer Directory      : " + std::string(state.settings.directory),
      "Ring Buffer Path           : " + std::string(state.ringBuffer.Path(RingBuffer::Phase::kRunTime)),
      "No Header to LogFile       : " + Text(state.settings.noHeader),
  };
}
