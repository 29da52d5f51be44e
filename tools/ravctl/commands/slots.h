#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

void RegisterSlots(CLI::App& root);

}  // namespace ravctl
