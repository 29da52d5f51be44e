#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

void RegisterPci(CLI::App& root);

}  // namespace ravctl
