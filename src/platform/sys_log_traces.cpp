#include "platform/sys_log_traces.h"

#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>

#include "platform/owned_text.h"

namespace {

std::mutex g_ConnectionMutex;
std::unique_ptr<SysLogTraces> g_ConnectionOwner;  // guarded by the mutex
std::atomic<SysLogTraces*> g_Connection;          // what the owner owns, readable without the mutex

}  // namespace

SysLogTraces& SysLogTraces::getConnection() {
  SysLogTraces* connection = g_Connection.load(std::memory_order_acquire);
  if (connection == nullptr) {
    const std::lock_guard lock(g_ConnectionMutex);
    if (g_ConnectionOwner == nullptr) g_ConnectionOwner.reset(new SysLogTraces);
    connection = g_ConnectionOwner.get();
    g_Connection.store(connection, std::memory_order_release);
  }
  return *connection;
}

SysLogTraces::SysLogTraces() {
  ::openlog(getProcName(), LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL1);
}

SysLogTraces::~SysLogTraces() {
  ::closelog();
}

void SysLogTraces::logMessage(const char* message, SysLogLevel level) {
  if (message != nullptr) ::syslog(level, "%s", message);
}

void SysLogTraces::logMessageVaList(const char* format, va_list arguments) {
  if (format == nullptr) return;
  char text[1024];
  const int length = std::vsnprintf(text, sizeof text, SkipLeadingNewlines(format), arguments);
  logMessage(length < 0 ? "ERROR: cann't format message" : text, LOG_INFO);
}

const char* SysLogTraces::getProcName() const {
  return program_invocation_short_name;
}
