#pragma once

#include <map>
#include <string>
#include <vector>

#include "ravctl/line/command.h"

namespace ravctl {

// ravctl schema
void AddSchema(Command& root);

// The form of an answer, and whose answers have it: "ravctl ini set", "ravctl ini del".
struct KnownSchema {
  const Schema* schema = nullptr;
  std::vector<std::string> commands;

  Json AsJsonSchema() const;
};
// By their names: all that the commands below root answer with.
std::map<std::string, KnownSchema> AllSchemas(const Command& root);

// --list-columns. Throws CommandError (usage) when the command prints no table.
ExitCode ListColumns(const Command& command, Output& out);

}  // namespace ravctl
