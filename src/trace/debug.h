#pragma once

#include <sys/types.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "platform/critical_section.h"
#include "platform/export.h"
#include "trace/debug_trace_config.h"
#include "trace/entry_formatter.h"
#include "trace/header_lines.h"
#include "trace/log_file.h"
#include "trace/ring_buffer.h"
#include "trace/trace_settings.h"

// The trace facility of the daemon and of every module that it hosts.
//
// Exactly one instance is used: the global `Debug`, which the executable exports, so that everybody writes into the
// same files with the same level under the same lock. An entry goes to one of two targets: the memory-mapped ring
// buffer (log.<app>_i while the application starts, log.<app>_a afterwards) or the size-limited log file log.<app>;
// PrintAlways reaches both. docs/trace-files.md describes the files, docs/configuration.md where the settings come
// from.
//
// A facade: it decides what is written where, under its lock, and hands it to EntryFormatter, which puts an entry
// together in the one line buffer, and to RingBuffer or LogFile, which alone know their file. TraceSettings is what the
// configuration says.
//
// Threads: every operation takes the object's own recursive lock except SetTarget and the tests of m_TraceActive and
// m_TraceLevel; a stale read of those costs one entry at most.
// Failures: a writer never lets one reach its caller. An entry that cannot be formatted or copied is dropped. Only the
// forced unwinding of a cancelled thread passes through, with the lock given back. A ring buffer file that somebody
// cuts short switches tracing off with one line in syslog; for that a thread that writes to it gets SIGBUS unblocked,
// at its first entry and once in every further second.
// Lifetime: `Debug` is constant-initialised and its storage is never torn down, so static objects of any binary may
// trace at any time: before Init and after the end of main nothing is written.
// Forks: in a child `Debug` is off and has no files, whatever the parent's threads were doing; nothing that the child
// does reaches the files of the parent, unless it calls Init itself. That holds for `Debug` alone.
//
// Modules call through the table of virtual operations. Their order and the layout of the public data members are a
// binary interface: append, never reorder.
class CDebug : public CDebugTraceConfig {
 public:
  // Tracing is off until Init.
  constexpr CDebug() = default;
  // As Init when the name is non-empty; a failed one is reported to syslog.
  explicit CDebug(const char* appName);
  // Closes the files. `Debug` itself is never destroyed.
  virtual ~CDebug();
  CDebug(const CDebug&) = delete;
  CDebug& operator=(const CDebug&) = delete;

  // This object is the master instance: always true.
  virtual bool IsMaster() const;

  // Reads the configuration, opens the log file and creates the start-up ring buffer. False when tracing is configured
  // but the ring buffer could not be created (tracing is then off), and for a null name, which changes nothing.
  // A second call starts anew: what was open is closed first.
  virtual bool Init(const char* appName);

  // Writes the message when its level is not above the current one. Levels: 1 errors and warnings, 2 main steps, 3
  // details, 4 library routines, 5 fine internals, 6 raw data. The format is that of printf; leading newlines are
  // dropped and one is put at the end. A null format writes nothing.
  virtual void Print(unsigned int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  // Written whatever the level: to the ring buffer when that is the target, and always to the log file:
  virtual void PrintAlways(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  virtual void PrintAlways(unsigned int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  // As PrintAlways with the caller's own tag in place of the application name.
  virtual void PrintAlwaysV(const char* fmt, va_list args, const char* tag) __attribute__((format(printf, 2, 0)));

  // No level test; to the current target alone, with the caller's own tag.
  virtual void ClientPrintV(const char* fmt, va_list args, const char* tag) __attribute__((format(printf, 2, 0)));

  // For the binary that brings the object alone: these are not in the table, so others have nothing to link them with.

  // As Print.
  void PrintV(unsigned int level, const char* fmt, va_list args) __attribute__((format(printf, 3, 0)));

  // Keeps the command line (borrowed, it must outlive the object) and writes it to both targets when argc > 0.
  void SetMainParams(int argc, char** argv);

  // Ends the start-up phase: the log file's start-up part is fixed, the start-up ring buffer is replaced by the
  // run-time ring buffer and then compressed with gzip. Others may trace while gzip runs; for that time both files need
  // room.
  void SetApplInitDone();

  // true: back to the configured level and active; false: level 0 and inactive. The target stays. Always true.
  bool ForceMaxDebug(bool on);

  // Where entries go from now on, one of the targets below. Takes no lock.
  void SetTarget(unsigned int target) { m_TraceTarget.store(target, std::memory_order_relaxed); }

  // Appends "_" and the upper-cased name to the text in buf, at most size - 1 characters in all, always terminated.
  // Nothing is appended for a null or empty name. "QN_X" and "ravd" => "QN_X_RAVD".
  static void BuildAppVarName(char* buf, size_t size, const char* appName);

  // Lower-cases in place and returns its argument; null stays null.
  static char* StringToLower(char* text);

  // Where the trace files are; set by Init, "" before. Valid until the next Init.
  const char* Directory() const { return m_Settings.directory; }

  // The targets.

  static constexpr unsigned int kTargetNone = 0;        // nothing is written
  static constexpr unsigned int kTargetLogFile = 1;     // log.<app>
  static constexpr unsigned int kTargetRingBuffer = 2;  // log.<app>_i, then log.<app>_a

 protected:
  friend struct CDebugLifetime;

  // The steps of Init and of the destructor; the lock is held but in Close, which takes it.
  void Close();
  void ForgetInChild();
  const char* AppName() const { return m_AppName != nullptr ? m_AppName : ""; }
  EntryOrigin Origin(const char* tag) const;
  void SetApplicationName(const char* appName);
  void StoreStartTime();
  void SwitchTracingOff();

  // The settings
  bool ReadDebugConfig(const char* appName);
  void UpdateConfiguration();  // looks at the followed files again when their time has come

  // The writers; target 0 of PrintIt means the current one.
  void PrintIt(unsigned int target, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
  void PrintToLogFile(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void PrintToHeader(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void TraceToTarget(unsigned int target, const char* fmt, va_list args, const char* tag)
      __attribute__((format(printf, 3, 0)));
  void TraceToRingBuffer(const char* fmt, va_list args, const char* tag) __attribute__((format(printf, 2, 0)));
  void TraceToLogFile(const char* fmt, va_list args, const char* tag) __attribute__((format(printf, 2, 0)));
  void WriteLogHeader(unsigned int target);

  // The life of a ring buffer
  bool InitRingBuffer(RingBuffer::Phase phase);
  void ReportFailure(RingBuffer::Failure failure);
  void LoseRingBuffer();
  bool SwitchToRunTimeRingBuffer();

  CCriticalSection m_CritSec;
  uint32_t m_Pid = 0;
  int m_Argc = 0;
  char** m_Argv = nullptr;  // borrowed
  char m_StartTime[32] = {};
  std::atomic<uint32_t> m_TraceTarget = kTargetNone;
  bool m_ApplInitDone = false;
  RingBuffer m_RingBuffer;
  char m_InternalDebugBuffer[EntryFormatter::kBufferSize] = {};  // every entry is assembled here; only under the lock
  TraceSettings m_Settings;
  LogFile m_LogFile;
  EntryFormatter m_Formatter;
  HeaderLines m_VariableLines;  // of the header block, as Init found the environment
};

// The one instance. Exported under its plain name.
extern RAVD_EXPORT CDebug Debug;

// Writes a message when tracing is on and the level passes. While tracing is off this costs the test of a bool, and no
// argument is evaluated.
#define TRACE(level, ...)                                                                       \
  do {                                                                                          \
    if (Debug.m_TraceActive.load(std::memory_order_relaxed)) Debug.Print((level), __VA_ARGS__); \
  } while (false)

#ifndef RAVD_DEFINES_DEBUG
#include "trace/debug_module_calls.h"
#endif
