#pragma once

#include <string>

#include "ravctl/tree/capture.h"
#include "ravctl/tree/redact/redactor.h"

namespace ravctl {

// The binary tables of the firmware. Lengths, places and handles stay, so that no checksum and no address changes.

// Serial numbers, asset tags and the UUID of an SMBIOS structure table (DMTF DSP0134).
void LearnFromSmbios(std::string_view table, Redactor& redactor);

// Replaces them in place, and what else has the form of a secret in the strings. The structures whose layout only their
// maker knows, and the one that tells of the management controller's network, keep their headers alone; OEM strings
// become other letters.
void RedactSmbios(std::string& table, size_t start, size_t length, Redactor& redactor);

// The same for the tables that the entry points in a captured physical memory tell of. Of that memory nothing else
// stays but the entry points and the PCI IRQ routing table.
void LearnFromMemory(const CapturedEntry& memory, Redactor& redactor);
void RedactMemory(CapturedEntry& memory, Redactor& redactor);

}  // namespace ravctl
