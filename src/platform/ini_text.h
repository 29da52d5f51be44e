#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The text of INI files: what a line means to a reader, and what a writer has to change. Pure functions over the text
// that they are given; any thread may call them. docs/ini-files.md describes the format.
//
// A line ends behind its newline, behind 1023 characters or at the end of the text, whichever comes first: what is left
// of a longer line counts as a line of its own. A last line without a newline is a complete line. A line's text ends at
// its first NUL.

inline constexpr size_t kMaxIniLine = 1023;

// Length of the first line of the text, its newline included; 0 for an empty text.
size_t IniLineLength(std::string_view text);

// Hands out the lines of a text one by one, newlines included.
class IniLines {
 public:
  explicit IniLines(std::string_view text) : m_Text(text) {}

  bool Next(std::string_view& line) {
    line = m_Text.substr(m_Offset, IniLineLength(m_Text.substr(m_Offset)));
    m_Offset += line.size();
    return !line.empty();
  }
  // Where the next line begins.
  size_t Offset() const { return m_Offset; }

 private:
  std::string_view m_Text;
  size_t m_Offset = 0;
};

// A line as a reader sees it: without comment and surrounding white space. All views lie in the line.
//   " key = value ; note\n" => entry "key", "value"      "[Name]\n" => header "[Name]"
struct IniLine {
  enum Kind { kIgnored, kHeader, kEntry };

  Kind kind = kIgnored;
  std::string_view header;
  std::string_view key;
  std::string_view value;
};
IniLine ParseIniLine(std::string_view line);

// Whether a header is exactly the section's name in brackets.
bool IsIniHeaderOf(std::string_view header, std::string_view section);

// Sets a key, deletes a key (value null) or deletes a section (key null) in the text of a file. False when what should
// be deleted is not there.
//
// A writer skips no white space and cuts no comment: headers start in the first column and are matched to their last
// character, a carriage return left aside, a key starts in the first column and ends before the blanks and tabs that
// precede the first '='; only empty lines and lines that start with ';' are passed over. Those belong to the region of
// the line that follows them and are replaced or deleted with it. An entry written, or deleted, right behind a header
// leaves one empty line there. A new key of a section goes before the region of the next header, or to the end of the
// file; a new section, with an empty line before and behind its header, to the end of the file.
bool EditIniText(std::string& file, std::string_view section, const char* key, const char* value);

// The entries of a section in their order, as a reader finds them: of several with the same key each has the value of
// the first. The views lie in the text.
std::vector<std::pair<std::string_view, std::string_view>> IniEntriesOf(std::string_view file,
                                                                        std::string_view section);
