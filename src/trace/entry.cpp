// How one entry is put together: the header of every entry and the text behind it.

#include <sys/time.h>

#include <algorithm>
#include <cstring>

#include "trace/debug.h"

namespace {

constexpr size_t kTagColumns = 13;
constexpr size_t kMemoryColumns = 8;

char* AppendText(char* out, const char* text, size_t length) {
  std::memcpy(out, text, length);
  return out + length;
}

// Decimal, right-justified with leading blanks or zeros: like "%8zu" and "%03d".
char* AppendDecimal(char* out, size_t value, size_t columns, char fill) {
  char digits[24];
  size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  for (; columns > count; --columns)
    *out++ = fill;
  while (count > 0)
    *out++ = digits[--count];
  return out;
}

// Like "%08X".
char* AppendHex(char* out, uint32_t value) {
  for (int shift = 28; shift >= 0; shift -= 4)
    *out++ = "0123456789ABCDEF"[(value >> shift) & 0xF];
  return out;
}

}  // namespace

// "2024-05-06 10:11:12", kept for as long as the second is the same one. Null when it cannot be told.
const char* CDebug::TimeTextOfSecond(time_t second) {
  if (!m_SecondIsKept || second != m_KeptSecond) {
    tm local{};
    const bool told = localtime_r(&second, &local) != nullptr &&
                      strftime(m_KeptSecondText, kSecondTextSize, "%F %H:%M:%S", &local) != 0;
    if (!told) m_KeptSecondText[0] = '\0';
    m_KeptSecond = second;
    m_SecondIsKept = true;
  }
  return m_KeptSecondText[0] != '\0' ? m_KeptSecondText : nullptr;
}

// Without the memory column "%s [%08X] %-13s ", with it "%s [%08X] %8zu KB !%-13s ". All but the tag has a bounded
// length far below the header's, so the tag alone is cut.
size_t CDebug::SetEntryHeader(char* buffer, size_t size, const char* tag) {
  timeval now{};
  gettimeofday(&now, nullptr);
  char* out = buffer;
  if (const char* second = TimeTextOfSecond(now.tv_sec); second != nullptr) {
    out = AppendText(out, second, std::strlen(second));
    *out++ = '.';
    out = AppendDecimal(out, static_cast<size_t>(now.tv_usec / 1000), 3, '0');
  } else {
    out = AppendText(out, "yyyy-mm-dd hh:mm:ss.mmm", 23);
  }
  out = AppendText(out, " [", 2);
  out = AppendHex(out, static_cast<uint32_t>(pthread_self()));
  out = AppendText(out, "] ", 2);
  if (m_MemoryTracesFlag != 0) {
    out = AppendDecimal(out, m_ResidentMemory.ReadKb(), kMemoryColumns, ' ');
    out = AppendText(out, " KB !", 5);
  }

  if (tag == nullptr) tag = m_AppName != nullptr ? m_AppName : "";
  const char* end = buffer + size;
  const size_t tagLength = std::min(std::strlen(tag), static_cast<size_t>(end - out));
  out = AppendText(out, tag, tagLength);
  const size_t blanks = 1 + (tagLength < kTagColumns ? kTagColumns - tagLength : 0);
  for (size_t blank = 0; blank < blanks && out < end; ++blank)
    *out++ = ' ';
  return static_cast<size_t>(out - buffer);
}

const char* CDebug::SkipLeadingNewlines(const char* fmt) {
  const char* text = fmt;
  while (*text == '\n')
    ++text;
  return *text != '\0' ? text : fmt;
}
