// The check of a 32-bit SMBIOS entry point, and the fields of both kinds.

#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "firmware/smbios_from_memory.h"
#include "firmware/smbios_lookup.h"
#include "trace/debug.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 512) return 0;
  Debug.m_TraceActive = true;  // to no target: the dumps are made, nothing is written
  Debug.m_TraceLevel = 6;
  const std::vector<unsigned char> bytes(data, data + size);
  CSMBios smbios;
  uint32_t address = 0;
  unsigned long length = 0;
  CDataStream header;
  if (smbios.checkSmbiosHeader(bytes, address, length, header)) {
    const auto sum = std::accumulate(header.Bytes().begin(), header.Bytes().end(), 0U) & 0xFF;
    if (header.Size() > size || header.Size() != bytes[5] || sum != 0 || length > 0xFFFF) std::abort();
  } else if (!header.IsEmpty()) {
    std::abort();
  }
  using namespace smbios_tables;
  if (size >= sizeof(_DMI_30_EPS)) SMBiosTableFromMemoryV3().GetDataAddress(bytes.data());
  if (size >= sizeof(_DMI_21_EPS) && SMBiosTableFromMemoryV2().GetDataLength(bytes.data()) != length) std::abort();
  return 0;
}
