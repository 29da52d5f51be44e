#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

// Every command of the tool, in the order of the help.
void RegisterAllCommands(CLI::App& root);

}  // namespace ravctl
