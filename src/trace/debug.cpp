#include "trace/debug.h"

#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "platform/cancellation.h"

// Storage that no static destructor tears down: whatever runs after the end of main finds a closed trace object
// instead of a destroyed one.
union CDebugStorage {
  constexpr CDebugStorage() : object() {}
  ~CDebugStorage() {}
  CDebug object;
};

// The definition of `Debug`, under its plain symbol name.
extern __attribute__((visibility("default"))) CDebugStorage DebugStorage __asm__("Debug");
constinit CDebugStorage DebugStorage;

// Closes the files of `Debug` at normal termination.
struct CDebugCloser {
  ~CDebugCloser() { DebugStorage.object.Close(); }
};

namespace {

const CDebugCloser closer;

constexpr const char* kWeightVariable = "QN_LOG_RINGBUF_WEIGHT";
constexpr size_t kWeightVariableSize = 48;

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
  CloseRingBuffer();
  CloseLogFile();
  m_ResidentMemory.Close();
}

bool CDebug::IsMaster() const {
  return true;
}

bool CDebug::Init(const char* appName) {
  if (appName == nullptr) return false;
  const CancellationBlock block;
  const CCriticalSectionLock lock(m_CritSec);
  CloseRingBuffer();
  CloseLogFile();
  m_ApplInitDone = false;
  SetApplicationName(appName);
  m_Pid = static_cast<uint32_t>(::getpid());
  StoreStartTime();
  CaptureHeaderVariables();
  ReadDebugConfig(m_AppName);
  m_TraceActive = m_TraceLevel != 0;
  OpenLogFile();

  if (m_TraceActive) {
    ReadWeightOfApplication();
    m_RingBufferSize = ComputeRingBufferSize();
  }
  if (!m_TraceActive || m_RingBufferSize == 0) {
    SwitchTracingOff();
    if (m_NoHeader == 0) WriteLogHeader(kTargetLogFile);
    return true;
  }

  const bool created = InitStartUpRingBuffer();
  if (m_NoHeader == 0) WriteLogHeader(kTargetLogFile);
  if (!created) {
    SwitchTracingOff();
    return false;
  }
  m_TraceActive = m_TraceLevel != 0;
  return true;
}

void CDebug::SetApplicationName(const char* appName) {
  if (*appName == '\0') return;
  const size_t size = std::strlen(appName) + 1;
  char* copy = new char[size];
  std::memcpy(copy, appName, size);
  delete[] m_AppName;
  m_AppName = copy;
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

void CDebug::ReadWeightOfApplication() {
  char variable[kWeightVariableSize];
  std::snprintf(variable, sizeof variable, "%s", kWeightVariable);
  BuildAppVarName(variable, sizeof variable, m_AppName);
  const char* value = std::getenv(variable);
  if (value != nullptr) m_RingBufferWeight = static_cast<uint32_t>(std::strtol(value, nullptr, 10));
}

void CDebug::SetMainParams(int argc, char** argv) {
  Guarded([&] {
    const CCriticalSectionLock lock(m_CritSec);
    m_Argc = argc;
    m_Argv = argv;
    WriteCommandLine(kTargetLogFile);
    if (m_TraceTarget == kTargetRingBuffer) WriteCommandLine(kTargetRingBuffer);
  });
}

void CDebug::SetApplInitDone() {
  Guarded([&] {
    const CancellationBlock block;
    const CCriticalSectionLock lock(m_CritSec);
    MarkEndOfStartUpPart();
    if (m_TraceTarget == kTargetRingBuffer) SwitchToRunTimeRingBuffer();
  });
}

bool CDebug::ForceMaxDebug(bool on) {
  const CCriticalSectionLock lock(m_CritSec);
  m_TraceLevel = on ? m_TraceLevelSaved : 0;
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

void CDebug::BuildAppVarName(char* buf, size_t size, const char* appName) {
  if (buf == nullptr || size == 0 || appName == nullptr || *appName == '\0') return;
  size_t length = strnlen(buf, size - 1);
  const auto append = [&](char character) {
    if (length + 1 < size) buf[length++] = character;
  };
  append('_');
  for (; *appName != '\0'; ++appName)
    append(static_cast<char>(std::toupper(static_cast<unsigned char>(*appName))));
  buf[length] = '\0';
}

char* CDebug::StringToLower(char* text) {
  for (char* at = text; at != nullptr && *at != '\0'; ++at) {
    *at = static_cast<char>(std::tolower(static_cast<unsigned char>(*at)));
  }
  return text;
}
