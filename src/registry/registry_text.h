#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "registry/registry_value.h"

// The lines of a registry file, to and from entries. Pure functions.
//
//   Path=s=/opt/x         string           Port=d=3172          number, decimal
//   Home=es=%HOME%/x      expandable       Data=b=0a ff 01      binary, each byte followed by one blank
//   [Agent]               subkey; its own lines follow up to an empty line

// What one read of a line takes at most, the newline included. A longer line comes in several pieces.
inline constexpr size_t kRegistryLineLimit = 1023;

struct RegistryLine {
  enum class Kind { kSkipped, kValue, kSubKey };

  Kind kind = Kind::kSkipped;
  std::string_view name;
  uint32_t type = kRegistryNone;
  std::string_view data;  // of a value: what follows its marker
};

// Splits a line that is not empty, without its newline. The views point into the line.
//   "[a]b]"   => subkey "a"               "A=s=b=c" => string "A", data "b=c"
//   "A=x=1", "A" => skipped: an unknown marker, no marker
RegistryLine ParseRegistryLine(std::string_view line);

// Makes the value of a value line; line.data ends with a zero byte. False for a number without a digit.
// A number is read as strtol does with base 10, bytes with base 16 (their low eight bits) until one fails to convert.
bool MakeRegistryValue(const RegistryLine& line, CRegistryValue& value);

// Text that grows at its end. Not zero-terminated, not shared between threads; std::bad_alloc when it cannot grow.
class RegistryText {
 public:
  RegistryText() = default;
  ~RegistryText();
  RegistryText(const RegistryText&) = delete;
  RegistryText& operator=(const RegistryText&) = delete;

  // Room for so many bytes behind the end; Commit makes what was written there part of the text.
  char* Reserve(size_t count) {
    if (m_Capacity - m_Size < count) Grow(count);
    return m_Bytes + m_Size;
  }
  void Commit(const char* end) { m_Size = static_cast<size_t>(end - m_Bytes); }
  void Append(char c) {
    *Reserve(1) = c;
    ++m_Size;
  }
  void Cut(size_t size) { m_Size = size; }
  size_t Size() const { return m_Size; }
  std::string_view From(size_t start) const { return {m_Bytes + start, m_Size - start}; }

 private:
  void Grow(size_t count);

  char* m_Bytes = nullptr;
  size_t m_Size = 0;
  size_t m_Capacity = 0;
};

enum class RegistryAppended {
  kNothing,  // the entry has no line: without a value, or of another type
  kCarried,  // the line is read back as it is
  kUnsure,   // FateOfRegistryLine tells
};

// Appends the line of a value or of a subkey's name, newline included.
RegistryAppended AppendRegistryLine(const RegistryEntry& entry, RegistryText& text);

enum class RegistryFate {
  kCarried,  // is read back as it is
  kLost,     // is read back differently or not at all; nothing else suffers
  kHarmful,  // its text would be taken for another entry, another key or the end of its key
};

// What becomes of an entry whose line this is, newline included, when the file is read again.
RegistryFate FateOfRegistryLine(const RegistryEntry& entry, std::string_view line);
