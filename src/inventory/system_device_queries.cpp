// The queries of CSystemDeviceScan.

#include "inventory/pci_list_walk.h"
#include "inventory/system_device_scan.h"
#include "trace/debug.h"

namespace {

template <typename Record>
bool CopyAt(const std::vector<Record>& records, int index, Record& record) {
  if (index < 0 || static_cast<size_t>(index) >= records.size()) return false;
  record = records[static_cast<size_t>(index)];
  return true;
}

constexpr unsigned short kAnyId = 0xFFFF;

bool IdFits(unsigned short wanted, uint16_t id) {
  return wanted == kAnyId || wanted == id;
}

}  // namespace

unsigned int CSystemDeviceScan::GetAdapterCount() {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! GetAdapterCount(): Access timeout!\n");
    return 0;
  }
  return static_cast<unsigned int>(m_Adapters.size());
}

bool CSystemDeviceScan::GetAdapter(CSystemAdapter& adapter, int index) {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! GetAdapter(): Access timeout!\n");
    return false;
  }
  return CopyAt(m_Adapters, index, adapter);
}

bool CSystemDeviceScan::FindAdapter(CSystemAdapter& adapter, const char* deviceId) {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! FindAdapter(): Access timeout!\n");
    return false;
  }
  return m_Adapters.FindAdapter(adapter, deviceId);
}

bool CSystemDeviceScan::FindAdapter(CSystemAdapter& adapter, const CPciAddress& address) {
  Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! FindAdapter(): Access timeout!\n");
    return false;
  }
  const bool found = m_Adapters.GetAdapter(adapter, address);
  turn.GiveBack();
  if (found) {
    TRACE(2, "\nCSystemDeviceScan   : Found adapter at PCI address (Bus %d Device %d Function %d): %s", address.bus,
          address.device, address.function, adapter.DeviceName.c_str());
  } else {
    TRACE(2, "\nCSystemDeviceScan   : No adapter found at PCI address (Bus %d Device %d Function %d)!", address.bus,
          address.device, address.function);
  }
  return found;
}

bool CSystemDeviceScan::GetHostAdapter(CSystemAdapter& adapter, const CSystemDrive& drive) {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! GetHostAdapter(): Access timeout!\n");
    return false;
  }
  if (!m_Adapters.GetAdapter(adapter, drive.GetPciAddress())) return false;
  TRACE(3, "\nCSystemDeviceRelations   : Found host adapter \"%s\"", adapter.DeviceName.c_str());
  return true;
}

bool CSystemDeviceScan::GetHostDrives(CSystemDriveList& drives, CSystemAdapter& adapter) {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! GetHostDrive(): Access timeout!\n");
    return false;
  }
  const char* const name = adapter.DeviceName.c_str();
  drives.clear();
  TRACE(3, "\nCSystemDeviceScan   : Get host drives for adapter \"%s\":", name);
  TRACE(3, "\nCSystemDeviceRelations   : Get host drives for adapter \"%s\":", name);
  if (!adapter.GetPciAddress().IsValid()) {
    TRACE(3, "\nCSystemDeviceRelations   : Cannot get  Adapter pci address \"%s\".", name);
  }
  for (const CSystemDrive& drive : m_Drives) {
    if (drive.GetPciAddress() != adapter.GetPciAddress()) continue;
    TRACE(3, "\nCSystemDeviceRelations   : Adapter \"%s\": Host drive [%d]: \"%s\"", name,
          static_cast<int>(drives.size()), drive.DeviceName.c_str());
    drives.push_back(drive);
  }
  TRACE(3, "\nCSystemDeviceScan   : Found %d host drives for adapter \"%s\"", static_cast<int>(drives.size()), name);
  return !drives.empty();
}

bool CSystemDeviceScan::GetParentAdapter(const CSystemAdapter& /*adapter*/, CSystemAdapter& /*parent*/) {
  return false;
}

int CSystemDeviceScan::GetDriveCount() {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) TRACE(1, "\nCSystemDeviceScan   : WARNING! GetDriveCount(): Access timeout!\n");
  return 0;
}

bool CSystemDeviceScan::GetDrive(CSystemDrive& /*drive*/, int /*index*/) {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) TRACE(1, "\nCSystemDeviceScan   : WARNING! GetDrive(): Access timeout!\n");
  return false;
}

int CSystemDeviceScan::GetPartitionCount() {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) TRACE(1, "\nCSystemDeviceScan   : WARNING! GetPartitionCount(): Access timeout!\n");
  return 0;
}

bool CSystemDeviceScan::GetPartition(CSystemPartition& /*partition*/, int /*index*/) {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) TRACE(1, "\nCSystemDeviceScan   : WARNING! GetPartition(): Access timeout!\n");
  return false;
}

int CSystemDeviceScan::GetDiskPartitions(CSystemPartitionList& /*partitions*/, CSystemDrive& /*drive*/) {
  TRACE(5, "\nCSystemDeviceScan   : -> GetDiskPartitions()");
  TRACE(5, "\nCSystemDeviceScan   : <- GetDiskPartitions()");
  return 0;
}

bool CSystemDeviceScan::GetVolume(CSystemVolume& volume, int index) {
  const Turn turn(*this, kQueryTimeoutMs);
  if (!turn) {
    TRACE(1, "\nCSystemDeviceScan   : WARNING! GetVolume(): Access timeout!\n");
    return false;
  }
  if (index < 0 || static_cast<size_t>(index) >= m_Volumes.size()) return false;
  volume.ClassCopy(m_Volumes[static_cast<size_t>(index)]);
  return true;
}

bool CSystemDeviceScan::GetPciSlotConfig(CPciConfigList& list) {
  const CCriticalSectionLock lock(m_PciConfigList.Lock());
  list = m_PciConfigList;
  return !list.empty();
}

bool CSystemDeviceScan::GetPciSlotData(CPciSlotData& data, const CPciAddress& address) {
  if (!address.IsValid()) return false;
  const CCriticalSectionLock lock(m_PciConfigList.Lock());
  const auto found = m_PciConfigList.find(address);
  if (found == m_PciConfigList.end()) return false;
  data = found->second;
  return true;
}

bool CSystemDeviceScan::GetPciSlotData(CPciSlotData& data, unsigned short deviceId, unsigned short vendorId,
                                       unsigned short subDeviceId, unsigned short subVendorId) {
  TRACE(
      4,
      "\nCPciConfigList      : Find PCI slot data for Device ID 0x%04X Vendor ID 0x%04X SubDevice ID 0x%04X SubVendor ID 0x%04X",
      deviceId, vendorId, subDeviceId, subVendorId);
  const CCriticalSectionLock lock(m_PciConfigList.Lock());
  for (const auto& [address, entry] : m_PciConfigList) {
    const CPciCommonConfigHeader& header = entry.header;
    TRACE(4, "\nCPciConfigList      : Found PCI slot data for Vendor Id 0x%04X  SubVendor Id: 0x%04X",
          header.VendorId(), header.SubsystemVendorId());
    TRACE(4, "\nCPciConfigList      : Found PCI slot data for Device Id 0x%04X  SubDevice Id: 0x%04X",
          header.DeviceId(), header.SubsystemId());
    if (header.VendorId() != vendorId || header.DeviceId() != deviceId || !IdFits(subDeviceId, header.SubsystemId()) ||
        !IdFits(subVendorId, header.SubsystemVendorId())) {
      continue;
    }
    data = entry;
    return true;
  }
  return false;
}

unsigned int CSystemDeviceScan::GetNumberPciBusses() {
  const size_t count = CountSlotData(m_PciConfigList);
  if (count == 0) {
    TRACE(3, "\nCSystemDeviceScan   : %d PCI busses found", 0);
    return 0;
  }
  TRACE(3, "\nCSystemDeviceScan   : %d PCI bus devices found", static_cast<int>(count));
  int number = 0;
  int highest = 0;
  CPciAddress position;
  for (CPciSlotData data; GetNextSlotData(m_PciConfigList, position, data);) {
    const int bus = position.bus;
    ++number;
    TRACE(3, "\nCSystemDeviceScan   : Check device %02d at bus no %d", number, bus);
    if (bus <= highest) continue;
    highest = bus;
    TRACE(3, "\nCSystemDeviceScan   : Found higher PCI bus no %d", bus);
  }
  TRACE(3, "\nCSystemDeviceScan   : %d PCI busses found", highest + 1);
  return static_cast<unsigned int>(highest) + 1;
}
