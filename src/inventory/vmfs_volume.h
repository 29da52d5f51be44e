#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "inventory/mount_entry.h"

// VMFS volumes of ESX hosts. Stateless.

// Appends the names of the volumes in a directory, those with a ':' in them, sorted. False when the directory cannot be
// read; names are then of no use.
bool list_vmfs_names(const char* directory, std::vector<std::string>& names);

// Size figures of a VMFS volume, asked from vmkfstools; figures stay as they were when it gives none. A volume whose
// name the shell would not take as one plain word is not asked for.
void get_vmfs_data(mount_entry* entry, const char* volume);

// What vmkfstools says about a volume.
struct vmfs_usage {
  double capacity = 0;   // bytes
  double available = 0;  // bytes
  int blocks = 0;
  int block_size = 0;  // bytes
  int available_blocks = 0;
};

// Takes the first good line of the tool's output and returns 5, the number of values in it; -1 and the output as it
// was when there is none. "Capacity 1048576.000000 (1 file blocks * 1048576), 524288.000000 (0 blocks)" is good.
int parse_vmfs_usage(std::string_view output, vmfs_usage& usage);
