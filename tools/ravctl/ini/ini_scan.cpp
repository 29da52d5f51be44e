#include "ravctl/ini/ini_scan.h"

#include <algorithm>
#include <unordered_map>

#include "platform/ini_text.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

// Whether a line that is neither header nor entry holds anything but white space and a comment.
bool HasText(std::string_view line) {
  const size_t first = line.find_first_not_of(kWhiteSpace);
  return first != std::string_view::npos && line[first] != ';' && line[first] != '\0';
}

// A line as a writer compares it.
std::string_view RawText(std::string_view line) {
  return line.substr(0, line.find_first_of(std::string_view("\n\0", 2)));
}

std::string InLine(size_t line) {
  return "line " + std::to_string(line);
}

class Scanner {
 public:
  explicit Scanner(std::string_view file) : m_File(file) {}

  IniScan Run() {
    for (size_t offset = 0; offset < m_File.size();) {
      const size_t newline = m_File.find('\n', offset);
      const size_t end = newline == std::string_view::npos ? m_File.size() : newline + 1;
      ++m_Line;
      ScanWholeLine(m_File.substr(offset, end - offset));
      offset = end;
    }
    if (m_CrCount > 0) {
      Say(m_FirstCr, false, "crlf",
          std::to_string(m_CrCount) + " of " + std::to_string(m_Line) +
              " lines end in CR LF: a writer finds no header among them and adds a second one");
    }
    if (!m_File.empty() && !m_File.ends_with('\n')) Say(m_Line, false, "end", "the last line has no newline");
    std::ranges::stable_sort(m_Scan.findings, {}, &IniFinding::line);
    return std::move(m_Scan);
  }

 private:
  void Say(size_t line, bool isDamage, const char* kind, std::string text) {
    m_Scan.findings.push_back({line, isDamage, kind, std::move(text)});
  }
  void Damage(const char* kind, std::string text) { Say(m_Line, true, kind, std::move(text)); }
  void Oddity(const char* kind, std::string text) { Say(m_Line, false, kind, std::move(text)); }

  // A line up to its newline, which may be several to the library.
  void ScanWholeLine(std::string_view line) {
    const std::string_view text = line.substr(0, line.find('\n'));
    const size_t nul = text.find('\0');
    if (nul != std::string_view::npos) {
      Damage("nul", "a NUL byte at column " + std::to_string(nul + 1) + ": what follows it is not read");
    }
    if (text.size() > kMaxIniLine) {
      Damage("long", std::to_string(text.size()) + " characters: what is beyond " + std::to_string(kMaxIniLine) +
                         " counts as a line of its own");
    }
    if (line.ends_with("\r\n") && ++m_CrCount == 1) m_FirstCr = m_Line;
    for (bool isRest = false; !line.empty(); isRest = true) {
      const std::string_view part = line.substr(0, IniLineLength(line));
      ScanLine(part, isRest);
      line.remove_prefix(part.size());
    }
  }

  void ScanLine(std::string_view line, bool isRest) {
    const IniLine parsed = ParseIniLine(line);
    switch (parsed.kind) {
      case IniLine::kHeader:
        return ScanHeader(parsed.header, RawText(line));
      case IniLine::kEntry:
        return ScanEntry(parsed, RawText(line));
      case IniLine::kIgnored:
        if (!isRest && HasText(line)) ScanStray(line);
    }
  }

  // Files may begin with words to the reader; further down a lost character has cost a section or key.
  void ScanStray(std::string_view line) {
    Say(m_Line, m_HasHeader, "stray", "neither section, key nor comment: " + Excerpt(line));
  }

  void ScanHeader(std::string_view header, std::string_view raw) {
    m_Keys.clear();
    m_HasHeader = true;
    m_IsInSection = header.size() >= 2 && header.ends_with(']');
    if (!m_IsInSection) return Damage("header", "no reader opens this section: " + Excerpt(header));
    const std::string_view name = header.substr(1, header.size() - 2);
    const auto [first, isFirst] = m_Sections.emplace(name, m_Line);
    m_Scan.sections.push_back({name, m_Line, isFirst, {}});
    if (!isFirst) {
      Oddity("section", Excerpt(header) + " again: that of " + InLine(first->second) + " is read");
    }
    if (raw.ends_with('\r')) raw.remove_suffix(1);
    if (raw != header) Oddity("writer", "a writer does not find " + Excerpt(header) + " beside blanks or a comment");
  }

  void ScanEntry(const IniLine& entry, std::string_view raw) {
    if (!m_IsInSection) {
      Damage("orphan", "the key belongs to no section: " + Excerpt(entry.key));
      return;
    }
    IniSection& section = m_Scan.sections.back();
    const auto [first, isFirst] = m_Keys.emplace(entry.key, m_Line);
    section.entries.push_back({entry.key, entry.value, m_Line, section.isRead && isFirst});
    if (!isFirst) Oddity("key", Excerpt(entry.key) + " again: that of " + InLine(first->second) + " is read");
    if (!raw.starts_with(entry.key)) Oddity("writer", "a writer does not find the indented key " + Excerpt(entry.key));
  }

  // Enough of a text to recognise it by.
  static std::string Excerpt(std::string_view text) {
    constexpr size_t kLength = 60;
    text = RawText(text);
    const bool isCut = text.size() > kLength;
    return ValidUtf8(text.substr(0, kLength)) + (isCut ? "..." : "");
  }

  using Places = std::unordered_map<std::string_view, size_t>;  // name => first line

  std::string_view m_File;
  IniScan m_Scan;
  Places m_Sections;
  Places m_Keys;  // of the section that is open
  size_t m_Line = 0;
  size_t m_CrCount = 0;
  size_t m_FirstCr = 0;
  bool m_HasHeader = false;  // a line that begins with [ came
  bool m_IsInSection = false;
};

}  // namespace

IniScan ScanIni(std::string_view file) {
  return Scanner(file).Run();
}

}  // namespace ravctl
