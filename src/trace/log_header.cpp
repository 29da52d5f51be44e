// The header block at the start of a ring buffer and, where it is wanted, of the log file: command line, environment,
// configuration and internal state.

#include <cstdlib>

#include "trace/debug.h"

namespace {

// One name of the header block with its value as Init found it in the environment, null when unset. Both lists end
// with a null name; a reader of trace files knows the names in this order.
struct HeaderVariable {
  const char* name;
  const char* value;
};

constinit HeaderVariable environmentList[] = {
    {"LD_LIBRARY_PATH", nullptr},
    {"QN_SYSTEM", nullptr},
    {"QN_OS", nullptr},
    {"QN_OS_MAJOR", nullptr},
    {"QN_OS_MINOR", nullptr},
    {"QN_VVOS", nullptr},
    {"QN_RELEASE", nullptr},
    {"QN_VENDOR", nullptr},
    {"QN_HOSTNAME", nullptr},
    {"QN_HOSTOSREVMAJOR", nullptr},
    {"QN_HOSTOSREVMINOR", nullptr},
    {"QN_SYSNAME", nullptr},
    {"QN_VERSION", nullptr},
    {"QN_NICKNAME", nullptr},
    {"QN_HWPLATFORM", nullptr},
    {"QN_RUNNINGONVM", nullptr},
    {"QN_RUNNINGONPAN", nullptr},
    {"QN_VMREL", nullptr},
    {"QN_ARCH", nullptr},
    {"QN_REPO", nullptr},
    {"QN_RAID_EXISTS", nullptr},
    {"QN_RAID_READY", nullptr},
    {"QN_RAID_VERSION", nullptr},
    {"QN_INSTALL_DATE", nullptr},
    {"QN_USE_SG_IO_HDR_T", nullptr},
    {"QN_AGENT_X_SOCKET", nullptr},
    {"QN_RAVD_REPLY_TIME", nullptr},
    {"QN_DAEMON_COREFILE_LIMIT", nullptr},
    {"QN_VME_WAIT_TIME_FOR_VMSERVER", nullptr},
    {"QN_KPL_PROVIDER_TRACE", nullptr},
    {"QN_KPL_NOSIGNAL", nullptr},
    {"QN_LOG_DYNAMIC_UPDATE", nullptr},
    {"QN_KPL_DEBUG_LEVEL", nullptr},
    {"QN_LOG_FILE_DIR", nullptr},
    {"QN_LOG_FILE_MAX_SIZE", nullptr},
    {"QN_LOG_RINGBUF_DIR", nullptr},
    {"QN_LOG_DEBUG_LEVEL", nullptr},
    {"QN_LOG_RINGBUF_WEIGHT", nullptr},
    {"QN_LOG_NOHDR_TOSDTERR", nullptr},
    {"OLB_QN_HOME", nullptr},
    {"OLB_SYSLOG_FIFO", nullptr},
    {nullptr, nullptr},
};

constinit HeaderVariable configurationList[] = {
    {"AgentPermission", nullptr},
    {"AgentShut", nullptr},
    {"ShutdownDelay", nullptr},
    {"UserGroup", nullptr},
    {"ScanTapeDevices", nullptr},
    {"TraceFileLimit", nullptr},
    {"NoAccountCheck", nullptr},
    {"InventoryRescan", nullptr},
    {"CDPollInterval", nullptr},
    {"AgentsToBeStarted", nullptr},
    {"WaitForRavdSockets", nullptr},
    {"WaitForRavdTerm", nullptr},
    {"InvAgtPollNetUtilization", nullptr},
    {nullptr, nullptr},
};

void Capture(HeaderVariable* list) {
  for (; list->name != nullptr; ++list)
    list->value = std::getenv(list->name);
}

const char* ValueOrNotSet(const char* value) {
  return value != nullptr ? value : "NotSet";
}

}  // namespace

void CDebug::CaptureHeaderVariables() {
  Capture(environmentList);
  Capture(configurationList);
}

void CDebug::WriteLogHeader(unsigned int target) {
  m_WritingHeader = target == kTargetRingBuffer;
  WriteCommandLine(target);
  WriteVariables(target);
  WriteIniValues(target);
  WriteInternalValues(target);
  PrintIt(target, "\n# End of header.");
  m_WritingHeader = false;
}

void CDebug::WriteCommandLine(unsigned int target) {
  if (m_Argc <= 0) return;
  PrintIt(target, "\n%s Command Line Options:", m_AppName != nullptr ? m_AppName : "");
  for (int index = 0; index < m_Argc; ++index)
    PrintIt(target, "\nargv[%d] = \"%s\"", index, m_Argv[index]);
}

void CDebug::WriteVariables(unsigned int target) {
  PrintIt(target, "\nQuennet Environment:");
  for (const HeaderVariable* variable = environmentList; variable->name != nullptr; ++variable) {
    PrintIt(target, "\n%s=%s", variable->name, ValueOrNotSet(variable->value));
  }
  char weight[48] = "QN_LOG_RINGBUF_WEIGHT";
  BuildAppVarName(weight, sizeof weight, m_AppName);
  PrintIt(target, "\n%s=%s", weight, ValueOrNotSet(std::getenv(weight)));
  PrintIt(target, "\nQuennet Configuration File:");
  for (const HeaderVariable* variable = configurationList; variable->name != nullptr; ++variable) {
    PrintIt(target, "\n%s=%s", variable->name, ValueOrNotSet(variable->value));
  }
}

void CDebug::WriteIniValues(unsigned int target) {
  const auto number = [](uint32_t value) { return static_cast<int>(value); };
  PrintIt(target, "\nDebug values from ini file :");
  PrintIt(target, "\nDynamicUpdate              : %d", number(m_IniDynamicUpdate));
  PrintIt(target, "\nDebugLevel                 : %d", number(m_FileDebugLevel));
  PrintIt(target, "\nRingBufferSizeFactor       : %d", number(m_IniRingBufferSizeFactor));
  PrintIt(target, "\nRingBufferSizeWeight       : %d", number(m_IniRingBufferSizeWeight));
  PrintIt(target, "\nRingBufferDirectory        : %s", m_IniDirectory);
  PrintIt(target, "\nNo Header to LogFile       : %d", number(m_IniNoHeader));
}

void CDebug::WriteInternalValues(unsigned int target) {
  const auto number = [](auto value) { return static_cast<int>(value); };
  PrintIt(target, "\nInternal Debug values      :");
  PrintIt(target, "\nProcess PID                : %d", number(m_Pid));
  PrintIt(target, "\nTrace Target               : %d", number(m_TraceTarget.load()));
  PrintIt(target, "\nTrace Level                : %d", number(m_TraceLevel.load()));
  PrintIt(target, "\nTrace Level Saved          : %d", number(m_TraceLevelSaved));
  PrintIt(target, "\nApplication Init Done      : %d", number(m_ApplInitDone));
  PrintIt(target, "\nLogFile Path               : %s", m_LogFilePath);
  PrintIt(target, "\nLogFile Max Size           : %d", number(m_MaxLogFileSize));
  PrintIt(target, "\nRing Buffer FD             : %d", m_RingBufferFd);
  PrintIt(target, "\nRing Buffer Factor         : %d", number(m_RingBufferFactor));
  PrintIt(target, "\nRing Buffer Weight         : %d", number(m_RingBufferWeight));
  PrintIt(target, "\nRing Buffer Size           : %d", number(m_RingBufferSize));
  PrintIt(target, "\nRing Buffer Directory      : %s", m_Directory);
  PrintIt(target, "\nRing Buffer Path           : %s", m_RunTimePath);
  PrintIt(target, "\nNo Header to LogFile       : %d", number(m_NoHeader));
}
