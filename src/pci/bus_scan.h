#pragma once

#include "pci/bus_table.h"

// The legacy inventory of buses and their resources: who fills the tables and walks them. All of this runs on one
// thread at a time and throws nothing; what there is no memory for is left out.

// One build pass: scans PCI functions, ISA devices and network interfaces, creates or refreshes their entries, leaves
// the entries that were not seen again unused (ISA devices stay), and works out which IRQs are shared.
void BusBuildTables();

// Walks the function table. 0 restarts at the first entry; the first restart in the process builds the tables.
// Any other number gives the entry after the one returned last. Null at the end, and before the first restart.
BusTableEntry* BusGetNextTableEntry(int next);
