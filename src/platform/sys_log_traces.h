#pragma once

#include <cstdarg>

// A priority of the system log (LOG_ERR, LOG_INFO, ...), passed through as it is.
using SysLogLevel = int;

// The process's writer to the system log: facility local1, the program's short name as identity, the process identifier
// in every line.
//
// There is one instance, made by the first call of getConnection and destroyed with the process's static objects, which
// must not log through it any more. Any thread may call everything; nothing here fails visibly.
class SysLogTraces {
 public:
  // The system log belongs to the whole process: from the first call on what others log with no facility of their own,
  // the daemon's lines included, goes to local1 as well, with the short name and the process identifier.
  static SysLogTraces& getConnection();
  // Closes the log.
  ~SysLogTraces();
  SysLogTraces(const SysLogTraces&) = delete;
  SysLogTraces& operator=(const SysLogTraces&) = delete;

  // The text is no format: "%s" is logged as "%s". Null logs nothing.
  void logMessage(const char* message, SysLogLevel level);
  // Formats, without the newlines that the format begins with (one of nothing but newlines stays), cuts at 1023
  // characters and logs at LOG_INFO. A null format logs nothing.
  void logMessageVaList(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
  // The name under which the program was started, without its directory.
  const char* getProcName() const;

 private:
  SysLogTraces();
};
