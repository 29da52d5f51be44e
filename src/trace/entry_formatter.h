#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string_view>

#include "trace/resident_memory.h"

// One entry, put together in somebody's buffer: its header, its text and an end of line. Texts may hold a NUL.
struct TraceEntry {
  char* line;
  size_t headerLength;
  size_t length;

  std::string_view Text() const { return {line, length}; }
};

// What stands in the header of an entry besides time and thread.
struct EntryOrigin {
  const char* tag;        // who writes; not null
  bool hasMemory = true;  // the resident memory of the process, in kB
};

// Puts entries together: time, thread, memory and tag, and behind them the formatted text.
//
// Keeps what changes seldom between entries: the text of the second, of the thread and the resident memory, which is
// read anew once a millisecond has passed. Used under the lock of the trace object, in its line buffer of kBufferSize
// bytes.
class EntryFormatter {
 public:
  static constexpr size_t kMaxHeader = 128;
  static constexpr size_t kMaxText = 1024;     // characters that always fit
  static constexpr size_t kBufferSize = 1312;  // header, text, warning line, end of line
  static constexpr size_t kFillerLine = 1024;

  // Leading newlines of the format are skipped, unless it has nothing else; a newline is appended when the text does
  // not end in one. The text is cut at kMaxText characters.
  TraceEntry FormatCut(char* buffer, EntryOrigin origin, const char* fmt, va_list args)
      __attribute__((format(printf, 4, 0)));

  // The same, but a text of up to maxText characters is kept whole, in longEntry when it does not fit into the buffer.
  // What is longer, or finds no memory, is cut at kMaxText characters and followed by a line that says so.
  TraceEntry FormatWhole(char* buffer, EntryOrigin origin, const char* fmt, va_list args, size_t maxText,
                         std::unique_ptr<char[]>& longEntry) __attribute__((format(printf, 4, 0)));

  // A line of exactly kFillerLine bytes: a header and underscores.
  std::string_view FormatFiller(char* buffer, EntryOrigin origin);

  // The second in the header of the last entry.
  time_t Second() const { return m_Second; }

  // Gives up the descriptor that the resident memory is read from; the next entry opens it again.
  void Close() { m_ResidentMemory.Close(); }
  // The same in a forked child, where the descriptor is the parent's.
  void ForgetInChild() {
    m_IsKept = false;
    m_ResidentMemory.ForgetInChild();
  }

 private:
  static constexpr size_t kSecondSize = 22;
  static constexpr size_t kThreadLength = 12;  // " [1A2B3C40] "

  size_t SetEntryHeader(char* buffer, size_t size, EntryOrigin origin);
  void KeepSecond(time_t second);
  void KeepThread(uint32_t thread);

  bool m_IsKept = false;  // the second and the thread below are those of an entry
  time_t m_Second = 0;
  size_t m_SecondLength = 0;  // 0: the time cannot be told
  char m_SecondText[kSecondSize] = {};
  uint32_t m_Thread = 0;
  char m_ThreadText[kThreadLength] = {};
  ResidentMemory m_ResidentMemory;
};
