#pragma once

#include <optional>
#include <string>

#include "ravctl/line/command.h"

namespace ravctl {

// The change that ini set and ini del make. The library does the edit, first on a private copy: that shows what it
// would write, and whether a reader would then get what was asked for.
struct IniChange {
  std::string file, section;
  std::optional<std::string> key;    // null: delete the section
  std::optional<std::string> value;  // null: delete
  bool isDry = false;
  bool isRaw = false;

  std::string What() const { return file + ": [" + section + "]" + (key ? " " + *key : ""); }
};

// --dry-run and --raw.
void AddIniChangeOptions(Command& command, IniChange& change);
ExitCode RunIniChange(const IniChange& change, Output& out);

}  // namespace ravctl
