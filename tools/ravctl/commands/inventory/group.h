#pragma once

#include <CLI/CLI.hpp>

namespace ravctl {

void RegisterInventory(CLI::App& root);

// The commands of the family, one file each.
void AddInventoryDiff(CLI::App& inventory);

}  // namespace ravctl
