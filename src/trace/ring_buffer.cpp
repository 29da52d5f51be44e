// The memory-mapped ring buffer of the trace object: creation, entries, wrap and the switch to the run-time file.

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "platform/cancellation.h"
#include "platform/descriptor_io.h"
#include "platform/mapped_copy.h"
#include "platform/regular_file.h"
#include "trace/debug.h"

namespace {

constexpr uint32_t kMaxFactor = 2;
constexpr int64_t kSizeUnit = 256;       // pages per factor and weight
constexpr int64_t kStartUpMultiple = 4;  // the start-up buffer against the run-time buffer
constexpr size_t kFillerLine = 1024;     // bytes
constexpr int64_t kBoundary = 1024;      // where the entries behind the header block begin
constexpr size_t kLargestPart = 10;      // a text above a tenth of the buffer is cut
constexpr size_t kFillerBlock = 64 * kFillerLine;
constexpr size_t kRoomBesideText = 145;  // header, end of line and terminator of a long entry
constexpr const char* kNoMemory = "\n## ERROR: No memory: Output Truncated!\n";
constexpr const char* kTooBig = "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n";

}  // namespace

int64_t CDebug::ComputeRingBufferSize() {
  m_RingBufferFactor = std::min(m_RingBufferFactor, kMaxFactor);
  const long page = ::sysconf(_SC_PAGESIZE);
  return int64_t{page < 1 ? 4096 : page} * int64_t{m_RingBufferFactor * m_RingBufferWeight} * kSizeUnit;
}

bool CDebug::InitStartUpRingBuffer() {
  char name[kPathSize];
  std::snprintf(name, sizeof name, "%s", m_AppName != nullptr ? m_AppName : "");
  StringToLower(name);
  std::snprintf(m_RunTimePath, sizeof m_RunTimePath, "%s/log.%s_a", m_Directory, name);
  const int length = std::snprintf(m_StartUpPath, sizeof m_StartUpPath, "%s/log.%s_i", m_Directory, name);
  m_RingBufferSize *= kStartUpMultiple;
  // A path that was cut would be that of another file, of the log file even.
  if (static_cast<size_t>(length) >= sizeof m_StartUpPath) return ReportOpenFailure(m_StartUpPath, ENAMETOOLONG);
  return InitRingBuffer(m_StartUpPath, m_RingBufferSize);
}

bool CDebug::ReportOpenFailure(const char* path, int error) {
  PrintToLogFile("\n### InitRingBuffer(): open of %s failed (errno=%d; %s) ###", path, error, std::strerror(error));
  return false;
}

bool CDebug::InitRingBuffer(const char* path, int64_t length) {
  m_RingBufferFd = OpenRegularFile(path, O_RDWR | O_CREAT | O_TRUNC, 0700).Release();
  if (m_RingBufferFd < 0) {
    return ReportOpenFailure(path, errno);
  }
  if (!FillRingBuffer(length)) {
    // What was written so far may be what filled the disk.
    if (::ftruncate(m_RingBufferFd, 0) != 0) PrintToLogFile("\n### %s could not be emptied ###", path);
    CloseRingBuffer();
    PrintToLogFile("\n### InitRingBuffer(): (2) write m_InternalDebugBuffer to %s failed ###", path);
    return false;
  }
  void* mapping = ::mmap(nullptr, static_cast<size_t>(length), PROT_READ | PROT_WRITE, MAP_SHARED, m_RingBufferFd, 0);
  if (mapping == MAP_FAILED) {
    const int error = errno;
    CloseRingBuffer();
    PrintToLogFile("\n### InitRingBuffer(): mmap of %s failed (errno=%d; %s) ###", path, error, std::strerror(error));
    return false;
  }

  mapped_copy::CatchLostPages();
  m_Mapping = static_cast<char*>(mapping);
  m_TraceTarget = kTargetRingBuffer;
  m_WriteOffset = 0;
  m_WrapOffset = 0;
  m_HeaderEnd = length / 2;
  WriteLogHeader(kTargetRingBuffer);
  m_WriteOffset = (m_WriteOffset + 2 * kBoundary) & ~(kBoundary - 1);
  m_HeaderEnd = m_WriteOffset;
  PrintIt(kTargetRingBuffer, "\n### Begin of RingBuffer. ###");
  m_WrapOffset = m_WriteOffset;
  PrintIt(kTargetRingBuffer, "\n### Start of initialization. ###");
  return m_Mapping != nullptr;
}

// Every 1 KiB of a new buffer is a line of its own: an entry header and underscores.
bool CDebug::FillRingBuffer(int64_t length) {
  char* line = m_InternalDebugBuffer;
  const size_t header = SetEntryHeader(line, kMaxHeader, nullptr);
  std::memset(line + header, '_', kFillerLine - 1 - header);
  line[kFillerLine - 1] = '\n';

  const std::unique_ptr<char[]> block(new (std::nothrow) char[kFillerBlock]);
  if (block == nullptr) return false;
  for (size_t at = 0; at < kFillerBlock; at += kFillerLine)
    std::memcpy(block.get() + at, line, kFillerLine);
  constexpr auto kBlock = static_cast<int64_t>(kFillerBlock);
  constexpr auto kLine = static_cast<int64_t>(kFillerLine);
  const int64_t whole = (length + kLine - 1) / kLine * kLine;
  for (int64_t at = 0; at < whole; at += kBlock) {
    const auto part = static_cast<size_t>(std::min(whole - at, kBlock));
    if (!WriteAllAt(m_RingBufferFd, {block.get(), part}, at)) return false;
  }
  return true;
}

void CDebug::CloseRingBuffer() {
  if (m_Mapping != nullptr) ::munmap(m_Mapping, static_cast<size_t>(m_RingBufferSize));
  if (m_RingBufferFd >= 0) ::close(m_RingBufferFd);
  m_Mapping = nullptr;
  m_RingBufferFd = -1;
  m_WriteOffset = 0;
}

void CDebug::TraceToRingBuffer(const char* fmt, va_list args, const char* tag) {
  if (fmt == nullptr || m_Mapping == nullptr) return;
  char* entry = m_InternalDebugBuffer;
  const size_t header = SetEntryHeader(entry, kMaxHeader, tag);
  mapped_copy::UnblockBusErrors(m_KeptSecond);  // that of the header
  fmt = SkipLeadingNewlines(fmt);
  va_list again;
  va_copy(again, args);
  const int result = std::vsnprintf(entry + header, kMaxText + 1, fmt, args);
  size_t text = result > 0 ? static_cast<size_t>(result) : 0;

  std::unique_ptr<char[]> copy;
  if (text > kMaxText) {
    const char* warning = kTooBig;
    if (text <= static_cast<size_t>(m_RingBufferSize) / kLargestPart) {
      copy.reset(new (std::nothrow) char[text + kRoomBesideText]);
      warning = copy != nullptr ? nullptr : kNoMemory;
    }
    if (warning == nullptr) {
      std::memcpy(copy.get(), entry, header);
      const int whole = std::vsnprintf(copy.get() + header, text + 1, fmt, again);
      text = std::min(text, whole > 0 ? static_cast<size_t>(whole) : 0);  // an argument may have changed meanwhile
      entry = copy.get();
    } else {
      text = kMaxText + std::strlen(warning);
      std::memcpy(entry + header + kMaxText, warning, std::strlen(warning));
    }
  }
  va_end(again);

  size_t length = header + text;
  if (text == 0 || entry[length - 1] != '\n') entry[length++] = '\n';
  AppendToRingBuffer(entry, length);
}

void CDebug::AppendToRingBuffer(const char* entry, size_t length) {
  // The header block of a wrap ends where the "Begin" entry stands; what would run into that is left out.
  const int64_t end = m_WritingHeader ? m_HeaderEnd : m_RingBufferSize;
  if (m_WriteOffset + static_cast<int64_t>(length) + m_EndMarkerLength <= end) {
    CopyToRingBuffer(entry, length);
  } else if (!m_WritingHeader) {
    WrapRingBuffer(entry, length);
  }
}

void CDebug::CopyToRingBuffer(const char* entry, size_t length) {
  if (m_Mapping == nullptr) return;
  const std::string_view marker(m_EndMarker, static_cast<size_t>(m_EndMarkerLength));
  if (!mapped_copy::Put(m_Mapping + m_WriteOffset, {entry, length}, marker)) return LoseRingBuffer();
  m_WriteOffset += static_cast<int64_t>(length);
}

void CDebug::WrapRingBuffer(const char* entry, size_t length) {
  const CancellationBlock block;  // a thread that ended half way would leave the next one in the header block
  const auto left = static_cast<size_t>(m_RingBufferSize - m_WriteOffset);
  if (!mapped_copy::Fill(m_Mapping + m_WriteOffset, '.', left)) return LoseRingBuffer();
  // The header is written through the line buffer that the entry may stand in.
  char aside[sizeof m_InternalDebugBuffer];
  if (entry == m_InternalDebugBuffer) {
    std::memcpy(aside, entry, length);
    entry = aside;
  }
  m_WriteOffset = 0;
  WriteLogHeader(kTargetRingBuffer);
  m_WriteOffset = m_WrapOffset;
  CopyToRingBuffer(entry, length);
}

// The file behind the mapping was cut short: there is nothing left to write to.
void CDebug::LoseRingBuffer() {
  SwitchTracingOff();
  CloseRingBuffer();
  syslog(LOG_ERR, "ERROR: %s was cut short --> tracing is switched off\n",
         m_ApplInitDone ? m_RunTimePath : m_StartUpPath);
}

void CDebug::SwitchToRunTimeRingBuffer() {
  if (m_ApplInitDone) return;
  PrintIt(kTargetRingBuffer, "\n### End of initialization. ###");
  m_ApplInitDone = true;
  if (m_Mapping == nullptr) return;  // lost with that entry
  m_TraceActive = false;
  CloseRingBuffer();

  char command[kPathSize];
  const int length = std::snprintf(command, sizeof command, "gzip -f %s 2>/dev/null", m_StartUpPath);
  // A command that was cut would name another file.
  FILE* gzip = static_cast<size_t>(length) < sizeof command ? ::popen(command, "re") : nullptr;
  if (gzip == nullptr) {
    PrintToLogFile("\n### gziping of startup log file failed -> it doesn't matter ###");
  } else {
    ::pclose(gzip);
  }

  m_RingBufferSize /= kStartUpMultiple;
  if (InitRingBuffer(m_RunTimePath, m_RingBufferSize)) {
    m_TraceActive = true;
  } else {
    SwitchTracingOff();
  }
}
