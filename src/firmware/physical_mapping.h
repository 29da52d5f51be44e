#pragma once

#include <cstddef>
#include <cstdint>

// Owns one shared mapping of a piece of the physical memory behind an open memory device.
//
// Not synchronised. The mapping starts at a page boundary, as the kernel demands, and Data() at the address asked for.
// It does not depend on the descriptor staying open. A device that is a regular file is mapped only as far as it
// reaches: touching a page behind its end would kill the process.
class CPhysicalMapping {
 public:
  CPhysicalMapping() = default;
  ~CPhysicalMapping() { Unmap(); }
  CPhysicalMapping(const CPhysicalMapping&) = delete;
  CPhysicalMapping& operator=(const CPhysicalMapping&) = delete;

  // Replaces the mapping by one of length bytes from address on. 0, or the errno of the failure, after which nothing is
  // mapped: EINVAL for no bytes, EOVERFLOW when they do not fit 32 bits with the part of the page before them, ENXIO
  // when the device ends before them, and what the system says.
  int Map(int device, uint64_t address, uint64_t length, bool writable);
  void Unmap();

  bool IsMapped() const { return m_MappedAddress != nullptr; }
  // The byte at the address asked for; null when nothing is mapped.
  unsigned char* Data() const { return IsMapped() ? m_MappedAddress + m_Offset : nullptr; }

  uint64_t Base() const { return m_Base; }            // physical, page aligned
  uint32_t MappedLength() const { return m_Length; }  // from the base on
  unsigned char* MappedAddress() const { return m_MappedAddress; }

  static uint64_t PageSize();

 private:
  uint64_t m_Base = 0;
  uint32_t m_Offset = 0;  // of the address asked for in its page
  uint32_t m_Length = 0;
  unsigned char* m_MappedAddress = nullptr;
};
