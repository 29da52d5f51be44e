// Does not include trace/debug.h: it defines an object with the same table and the same first members itself.

#include "template/trace_stand_in.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace {

std::mutex mutex;
std::vector<std::string> messages;  // guarded by mutex

void Keep(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));
void Keep(const char* format, va_list arguments) {
  char text[1025];
  std::vsnprintf(text, sizeof text, format, arguments);
  const std::string message = text;
  const size_t start = message.find_first_not_of('\n');
  const std::lock_guard<std::mutex> lock(mutex);
  messages.push_back(start == std::string::npos ? "" : message.substr(start));
}

}  // namespace

// The operations in the order of CDebug's table.
struct TraceStandIn {
  virtual ~TraceStandIn() = default;
  virtual bool IsMaster() const { return true; }
  virtual bool Init(const char*) { return true; }
  virtual void Print(unsigned int level, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    va_list arguments;
    va_start(arguments, format);
    if (level <= traceLevel) Keep(format, arguments);
    va_end(arguments);
  }
  virtual void PrintAlways(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    Keep(format, arguments);
    va_end(arguments);
  }
  virtual void PrintAlways(unsigned int, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    va_list arguments;
    va_start(arguments, format);
    Keep(format, arguments);
    va_end(arguments);
  }
  virtual void PrintAlwaysV(const char* format, va_list arguments, const char*) __attribute__((format(printf, 2, 0))) {
    Keep(format, arguments);
  }
  virtual void ClientPrintV(const char* format, va_list arguments, const char*) __attribute__((format(printf, 2, 0))) {
    Keep(format, arguments);
  }

  std::atomic<uint32_t> traceLevel = 0;
  uint32_t traceLevelSaved = 0;
  uint32_t fileDebugLevel = 0;
  uint32_t traceFlags = 0;
  std::atomic<bool> traceActive = false;
};

extern __attribute__((visibility("default"))) TraceStandIn Debug;
TraceStandIn Debug;

void SetTraceLevel(uint32_t level) {
  Debug.traceLevel = level;
  Debug.traceActive = level != 0;
}

std::vector<std::string> TakeTrace() {
  const std::lock_guard<std::mutex> lock(mutex);
  return std::exchange(messages, {});
}
