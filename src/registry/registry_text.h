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

// What one read of a line takes at most, the newline included. A longer line comes in several pieces, the last of which
// may be an empty one that ends the key: so none is written.
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

enum class RegistryFit {
  kWhole,  // is read back as it is
  kCut,    // its beginning is read back
  kLost,   // is not read back: the name, or a number with it, has no line
};

// Appends the line of a value or of a subkey's name, newline included; nothing for an entry without a value and for one
// of another type. What does not fit into a line is left away: a text from its first newline on or where the line is
// full, a block from the first byte on that has no room for both digits. A line that would be taken for another entry
// is not appended at all, one that is skipped when it is read ("a=b=s=text") is.
RegistryFit AppendRegistryLine(const RegistryEntry& entry, RegistryText& text);
