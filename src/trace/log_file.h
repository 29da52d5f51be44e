#pragma once

#include <cstdint>
#include <string_view>

#include "platform/unique_fd.h"
#include "trace/entry_formatter.h"

// The log file log.<app>: plain text, truncated when it is opened, limited in size. When it is full it goes on at the
// end of its start-up part; the file is not truncated then, older lines stay behind the newer ones.
//
// Every entry is one write, so that nothing of it is left in memory. A line that came short, because the disk is full
// or because somebody cut the file, is ended before the next entry. Failures lose the entry without a word, but for the
// two lines in syslog below. Used under the lock of the trace object.
class LogFile {
 public:
  static constexpr uint32_t kDefaultMaxSize = 51200;  // bytes

  // Makes the path from directory and name and empties what is there. A failure is one line in syslog; nothing is
  // written then.
  void Open(const char* directory, const char* name, uint32_t maxSize);
  void Close() { m_File.Reset(); }
  // In a forked child: the file is the parent's.
  void ForgetInChild() { m_File.Release(); }

  bool IsOpen() const { return static_cast<bool>(m_File); }
  const char* Path() const { return m_Path; }
  uint32_t MaxSize() const { return m_MaxSize; }

  // What was written so far is never overwritten from now on.
  void MarkEndOfStartUpPart();

  // Writes the entry. One that fills the file is followed by a wrap line with the same header, for which the text in
  // the entry's buffer is replaced.
  void Write(const TraceEntry& entry);

 private:
  void WriteLine(std::string_view line);
  void Append(std::string_view text);
  void ReturnFromBehindEnd();
  void Wrap(const TraceEntry& entry);

  char m_Path[256] = {};
  UniqueFd m_File;
  int64_t m_WrapPosition = 0;
  uint32_t m_MaxSize = kDefaultMaxSize;
  uint32_t m_ByteCountAtInitEnd = 0;
  uint32_t m_ByteCount = 0;
  uint32_t m_WrapCycle = 0;
  bool m_IsTorn = false;  // the last line in the file has no end
};
