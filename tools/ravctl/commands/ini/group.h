#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

// ini and everything below it
void RegisterIni(CLI::App& root);

// ini set and ini del
void AddIniChanges(CLI::App& ini);

}  // namespace ravctl
