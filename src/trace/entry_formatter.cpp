#include "trace/entry_formatter.h"

#include <pthread.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/owned_text.h"
#include "trace/plain_format.h"

namespace {

constexpr size_t kTagColumns = 13;
constexpr size_t kMemoryColumns = 8;
constexpr size_t kRoomBesideText = 145;  // header, end of line and terminator of a long entry
constexpr std::string_view kUntoldTime = "yyyy-mm-dd hh:mm:ss.mmm";
constexpr std::string_view kNoMemory = "\n## ERROR: No memory: Output Truncated!\n";
constexpr std::string_view kTooBig = "\n## WARNING: TRACE-SIZE TOO BIG: Output Truncated!\n";

char* AppendText(char* out, const char* text, size_t length) {
  std::memcpy(out, text, length);
  return out + length;
}

// Like "%8zu".
char* AppendDecimal(char* out, size_t value, size_t columns) {
  char digits[24];
  size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  for (; columns > count; --columns)
    *out++ = ' ';
  while (count > 0)
    *out++ = digits[--count];
  return out;
}

// Like ".%03d".
char* AppendMilliseconds(char* out, unsigned int milliseconds) {
  out[0] = '.';
  out[1] = static_cast<char>('0' + milliseconds / 100);
  out[2] = static_cast<char>('0' + milliseconds / 10 % 10);
  out[3] = static_cast<char>('0' + milliseconds % 10);
  return out + 4;
}

// Like "%-13s ".
char* AppendTag(char* out, const char* end, const char* tag) {
  const size_t length = std::min(std::strlen(tag), static_cast<size_t>(end - out));
  out = AppendText(out, tag, length);
  const size_t blanks = std::min(1 + (length < kTagColumns ? kTagColumns - length : 0), static_cast<size_t>(end - out));
  std::memset(out, ' ', blanks);
  return out + blanks;
}

// As vsnprintf, a failure being an empty text.
size_t FormatText(char* out, size_t size, const char* fmt, va_list args) __attribute__((format(printf, 3, 0)));
size_t FormatText(char* out, size_t size, const char* fmt, va_list args) {
  va_list plain;
  va_copy(plain, args);
  int length = FormatPlain(out, size, fmt, plain);
  va_end(plain);
  if (length < 0) length = std::vsnprintf(out, size, fmt, args);
  return length > 0 ? static_cast<size_t>(length) : 0;
}

TraceEntry EndLine(char* line, size_t header, size_t text) {
  size_t length = header + text;
  if (text == 0 || line[length - 1] != '\n') line[length++] = '\n';
  return {line, header, length};
}

}  // namespace

TraceEntry EntryFormatter::FormatCut(char* buffer, EntryOrigin origin, const char* fmt, va_list args) {
  const size_t header = SetEntryHeader(buffer, kMaxHeader, origin);
  const size_t text = FormatText(buffer + header, kMaxText + 1, SkipLeadingNewlines(fmt), args);
  return EndLine(buffer, header, std::min(text, kMaxText));
}

TraceEntry EntryFormatter::FormatWhole(char* buffer, EntryOrigin origin, const char* fmt, va_list args, size_t maxText,
                                       std::unique_ptr<char[]>& longEntry) {
  va_list again;
  va_copy(again, args);
  fmt = SkipLeadingNewlines(fmt);
  const size_t header = SetEntryHeader(buffer, kMaxHeader, origin);
  size_t text = FormatText(buffer + header, kMaxText + 1, fmt, args);
  char* line = buffer;
  if (text > kMaxText) {
    if (text <= maxText) longEntry.reset(new (std::nothrow) char[text + kRoomBesideText]);
    if (longEntry != nullptr) {
      line = longEntry.get();
      std::memcpy(line, buffer, header);
      // An argument may have changed meanwhile.
      text = std::min(text, FormatText(line + header, text + 1, fmt, again));
    } else {
      const std::string_view warning = text <= maxText ? kNoMemory : kTooBig;
      AppendText(line + header + kMaxText, warning.data(), warning.size());
      text = kMaxText + warning.size();
    }
  }
  va_end(again);
  return EndLine(line, header, text);
}

std::string_view EntryFormatter::FormatFiller(char* buffer, EntryOrigin origin) {
  const size_t header = SetEntryHeader(buffer, kMaxHeader, origin);
  std::memset(buffer + header, '_', kFillerLine - 1 - header);
  buffer[kFillerLine - 1] = '\n';
  return {buffer, kFillerLine};
}

// Without the memory column "%s [%08X] %-13s ", with it "%s [%08X] %8zu KB !%-13s ". All but the tag has a bounded
// length far below the header's, so the tag alone is cut. Returns the length; there is no terminator.
size_t EntryFormatter::SetEntryHeader(char* buffer, size_t size, EntryOrigin origin) {
  timeval now{};
  gettimeofday(&now, nullptr);
  const auto thread = static_cast<uint32_t>(pthread_self());
  if (!m_IsKept || now.tv_sec != m_Second) KeepSecond(now.tv_sec);
  if (!m_IsKept || thread != m_Thread) KeepThread(thread);
  m_IsKept = true;

  char* out = buffer;
  if (m_SecondLength != 0) {
    out = AppendText(out, m_SecondText, m_SecondLength);
    out = AppendMilliseconds(out, static_cast<unsigned int>(now.tv_usec) / 1000);
  } else {
    out = AppendText(out, kUntoldTime.data(), kUntoldTime.size());
  }
  out = AppendText(out, m_ThreadText, kThreadLength);
  if (origin.hasMemory) {
    out = AppendDecimal(out, m_ResidentMemory.KbAt(now.tv_sec * 1000000 + now.tv_usec), kMemoryColumns);
    out = AppendText(out, " KB !", 5);
  }
  return static_cast<size_t>(AppendTag(out, buffer + size, origin.tag) - buffer);
}

// "2024-05-06 10:11:12"
void EntryFormatter::KeepSecond(time_t second) {
  tm local{};
  m_Second = second;
  m_SecondLength =
      localtime_r(&second, &local) != nullptr ? strftime(m_SecondText, kSecondSize, "%F %H:%M:%S", &local) : 0;
}

void EntryFormatter::KeepThread(uint32_t thread) {
  m_Thread = thread;
  char* out = AppendText(m_ThreadText, " [", 2);
  for (int shift = 28; shift >= 0; shift -= 4)
    *out++ = "0123456789ABCDEF"[(thread >> shift) & 0xF];
  AppendText(out, "] ", 2);
}
