#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

// bundle
void RegisterBundle(CLI::App& root);

}  // namespace ravctl
