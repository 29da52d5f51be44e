#include "firmware/device_bios.h"

#include <fcntl.h>

#include <cerrno>

#include "firmware/irq_routing_table.h"
#include "trace/debug.h"

namespace {

constexpr const char* kMemoryDevice = "/dev/mem";
constexpr uint32_t kBiosArea = 0xF0000;
constexpr uint32_t kBiosAreaSize = 0x10000;

}  // namespace

std::vector<unsigned char> CDeviceBiosBase::GetRoutingTable() {
  TRACE(3, "\nCDeviceBiosBase::GetRoutingTable   : Get PCI slot mapping table");
  TRACE(4, "\nCDeviceBiosBase::GetRoutingTable   : First try with (new) memory struct interface...");
  TRACE(
      5,
      "\nCDeviceBiosBase::GetRoutingTable   : Map physical memory address 0x%05X size 0x%05X to virtual address space",
      kBiosArea, kBiosAreaSize);
  const unsigned char* area = MapPhysicalMemory(0, kBiosArea, kBiosAreaSize, false);
  if (area == nullptr) {
    TRACE(1, "\nCDeviceBiosBase::GetRoutingTable   : ERROR! Could not map physical memory at 0x%05X", kBiosArea);
    return {};
  }
  std::vector<unsigned char> entries = ParseIrqRoutingTable({area, kBiosAreaSize});
  UnmapPhysicalMemory();
  return entries;
}

CDeviceBios::~CDeviceBios() {
  TRACE(5, "\nCDeviceBios         : ~CDeviceBios()");
  TRACE(4, "\nCDeviceBiosBase     :   disconnect from BIOS device");
  CDeviceBios::UnmapPhysicalMemory();
  m_Connected = false;
}

void CDeviceBios::Connect() {
  TRACE(4, "\nCDeviceBiosBase     :   connect to BIOS device...");
  m_Connected = true;
}

void CDeviceBios::Disconnect() {
  UnmapPhysicalMemory();
  m_Connected = false;
  TRACE(4, "\nCDeviceBiosBase     :   disconnect from BIOS device");
}

unsigned char* CDeviceBios::MapPhysicalMemory(uint32_t addressHigh, uint32_t addressLow, uint64_t length,
                                              bool readWrite) {
  TRACE(4, "\nCDeviceBios (Map) : Mapping physical memory 0x%0X%08X len 0x%05X to the user process", addressHigh,
        addressLow, static_cast<unsigned int>(length));
  TRACE(4, "\nCDeviceBios (Map) :   access mode = %s", readWrite ? "read-write" : "read-only");
  if (!m_Connected) {
    TRACE(1, "\n\nCDeviceBios (Map) : ## ERROR: DeviceBios is not connected - fix this!!\n");
    return nullptr;
  }
  if (addressLow == 0 || length == 0) {
    TRACE(1,
          "\nCDeviceBios (Map)   : ## ERROR: Physical address or size is 0 for physical memory mapping - fix this!!\n");
    ForgetMapping();
    return nullptr;
  }
  if (m_Mapping.IsMapped()) {
    TRACE(
        2,
        "\nCDeviceBios (Map)   : ## WARNING! Mapped physical memory already existing - will be unmapped before new mapping performed!");
    UnmapPhysicalMemory();
  }
  return OpenAndMap(addressLow, length, readWrite);
}

unsigned char* CDeviceBios::OpenAndMap(uint32_t address, uint64_t length, bool readWrite) {
  TRACE(4, "\nCDeviceBios (Map) : open memory device %s...", kMemoryDevice);
  m_MemoryDevice.Reset(::open(kMemoryDevice, (readWrite ? O_RDWR : O_RDONLY) | O_CLOEXEC));
  if (!m_MemoryDevice) {
    const int error = errno;
    SetLastError(error);
    TRACE(1, "\n\n## ERROR: Opening of /dev/mem failed (errno=%d)!", error);
    return nullptr;
  }
  const uint64_t page = CPhysicalMapping::PageSize();
  TRACE(4, "\nCDeviceBios (Map) : memory device opened %s (fd=%d)", kMemoryDevice, m_MemoryDevice.Get());
  TRACE(4, "\nCDeviceBios (Map) : physical page size is = %d", static_cast<int>(page));
  TRACE(4, "Varnock (MapMemLx)  : mapping offset = 0x%lx", static_cast<unsigned long>(address % page));
  if (const int error = m_Mapping.Map(m_MemoryDevice.Get(), address, length, readWrite); error != 0) {
    SetLastError(error);
    ForgetMapping();
    return nullptr;
  }
  TRACE(4, "CDeviceBios (Map) : return mapped address = 0x%p\n", static_cast<const void*>(m_Mapping.Data()));
  return m_Mapping.Data();
}

bool CDeviceBios::UnmapPhysicalMemory() {
  if (m_Mapping.IsMapped()) {
    TRACE(3, "CDeviceBios (Unmap) : unmapped 0x%x bytes at 0x%x from 0x%p on %d...\n", m_Mapping.MappedLength(),
          static_cast<unsigned int>(m_Mapping.Base()), static_cast<const void*>(m_Mapping.MappedAddress()),
          m_MemoryDevice.Get());
  }
  ForgetMapping();
  return true;
}

void CDeviceBios::ForgetMapping() {
  m_Mapping.Unmap();
  m_MemoryDevice.Reset();
}
