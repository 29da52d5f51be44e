#include "platform/reg_ex.h"

#include <regex.h>

#include "trace/debug.h"

namespace {

constexpr int kMatchesForZero = 256;

struct Span {
  size_t begin = 0;
  size_t end = 0;
};

class Pattern {
 public:
  explicit Pattern(const std::string& text) : m_Error(::regcomp(&m_Regex, text.c_str(), REG_EXTENDED)) {}
  ~Pattern() {
    if (IsGood()) ::regfree(&m_Regex);
  }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  bool IsGood() const { return m_Error == 0; }

  std::string ErrorText() const {
    char text[256];
    ::regerror(m_Error, &m_Regex, text, sizeof text);
    return text;
  }

  bool FindFrom(const std::string& text, size_t offset, Span& found) const {
    if (offset > text.size()) return false;
    // In and out: the part of the text to search, then where the match lies, both counted from the text's beginning.
    regmatch_t match{static_cast<regoff_t>(offset), static_cast<regoff_t>(text.size())};
    if (::regexec(&m_Regex, text.c_str(), 1, &match, REG_STARTEND) != 0) return false;
    found = {static_cast<size_t>(match.rm_so), static_cast<size_t>(match.rm_eo)};
    return true;
  }

 private:
  regex_t m_Regex = {};
  int m_Error;
};

Span FindOccurrence(const Pattern& pattern, const std::string& text, int count) {
  Span last;
  size_t offset = 0;
  for (int number = 0; number < count && pattern.FindFrom(text, offset, last); ++number) {
    offset = last.begin + 1;
  }
  return last;
}

}  // namespace

bool CRegEx::GetRegexFromString(std::string& result, const std::string& pattern, const std::string& text,
                                uint8_t occurrence) {
  const Pattern compiled(pattern);
  if (!compiled.IsGood()) {
    TRACE(1, "\nCRegEx::GetRegexFromString  : Cannot get regex from string! Error message: %s.\n",
          compiled.ErrorText().c_str());
    return false;
  }
  const Span found = FindOccurrence(compiled, text, occurrence == 0 ? kMatchesForZero : occurrence);
  result = text.substr(found.begin, found.end - found.begin);
  return true;
}
