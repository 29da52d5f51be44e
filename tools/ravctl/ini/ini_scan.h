#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ravctl {

// What stands in the text of an INI file, and what is wrong with it. Lines, sections and keys are told apart by the
// library's own functions (platform/ini_text.h). Pure; all views lie in the text.

struct IniEntry {
  std::string_view key;
  std::string_view value;
  size_t line = 0;      // counted by newlines, from 1
  bool isRead = false;  // whether a reader gets this one: the first of its name in a section that is read
};

struct IniSection {
  std::string_view name;
  size_t line = 0;
  bool isRead = false;  // whether a reader opens this one: the first of its name, with a header that is one
  std::vector<IniEntry> entries;
};

struct IniFinding {
  size_t line = 0;
  bool isDamage = false;  // something that stands in the file reaches no reader; else an oddity
  const char* kind = "";  // as in the list below
  std::string text;
};

struct IniScan {
  std::vector<IniSection> sections;
  std::vector<IniFinding> findings;  // by line
};

// Damage:  stray    neither section, key nor comment (before the first section it is an oddity)
//          header   a line that begins with [ and does not end with ]
//          orphan   a key before the first section, or below a header that is none
//          long     more than 1023 characters
//          nul      a NUL byte, which ends the line for a reader
// Oddity:  section  the name was there before: the first one is read
//          key      likewise
//          writer   a reader finds the header or key, a writer does not
//          crlf     lines that end in CR LF: a writer finds none of their headers
//          end      no newline at the end
IniScan ScanIni(std::string_view file);

}  // namespace ravctl
