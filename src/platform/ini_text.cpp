#include "platform/ini_text.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

bool IsWhiteSpace(char c) {
  return IsBlank(c) || (c >= '\n' && c <= '\r');
}

std::string_view TrimRight(std::string_view text, bool (*isTrimmed)(char)) {
  while (!text.empty() && isTrimmed(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsWhiteSpace(text.front())) {
    text.remove_prefix(1);
  }
  return TrimRight(text, IsWhiteSpace);
}

std::string_view CutAt(std::string_view text, char end) {
  return text.substr(0, text.find(end));
}

// A line as a writer sees it.
struct RawLine {
  std::string_view text;   // without newline, never empty
  size_t regionBegin = 0;  // behind the line before it that is neither empty nor a comment
  size_t end = 0;

  bool IsHeader() const { return text.front() == '['; }

  bool IsHeaderOf(std::string_view section) const {
    return IsIniHeaderOf(text.substr(0, text.size() - (text.ends_with('\r') ? 1 : 0)), section);
  }

  bool HasKey(std::string_view key) const {
    const size_t assignment = text.find('=');
    return assignment != std::string_view::npos && TrimRight(text.substr(0, assignment), IsBlank) == key;
  }
};

// Hands out the lines that are neither empty nor comments.
class RawLines {
 public:
  explicit RawLines(std::string_view file) : m_Lines(file) {}

  bool Next(RawLine& line) {
    line.regionBegin = m_Lines.Offset();
    for (std::string_view text; m_Lines.Next(text);) {
      if (text.ends_with('\n')) text.remove_suffix(1);
      line.text = CutAt(text, '\0');
      line.end = m_Lines.Offset();
      if (!line.text.empty() && line.text.front() != ';') return true;
    }
    return false;
  }

 private:
  IniLines m_Lines;
};

// Text takes the place of the bytes from begin to end.
struct IniEdit {
  bool isFound = false;  // false: what should be deleted is not there
  size_t begin = 0;
  size_t end = 0;
  std::string text;
};

std::string EntryText(std::string_view key, std::string_view value) {
  std::string text(key);
  text += '=';
  text += value;
  text += '\n';
  return text;
}

// "\n[section]\n\nkey=value\n"
std::string SectionText(std::string_view section, std::string_view key, std::string_view value) {
  std::string text("\n[");
  text += section;
  text += "]\n\n";
  return text + EntryText(key, value);
}

IniEdit Replace(size_t begin, size_t end, std::string text) {
  return {true, begin, end, std::move(text)};
}

// An unfinished last line gets its newline before anything follows it.
IniEdit Append(std::string_view file, const std::string& text) {
  const bool isUnfinished = !file.empty() && file.back() != '\n';
  return Replace(file.size(), file.size(), isUnfinished ? "\n" + text : text);
}

IniEdit PlanAtNextHeader(size_t sectionBegin, size_t headerBegin, const char* key, const char* value) {
  if (key == nullptr) return Replace(sectionBegin, headerBegin, "");
  if (value == nullptr) return {};
  return Replace(headerBegin, headerBegin, EntryText(key, value));
}

IniEdit PlanAtEntry(const RawLine& line, bool isFirst, const char* key, const char* value) {
  const std::string text = value == nullptr ? "" : EntryText(key, value);
  return Replace(line.regionBegin, line.end, isFirst ? "\n" + text : text);
}

IniEdit PlanIniEdit(std::string_view file, std::string_view section, const char* key, const char* value) {
  RawLines lines(file);
  size_t sectionBegin = 0;
  size_t entryCount = 0;
  bool isInside = false;
  for (RawLine line; lines.Next(line);) {
    if (line.IsHeader()) {
      if (isInside) return PlanAtNextHeader(sectionBegin, line.regionBegin, key, value);
      isInside = line.IsHeaderOf(section);
      sectionBegin = line.regionBegin;
    } else if (isInside && key != nullptr) {
      ++entryCount;
      if (line.HasKey(key)) return PlanAtEntry(line, entryCount == 1, key, value);
    }
  }
  if (key == nullptr) return isInside ? Replace(sectionBegin, file.size(), "") : IniEdit();
  if (value == nullptr) return {};
  return Append(file, isInside ? EntryText(key, value) : SectionText(section, key, value));
}

}  // namespace

size_t IniLineLength(std::string_view text) {
  const size_t limit = std::min(text.size(), kMaxIniLine);
  if (limit == 0) return 0;
  const void* newline = std::memchr(text.data(), '\n', limit);
  return newline == nullptr ? limit : static_cast<size_t>(static_cast<const char*>(newline) - text.data()) + 1;
}

IniLine ParseIniLine(std::string_view line) {
  IniLine parsed;
  const std::string_view text = Trim(CutAt(CutAt(line, '\0'), ';'));
  if (text.empty()) return parsed;
  if (text.front() == '[') {
    parsed.kind = IniLine::kHeader;
    parsed.header = text;
    return parsed;
  }
  const size_t assignment = text.find('=');
  if (assignment == std::string_view::npos) return parsed;
  parsed.kind = IniLine::kEntry;
  parsed.key = TrimRight(text.substr(0, assignment), IsWhiteSpace);
  parsed.value = Trim(text.substr(assignment + 1));
  return parsed;
}

bool IsIniHeaderOf(std::string_view header, std::string_view section) {
  return header.size() == section.size() + 2 && header.front() == '[' && header.back() == ']' &&
         header.substr(1, section.size()) == section;
}

bool EditIniText(std::string& file, std::string_view section, const char* key, const char* value) {
  const IniEdit edit = PlanIniEdit(file, section, key, value);
  if (edit.isFound) file.replace(edit.begin, edit.end - edit.begin, edit.text);
  return edit.isFound;
}

std::vector<std::pair<std::string_view, std::string_view>> IniEntriesOf(std::string_view file,
                                                                        std::string_view section) {
  std::vector<std::pair<std::string_view, std::string_view>> entries;
  std::map<std::string_view, std::string_view> values;
  bool isInside = false;
  IniLines lines(file);
  for (std::string_view line; lines.Next(line);) {
    const IniLine parsed = ParseIniLine(line);
    if (parsed.kind == IniLine::kHeader) {
      if (isInside) break;
      isInside = IsIniHeaderOf(parsed.header, section);
    } else if (isInside && parsed.kind == IniLine::kEntry && !parsed.key.empty()) {
      entries.emplace_back(parsed.key, values.emplace(parsed.key, parsed.value).first->second);
    }
  }
  return entries;
}
