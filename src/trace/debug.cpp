#define RAVD_DEFINES_DEBUG  // the operations stand here: no stubs for them
#include "trace/debug.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "platform/cancellation.h"
#include "platform/never_destroyed.h"
#include "trace/gzip.h"

// What runs after the end of main finds a closed trace object instead of a destroyed one.
extern NeverDestroyed<CDebug> DebugStorage __asm__("ravd_own_trace_object");
constinit NeverDestroyed<CDebug> DebugStorage;
// `Debug` is its second, exported name. Everybody's `Debug` is the executable's where that has one, so what follows
// keeps to the first: a library with an object of its own must not close the executable's.
extern RAVD_EXPORT NeverDestroyed<CDebug> DebugSymbol __asm__("Debug") __attribute__((alias("ravd_own_trace_object")));

// Closes the files of `Debug` at normal termination, and switches it off in every forked child. There is nothing to do
// before a fork: waiting for the lock there could wait for a thread that waits for another lock of the forking one.
struct CDebugLifetime {
  CDebugLifetime() {
    ::pthread_atfork(nullptr, nullptr, [] { DebugStorage.object.ForgetInChild(); });
  }
  ~CDebugLifetime() { DebugStorage.object.Close(); }
};

namespace {

const CDebugLifetime lifetime;

constexpr size_t kLargestPart = 10;  // a text above a tenth of the ring buffer is cut
constexpr size_t kNameSize = 256;

// Runs one writer: no failure reaches the caller but the forced unwinding of a cancelled thread, and errno stays what
// the caller is about to look at.
template <class Writer>
void Guarded(Writer writer) {
  const int savedErrno = errno;
  try {
    writer();
  } catch (...) {
    if (std::current_exception() == nullptr) throw;  // a forced unwinding is no exception of the language
  }
  errno = savedErrno;
}

}  // namespace

CDebug::CDebug(const char* appName) {
  if (appName == nullptr || *appName == '\0' || Init(appName)) return;
  syslog(LOG_ERR, "ERROR: Error during initialization of the CDebug instance.\n");
}

CDebug::~CDebug() {
  Close();
  delete[] m_AppName;
}

void CDebug::Close() {
  const CCriticalSectionLock lock(m_CritSec);
  m_Argc = 0;
  m_Argv = nullptr;
  SwitchTracingOff();
  m_RingBuffer.Close();
  m_LogFile.Close();
  m_Formatter.Close();
}

// The lock may be held by a thread that the child does not have, which has left the parts in the middle of a change:
// only what stands in one variable is touched, and no file.
void CDebug::ForgetInChild() {
  new (&m_CritSec) CCriticalSection;
  SwitchTracingOff();
  m_RingBuffer.ForgetInChild();
  m_LogFile.ForgetInChild();
  m_Formatter.ForgetInChild();
}

bool CDebug::IsMaster() const {
  return true;
}

bool CDebug::Init(const char* appName) {
  if (appName == nullptr) return false;
  const CancellationBlock block;
  const CCriticalSectionLock lock(m_CritSec);
  m_RingBuffer.Close();
  m_ApplInitDone = false;
  SetApplicationName(appName);
  m_Pid = static_cast<uint32_t>(::getpid());
  StoreStartTime();
  m_VariableLines = VariableLines(AppName());
  ReadDebugConfig(AppName());
  m_TraceActive = m_TraceLevel != 0;
  char name[kNameSize];
  std::snprintf(name, sizeof name, "%s", AppName());
  StringToLower(name);
  m_LogFile.Open(m_Settings.directory, name, m_Settings.maxLogFileSize);
  m_RingBuffer.Configure(m_Settings.ringBufferFactor, m_Settings.ringBufferWeight);

  const bool isWanted = m_TraceActive && m_RingBuffer.ComputeSize() != 0;
  if (isWanted) m_RingBuffer.SetPaths(m_Settings.directory, name);
  if (!isWanted) SwitchTracingOff();
  const bool isCreated = isWanted && InitRingBuffer(RingBuffer::Phase::kStartUp);
  if (m_Settings.noHeader == 0) WriteLogHeader(kTargetLogFile);
  if (isWanted && !isCreated) SwitchTracingOff();
  return isCreated || !isWanted;
}

bool CDebug::ReadDebugConfig(const char* appName) {
  m_Settings = ReadTraceSettings(appName, m_GlobalConfig, m_AppConfig);
  m_DynamicUpdate = m_Settings.dynamicUpdate;
  m_FileDebugLevel = m_Settings.fileDebugLevel;
  m_TraceFlags = m_Settings.traceFlags;
  m_TraceLevel = m_Settings.traceLevel;
  m_TraceLevelSaved = m_Settings.traceLevel;
  return true;
}

void CDebug::UpdateConfiguration() {
  const CancellationBlock block;  // a thread that ended half way would lose the change for good
  const time_t now = time(nullptr);
  if (m_LastConfigCheck <= now && now < m_LastConfigCheck + m_DynamicUpdate) return;
  m_LastConfigCheck = now;
  const bool isLevelGiven = UpdateTraceSettings(m_Settings, AppName(), m_GlobalConfig, m_AppConfig);
  m_DynamicUpdate = m_Settings.dynamicUpdate;
  m_FileDebugLevel = m_Settings.fileDebugLevel;
  m_TraceFlags = m_Settings.traceFlags;
  if (isLevelGiven) m_TraceLevel = m_TraceLevelSaved = m_Settings.fileDebugLevel;
}

void CDebug::SetApplicationName(const char* appName) {
  if (*appName == '\0') return;
  const size_t size = std::strlen(appName) + 1;
  char* copy = new char[size];
  std::memcpy(copy, appName, size);
  delete[] std::exchange(m_AppName, copy);
}

void CDebug::StoreStartTime() {
  const time_t now = time(nullptr);
  tm local{};
  char calendar[64];
  const bool converted = localtime_r(&now, &local) != nullptr && asctime_r(&local, calendar) != nullptr;
  std::snprintf(m_StartTime, sizeof m_StartTime, "%s", converted ? calendar : "\nwww mmm dd hh:mm:ss yyyy");
}

void CDebug::SwitchTracingOff() {
  m_TraceActive = false;
  m_TraceTarget = kTargetNone;
  m_TraceLevel = 0;
  m_TraceLevelSaved = 0;
}

void CDebug::SetMainParams(int argc, char** argv) {
  Guarded([&] {
    const CCriticalSectionLock lock(m_CritSec);
    m_Argc = argc;
    m_Argv = argv;
    const HeaderLines lines = CommandLineLines(AppName(), argc, argv);
    for (const std::string& line : lines)
      PrintIt(kTargetLogFile, "%s", line.c_str());
    if (m_TraceTarget != kTargetRingBuffer) return;
    for (const std::string& line : lines)
      PrintIt(kTargetRingBuffer, "%s", line.c_str());
  });
}

void CDebug::SetApplInitDone() {
  Guarded([&] {
    const CancellationBlock block;
    std::string startUpFile;
    {
      const CCriticalSectionLock lock(m_CritSec);
      m_LogFile.MarkEndOfStartUpPart();
      if (m_TraceTarget != kTargetRingBuffer || !SwitchToRunTimeRingBuffer()) return;
      startUpFile = m_RingBuffer.Path(RingBuffer::Phase::kStartUp);
    }
    if (CompressWithGzip(startUpFile.c_str())) return;
    const CCriticalSectionLock lock(m_CritSec);
    PrintToLogFile("\n### gziping of startup log file failed -> it doesn't matter ###");
  });
}

bool CDebug::ForceMaxDebug(bool on) {
  const CCriticalSectionLock lock(m_CritSec);
  m_TraceLevel = on ? m_TraceLevelSaved.load() : 0;
  m_TraceActive = on;
  return true;
}

void CDebug::Print(unsigned int level, const char* fmt, ...) {
  if (fmt == nullptr) return;
  va_list args;
  va_start(args, fmt);
  PrintV(level, fmt, args);
  va_end(args);
}

void CDebug::PrintV(unsigned int level, const char* fmt, va_list args) {
  const bool followsFiles = m_DynamicUpdate.load(std::memory_order_relaxed) != 0;
  if (!followsFiles && level > m_TraceLevel.load(std::memory_order_relaxed)) return;
  Guarded([&] {
    const CCriticalSectionLock lock(m_CritSec);
    if (followsFiles) {
      UpdateConfiguration();
      if (level > m_TraceLevel) return;
    }
    TraceToTarget(m_TraceTarget, fmt, args, nullptr);
  });
}

void CDebug::PrintAlways(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  PrintAlwaysV(fmt, args, nullptr);
  va_end(args);
}

void CDebug::PrintAlways(unsigned int, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  PrintAlwaysV(fmt, args, nullptr);
  va_end(args);
}

void CDebug::PrintAlwaysV(const char* fmt, va_list args, const char* tag) {
  Guarded([&] {
    const CCriticalSectionLock lock(m_CritSec);
    if (m_TraceTarget == kTargetRingBuffer) TraceToTarget(kTargetRingBuffer, fmt, args, tag);
    TraceToTarget(kTargetLogFile, fmt, args, tag);
  });
}

void CDebug::ClientPrintV(const char* fmt, va_list args, const char* tag) {
  Guarded([&] {
    const CCriticalSectionLock lock(m_CritSec);
    TraceToTarget(m_TraceTarget, fmt, args, tag);
  });
}

void CDebug::PrintIt(unsigned int target, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  TraceToTarget(target == kTargetNone ? m_TraceTarget.load() : target, fmt, args, nullptr);
  va_end(args);
}

void CDebug::TraceToTarget(unsigned int target, const char* fmt, va_list args, const char* tag) {
  if (target != kTargetRingBuffer && target != kTargetLogFile) return;
  va_list copy;
  va_copy(copy, args);
  if (target == kTargetRingBuffer) {
    TraceToRingBuffer(fmt, copy, tag);
  } else {
    TraceToLogFile(fmt, copy, tag);
  }
  va_end(copy);
}

EntryOrigin CDebug::Origin(const char* tag) const {
  return {tag != nullptr ? tag : AppName(), m_Settings.memoryTracesFlag != 0};
}

void CDebug::TraceToLogFile(const char* fmt, va_list args, const char* tag) {
  if (!m_LogFile.IsOpen() || fmt == nullptr) return;
  m_LogFile.Write(m_Formatter.FormatCut(m_InternalDebugBuffer, Origin(tag), fmt, args));
}

void CDebug::PrintToLogFile(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  TraceToLogFile(fmt, args, nullptr);
  va_end(args);
}

void CDebug::TraceToRingBuffer(const char* fmt, va_list args, const char* tag) {
  if (!m_RingBuffer.IsOpen() || fmt == nullptr) return;
  std::unique_ptr<char[]> longEntry;
  const size_t maxText = static_cast<size_t>(m_RingBuffer.Size()) / kLargestPart;
  const TraceEntry entry = m_Formatter.FormatWhole(m_InternalDebugBuffer, Origin(tag), fmt, args, maxText, longEntry);
  switch (m_RingBuffer.Append(entry.Text(), m_Formatter.Second())) {
    case RingBuffer::Result::kWritten:
      return;
    case RingBuffer::Result::kWrapped:
      return WriteLogHeader(kTargetRingBuffer);
    case RingBuffer::Result::kLost:
      return LoseRingBuffer();
  }
}

void CDebug::PrintToHeader(const char* fmt, ...) {
  if (!m_RingBuffer.IsOpen()) return;  // lost with a line before
  std::unique_ptr<char[]> longEntry;
  const size_t maxText = static_cast<size_t>(m_RingBuffer.Size()) / kLargestPart;
  va_list args;
  va_start(args, fmt);
  const TraceEntry entry =
      m_Formatter.FormatWhole(m_InternalDebugBuffer, Origin(nullptr), fmt, args, maxText, longEntry);
  va_end(args);
  if (!m_RingBuffer.AddToHeader(entry.Text(), m_Formatter.Second())) LoseRingBuffer();
}

// Without memory for its lines the block ends where they do.
void CDebug::WriteLogHeader(unsigned int target) try {
  const CancellationBlock block;  // a thread that ended half way would leave a part of the block
  const TraceState state = {m_Pid,          m_TraceTarget, m_TraceLevel, m_TraceLevelSaved,
                            m_ApplInitDone, m_Settings,    m_RingBuffer, m_LogFile};
  const HeaderLines groups[] = {CommandLineLines(AppName(), m_Argc, m_Argv),
                                m_VariableLines,
                                IniValueLines(m_Settings),
                                StateLines(state),
                                {kEndOfHeader}};
  m_RingBuffer.StartHeader();
  for (const HeaderLines& lines : groups) {
    for (const std::string& line : lines) {
      if (target == kTargetRingBuffer) {
        PrintToHeader("%s", line.c_str());
      } else {
        PrintToLogFile("%s", line.c_str());
      }
    }
  }
} catch (const std::bad_alloc&) {
}

bool CDebug::InitRingBuffer(RingBuffer::Phase phase) {
  const RingBuffer::Failure failure =
      m_RingBuffer.Create(phase, m_Formatter.FormatFiller(m_InternalDebugBuffer, Origin(nullptr)));
  if (failure.step != RingBuffer::Failure::Step::kNone) {
    ReportFailure(failure);
    return false;
  }
  m_TraceTarget = kTargetRingBuffer;
  WriteLogHeader(kTargetRingBuffer);
  m_RingBuffer.EndHeader();
  PrintIt(kTargetRingBuffer, "\n### Begin of RingBuffer. ###");
  m_RingBuffer.MarkBegin();
  PrintIt(kTargetRingBuffer, "\n### Start of initialization. ###");
  return m_RingBuffer.IsOpen();
}

void CDebug::ReportFailure(RingBuffer::Failure failure) {
  const char* path = m_RingBuffer.Path();
  const char* reason = std::strerror(failure.error);
  switch (failure.step) {
    case RingBuffer::Failure::Step::kNone:
      return;
    case RingBuffer::Failure::Step::kOpen:
      return PrintToLogFile("\n### InitRingBuffer(): open of %s failed (errno=%d; %s) ###", path, failure.error,
                            reason);
    case RingBuffer::Failure::Step::kFill:
      return PrintToLogFile("\n### InitRingBuffer(): (2) write m_InternalDebugBuffer to %s failed ###", path);
    case RingBuffer::Failure::Step::kMap:
      return PrintToLogFile("\n### InitRingBuffer(): mmap of %s failed (errno=%d; %s) ###", path, failure.error,
                            reason);
  }
}

// The file behind the mapping was cut short: there is nothing left to write to.
void CDebug::LoseRingBuffer() {
  SwitchTracingOff();
  m_RingBuffer.Close();
  syslog(LOG_ERR, "ERROR: %s was cut short --> tracing is switched off\n", m_RingBuffer.Path());
}

// True when the start-up file is complete and closed.
bool CDebug::SwitchToRunTimeRingBuffer() {
  if (m_ApplInitDone) return false;
  PrintIt(kTargetRingBuffer, "\n### End of initialization. ###");
  const bool isComplete = m_RingBuffer.IsOpen();  // or lost with that entry
  if (isComplete) {
    m_TraceActive = false;
    m_RingBuffer.Close();
    if (InitRingBuffer(RingBuffer::Phase::kRunTime)) {
      m_TraceActive = true;
    } else {
      SwitchTracingOff();
    }
  }
  m_ApplInitDone = true;
  return isComplete;
}

void CDebug::BuildAppVarName(char* buf, size_t size, const char* appName) {
  AppendAppName(buf, size, appName);
}

char* CDebug::StringToLower(char* text) {
  for (char* at = text; at != nullptr && *at != '\0'; ++at) {
    *at = static_cast<char>(std::tolower(static_cast<unsigned char>(*at)));
  }
  return text;
}
