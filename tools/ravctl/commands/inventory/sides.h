#pragma once

#include <string>

#include "ravctl/answer/output.h"

namespace ravctl {

// What is compared: the data of ravctl inventory --json, without the file systems that the kernel made up and unknown
// ISA devices, with the slot that each drive, volume and interface hangs on, and of a machine or a tree also its trace
// settings ("trace") and its registry.
inline constexpr const char* kRegistryKey = "registry";  // as text, see store_export.h; null when it cannot be read

// live, -: this machine.
bool IsLive(const std::string& operand);

// This machine, saved JSON, a captured tree or a bundle. The scan of this machine leaves its mark on the process, such
// as the table of mounts, and a child for a tree would take it over: the live side is to be read last. Throws
// CommandError.
Json ReadSide(const std::string& operand, Output& out);

}  // namespace ravctl
