#pragma once

#include <cstdint>

#include "firmware/data_stream.h"

// Readers of the SMBIOS data that UEFI firmware left in physical memory.
//
// The entry point's address comes from the kernel's copy of the UEFI system table, the bytes from /dev/mem. Stateless:
// each call opens and closes what it uses, so calls are independent. Nothing is thrown; a failure is traced.
namespace smbios_tables {

// 32-bit entry point structure, anchor "_SM_" (DMTF DSP0134, 5.2.1). Bytes alone: no alignment, little-endian.
struct _DMI_21_EPS {
  unsigned char anchor[4];
  unsigned char checksum;
  unsigned char length;
  unsigned char majorVersion;
  unsigned char minorVersion;
  unsigned char maximumStructureSize[2];
  unsigned char entryPointRevision;
  unsigned char formattedArea[5];
  unsigned char intermediateAnchor[5];
  unsigned char intermediateChecksum;
  unsigned char tableLength[2];
  unsigned char tableAddress[4];
  unsigned char structureCount[2];
  unsigned char bcdRevision;
};
static_assert(sizeof(_DMI_21_EPS) == 31);

// 64-bit entry point structure, anchor "_SM3_" (DMTF DSP0134, 5.2.2).
struct _DMI_30_EPS {
  unsigned char anchor[5];
  unsigned char checksum;
  unsigned char length;
  unsigned char majorVersion;
  unsigned char minorVersion;
  unsigned char documentRevision;
  unsigned char entryPointRevision;
  unsigned char reserved;
  unsigned char tableMaximumSize[4];
  unsigned char tableAddress[8];
};
static_assert(sizeof(_DMI_30_EPS) == 24);

template <typename EntryPoint>
class SMBiosTableFromMemory {
 public:
  SMBiosTableFromMemory();
  virtual ~SMBiosTableFromMemory();
  SMBiosTableFromMemory(const SMBiosTableFromMemory&) = delete;
  SMBiosTableFromMemory& operator=(const SMBiosTableFromMemory&) = delete;

  virtual uint64_t HeaderSize() const { return sizeof(EntryPoint); }
  // The key of the entry point in the UEFI system table.
  virtual const char* GetVersionString() const = 0;
  // Fields of an entry point of HeaderSize() bytes; 0 for null.
  virtual uint32_t GetDataLength(const unsigned char* header) const = 0;
  virtual uint64_t GetDataAddress(const unsigned char* header) const = 0;

  // Physical address of the entry point; 0 when the kernel tells none.
  uint64_t GetUEFIAddress() const;

  // The entry point and the structure table; unchanged on failure. Neither anchor nor checksum is tested. The table has
  // exactly the length that the entry point names, so with a 64-bit entry point, which names a maximum, bytes may
  // follow the last structure. A length above 16 MiB is not believed and fails like a mapping.
  bool GetBiosData(CDataStream& header, CDataStream& data) const;

 private:
  // The steps of GetBiosData. A header that names no table leaves data empty, which is no failure yet.
  bool ReadHeader(int device, uint64_t address, CDataStream& header) const;
  bool ReadTable(int device, const CDataStream& header, CDataStream& data) const;
};

class SMBiosTableFromMemoryV3 : public SMBiosTableFromMemory<_DMI_30_EPS> {
 public:
  const char* GetVersionString() const override { return "SMBIOS3"; }
  uint32_t GetDataLength(const unsigned char* header) const override;
  uint64_t GetDataAddress(const unsigned char* header) const override;
};

class SMBiosTableFromMemoryV2 : public SMBiosTableFromMemory<_DMI_21_EPS> {
 public:
  const char* GetVersionString() const override { return "SMBIOS"; }
  uint32_t GetDataLength(const unsigned char* header) const override;
  uint64_t GetDataAddress(const unsigned char* header) const override;
};

extern template class SMBiosTableFromMemory<_DMI_30_EPS>;
extern template class SMBiosTableFromMemory<_DMI_21_EPS>;

}  // namespace smbios_tables
