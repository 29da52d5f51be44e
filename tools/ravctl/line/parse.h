#pragma once

#include <string>

#include "ravctl/line/command.h"

namespace ravctl {

// What a command line turned out to be.
struct ParsedLine {
  enum class Kind {
    kCommand,  // the command is to run; its targets are filled
    kHelp,     // text is the help of the command
    kVersion,
    kColumns,  // the columns of the command are asked for
    kUnknown,  // text is the first word that was not understood
    kFault,    // text says what is wrong
  };
  Kind kind = Kind::kCommand;
  const Command* command = nullptr;  // the innermost of the line
  std::string text = {};
};

// Reads the line by the table of commands and options below root. Options of a command above are understood behind the
// command too. Here alone is the command-line library used.
ParsedLine ParseLine(const Command& root, int argc, char** argv);

}  // namespace ravctl
