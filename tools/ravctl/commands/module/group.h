#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

// module check and module run
void RegisterModule(CLI::App& root);
void AddModuleCheck(CLI::App& module);
void AddModuleRun(CLI::App& module);

}  // namespace ravctl
