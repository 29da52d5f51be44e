#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

void RegisterSmbios(CLI::App& root);

}  // namespace ravctl
