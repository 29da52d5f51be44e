#pragma once

#include <cstdint>
#include <vector>

#include "firmware/device_io.h"
#include "firmware/physical_mapping.h"
#include "platform/unique_fd.h"

// Access to the firmware's tables in physical memory below 4 GiB, whoever maps it.
class CDeviceBiosBase : public CDeviceIo {
 public:
  // Maps length bytes from the physical address on. Null on failure. One mapping at a time.
  virtual unsigned char* MapPhysicalMemory(uint32_t addressHigh, uint32_t addressLow, uint64_t length,
                                           bool readWrite) = 0;
  // Always true, also when nothing is mapped.
  virtual bool UnmapPhysicalMemory() = 0;

  // The entries of the PCI IRQ routing table in the BIOS area 0xF0000-0xFFFFF, 16 bytes each; empty when there is no
  // table or it is not sound. Leaves nothing mapped.
  std::vector<unsigned char> GetRoutingTable();
};

// The same through /dev/mem. Lives for one search: connect, map, use, unmap, disconnect.
//
// Not synchronised. A failed open or mapping is kept as the last error. Every mapping has its own open descriptor.
class CDeviceBios : public CDeviceBiosBase {
 public:
  CDeviceBios() = default;
  // Disconnects.
  ~CDeviceBios() override;

  void Connect();
  // Unmaps what is mapped.
  void Disconnect();

  // The device must be connected. Only the low half of the address takes part; the high one is traced. A mapping whose
  // length does not fit 32 bits, or that reaches beyond the end of a memory device of known size, fails. The pointer is
  // valid until the next call of this, Unmap or Disconnect.
  unsigned char* MapPhysicalMemory(uint32_t addressHigh, uint32_t addressLow, uint64_t length, bool readWrite) override;
  bool UnmapPhysicalMemory() override;

 private:
  unsigned char* OpenAndMap(uint32_t address, uint64_t length, bool readWrite);
  void ForgetMapping();

  bool m_Connected = false;
  UniqueFd m_MemoryDevice;
  CPhysicalMapping m_Mapping;
};
