// The log file of the trace object: plain text, limited in size, wrapping to the end of its start-up part.

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

#include "platform/regular_file.h"
#include "trace/debug.h"

namespace {

constexpr mode_t kLogFileMode = 0640;  // before the umask, which is not the daemon's own yet

}  // namespace

void CDebug::OpenLogFile() {
  char name[kPathSize];
  std::snprintf(name, sizeof name, "%s", m_AppName != nullptr ? m_AppName : "");
  const int length = std::snprintf(m_LogFilePath, sizeof m_LogFilePath, "%s/log.%s", m_Directory, StringToLower(name));
  if (static_cast<size_t>(length) < sizeof m_LogFilePath) {
    m_LogFile = OpenRegularStream(m_LogFilePath, O_RDWR | O_CREAT | O_TRUNC, kLogFileMode, "w+");
  }
  if (m_LogFile == nullptr) syslog(LOG_ERR, "ERROR: Error during opening %s --> proceed without it\n", m_LogFilePath);
  m_WrapPosition = 0;
  m_ByteCountAtInitEnd = 0;
  m_ByteCount = 0;
  m_WrapCycle = 0;
}

void CDebug::CloseLogFile() {
  if (m_LogFile != nullptr) std::fclose(m_LogFile);
  m_LogFile = nullptr;
}

void CDebug::MarkEndOfStartUpPart() {
  if (m_LogFile == nullptr) return;
  m_WrapPosition = std::max(std::ftell(m_LogFile), 0L);
  m_ByteCountAtInitEnd = static_cast<uint32_t>(m_WrapPosition);
}

void CDebug::PrintToLogFile(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  TraceToLogFile(fmt, args, nullptr);
  va_end(args);
}

void CDebug::TraceToLogFile(const char* fmt, va_list args, const char* tag) {
  if (m_LogFile == nullptr || fmt == nullptr) return;
  char* entry = m_InternalDebugBuffer;
  const size_t header = SetEntryHeader(entry, kMaxHeader, tag);
  const int result = std::vsnprintf(entry + header, kMaxText + 1, SkipLeadingNewlines(fmt), args);
  const size_t text = result > 0 ? std::min(static_cast<size_t>(result), kMaxText) : 0;
  size_t length = header + text;
  if (text == 0 || entry[length - 1] != '\n') entry[length++] = '\n';
  WriteToLogFile(entry, length);
  if (m_ByteCount > m_MaxLogFileSize) WrapLogFile(header);
}

// The whole entry, a NUL in it included, so that its end of line is never lost.
void CDebug::WriteToLogFile(const char* entry, size_t length) {
  ReturnFromBehindEnd();
  m_ByteCount += static_cast<uint32_t>(std::fwrite(entry, 1, length, m_LogFile));
  std::fflush(m_LogFile);
}

// Going on at the old place of a file that somebody cut short would leave a hole of zero bytes.
void CDebug::ReturnFromBehindEnd() {
  struct stat info {};
  if (::fstat(::fileno(m_LogFile), &info) != 0 || std::ftell(m_LogFile) <= info.st_size) return;
  if (std::fseek(m_LogFile, 0, SEEK_END) == 0 && info.st_size > 0)
    std::fputc('\n', m_LogFile);  // the line that was cut
}

// The entry header of the entry that filled the file still stands in the line buffer.
void CDebug::WrapLogFile(size_t headerLength) {
  if (std::fseek(m_LogFile, m_WrapPosition, SEEK_SET) != 0) {
    syslog(LOG_ERR, "ERROR: fseek failed for %s (errno=%d) --> rewind it\n", m_LogFilePath, errno);
    std::rewind(m_LogFile);
  }
  m_ByteCount = m_ByteCountAtInitEnd;
  ++m_WrapCycle;
  const int text =
      std::snprintf(m_InternalDebugBuffer + headerLength, kMaxText,
                    "------ WRAP ----- Cycle=%d, CntInitEnd=%u, CurrentByteCnt=%u (MaxCnt=%u)\n",
                    static_cast<int>(m_WrapCycle), m_ByteCountAtInitEnd, m_ByteCountAtInitEnd, m_MaxLogFileSize);
  WriteToLogFile(m_InternalDebugBuffer, headerLength + static_cast<size_t>(text));
}
