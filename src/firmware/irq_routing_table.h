#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// One entry of the PCI IRQ routing table (PCI IRQ Routing Table 1.0). Bytes alone: no alignment.
struct IRQ_ROUTING_TABLE_ENTRY {
  uint8_t bus;
  uint8_t deviceFunction;  // device in the bits 3-7
  uint8_t links[12];       // link and bitmap of INTA to INTD
  uint8_t slot;            // 0 = onboard
  uint8_t reserved;
};
static_assert(sizeof(IRQ_ROUTING_TABLE_ENTRY) == 16 && alignof(IRQ_ROUTING_TABLE_ENTRY) == 1);

// Finds the first "$PIR" on a 16-byte boundary of the area and returns the bytes of its entries; empty when there is
// none or its size, version or checksum is wrong. A size that reaches into the last 32 bytes of the area, or that is
// too small for the table's own header, is a wrong size.
std::vector<unsigned char> ParseIrqRoutingTable(std::span<const unsigned char> area);
