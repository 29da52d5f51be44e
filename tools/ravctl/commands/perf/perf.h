#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

// perf and what is below it
void RegisterPerf(CLI::App& root);

// perf top, in a file of its own.
void AddPerfTop(CLI::App& perf);

}  // namespace ravctl
