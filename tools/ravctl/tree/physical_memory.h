#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "ravctl/tree/capture.h"

namespace ravctl {

// Pieces of the physical memory by their addresses; pieces that touch are one.
using MemoryPieces = std::map<uint64_t, std::string>;

// Adds bytes; where they overlap what is there, they are the same bytes.
void AddPiece(uint64_t address, std::string bytes, MemoryPieces& pieces);

// Captures from /dev/mem what the firmware code of the library maps there: the legacy BIOS area with the PCI IRQ
// routing table, and the SMBIOS entry points and tables that the legacy area and the UEFI system table tell of. The
// result is one file with holes.
void CapturePhysicalMemory(Capture& capture);

}  // namespace ravctl
