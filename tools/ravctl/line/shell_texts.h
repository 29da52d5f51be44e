#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

// completion and man: texts made from the registered commands and options themselves.
void RegisterShellTexts(CLI::App& root);

}  // namespace ravctl
