#pragma once

#include <array>
#include <cstdint>

// What an adapter occupies in the machine, as its resource queries tell it. Plain values.

// A range of I/O ports. The kernel's header names the base alone, so start and end are the same.
struct _SystemAdapterIoDescriptor {
  uint64_t start = 0;  // first port
  uint64_t end = 0;    // last port
  uint32_t flags = 0;  // always 0
};

// A range of physical memory.
struct _SystemAdapterMemoryDescriptor {
  uint64_t start = 0;  // first byte, from the base address register
  uint64_t end = 0;    // last byte, from /proc/iomem
  uint32_t flags = 0;  // always 0
};

// An interrupt line.
struct _SystemAdapterIrqDescriptor {
  uint64_t interrupt = 0;  // number of the line
  uint64_t reserved1 = 0;  // always 0
  uint32_t reserved2 = 0;  // always 0
};

// A DMA channel.
struct _SystemAdapterDmaDescriptor {
  uint64_t channel = 0;  // number of the channel
  uint32_t flags = 0;    // always 0
};

// The start of a range of ports or of memory.
struct CPhysicalAddress {
  uint64_t address = 0;  // number of the port or of the byte
};

// World wide name of a Fibre Channel port, most significant byte first; all zero when not known.
struct CWWN {
  std::array<uint8_t, 8> bytes = {};  // in the order in which the name is written

  // The same name.
  bool operator==(const CWWN&) const = default;
};
