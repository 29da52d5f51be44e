#pragma once

#include <array>
#include <cstdint>

// What an adapter occupies in the machine, as its resource queries tell it. Plain values.

// A range of I/O ports. The kernel's header names the base alone, so start and end are the same.
struct _SystemAdapterIoDescriptor {
  uint64_t start = 0;
  uint64_t end = 0;
  uint32_t flags = 0;
};

struct _SystemAdapterMemoryDescriptor {
  uint64_t start = 0;
  uint64_t end = 0;
  uint32_t flags = 0;
};

struct _SystemAdapterIrqDescriptor {
  uint64_t interrupt = 0;
  uint64_t reserved1 = 0;
  uint32_t reserved2 = 0;
};

struct _SystemAdapterDmaDescriptor {
  uint64_t channel = 0;
  uint32_t flags = 0;
};

struct CPhysicalAddress {
  uint64_t address = 0;
};

// World wide name of a Fibre Channel port, most significant byte first; all zero when not known.
struct CWWN {
  std::array<uint8_t, 8> bytes = {};

  bool operator==(const CWWN&) const = default;
};
