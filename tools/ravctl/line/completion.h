#pragma once

#include <string>

#include "ravctl/line/command.h"

namespace ravctl {

// The completion for a shell ("bash", "zsh" or "fish"), made from the table of commands and options: the words that may
// follow, the values of options, the columns of -o, and values that a command of the tool lists.
std::string CompletionText(const Command& root, const std::string& shell);

}  // namespace ravctl
