#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>

// Reads a line of the kernel's text files field by field, from left to right, never past the end of the view that it
// was given. A field that is not there leaves the output as it was and gives false. One thread at a time.
class TextCursor {
 public:
  explicit TextCursor(std::string_view text) : m_Rest(text) {}

  std::string_view Rest() const { return m_Rest; }

  void SkipBlanks() {
    while (!m_Rest.empty() && IsBlank(m_Rest.front()))
      m_Rest.remove_prefix(1);
  }

  bool Skip(char expected) {
    if (m_Rest.empty() || m_Rest.front() != expected) return false;
    m_Rest.remove_prefix(1);
    return true;
  }

  // Digits right here, without sign or prefix; a number that does not fit is no number.
  template <typename Value>
  bool Number(Value& value, int base) {
    Value found = 0;
    const auto [end, error] = std::from_chars(m_Rest.data(), m_Rest.data() + m_Rest.size(), found, base);
    if (error != std::errc() || m_Rest.front() == '-') return false;
    m_Rest.remove_prefix(static_cast<size_t>(end - m_Rest.data()));
    value = found;
    return true;
  }

  // The same behind blanks.
  template <typename Value>
  bool Field(Value& value, int base) {
    SkipBlanks();
    return Number(value, base);
  }

  // The characters up to the next blank, behind blanks; empty at the end of the line.
  std::string_view Word() {
    SkipBlanks();
    size_t length = 0;
    while (length < m_Rest.size() && !IsBlank(m_Rest[length]))
      ++length;
    const std::string_view word = m_Rest.substr(0, length);
    m_Rest.remove_prefix(length);
    return word;
  }

  static bool IsBlank(char letter) { return letter == ' ' || (letter >= '\t' && letter <= '\r'); }

  // "  a b " => "a b"
  static std::string_view Trim(std::string_view text) {
    while (!text.empty() && IsBlank(text.front()))
      text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
      text.remove_suffix(1);
    return text;
  }

 private:
  std::string_view m_Rest;
};
