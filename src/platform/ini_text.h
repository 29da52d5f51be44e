#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The text of INI files: what a line means to a reader, and what a writer has to change. Pure functions over the text
// that they are given; any thread may call them. docs/ini-files.md describes the format.
//
// A line ends behind its newline, behind 1023 characters or at the end of the text, whichever comes first: what is left
// of a longer line counts as a line of its own. A last line without a newline is a complete line. A line's text ends at
// its first NUL.

inline constexpr size_t kMaxIniLine = 1023;

// Length of the first line of the text, its newline included; 0 for an empty text.
size_t IniLineLength(std::string_view text);

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

// What turns a file into the one that a writer wants.
struct IniEdit {
  enum Kind {
    kNothing,  // what should be deleted is not there
    kReplace,  // text takes the place of the bytes from begin to end
    kAppend,   // text goes behind the end of the file
  };

  Kind kind = kNothing;
  size_t begin = 0;
  size_t end = 0;
  std::string text;
};

// Works out how to set a key, to delete a key (value null) or to delete a section (key null) in the text of a file.
//
// A writer skips no white space and cuts no comment: headers start in the first column and are matched to their last
// character, a key starts in the first column and ends before the blanks and tabs that precede the first '='; only
// empty lines and lines that start with ';' are passed over. Those belong to the region of the line that follows them
// and are replaced or deleted with it. An entry written, or deleted, right behind a header leaves one empty line there.
// A new key of a section goes before the region of the next header, or to the end of the file.
IniEdit PlanIniEdit(std::string_view file, std::string_view section, const char* key, const char* value);

// "\n[section]\n\nkey=value\n": a section with its first entry.
std::string IniSectionText(std::string_view section, std::string_view key, std::string_view value);
