#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "firmware/data_stream.h"
#include "inventory/adapter_resources.h"
#include "inventory/system_device.h"
#include "pci/pci_config_list.h"
#include "platform/export.h"

struct ethtool_drvinfo;
class PciDriverTable;

// Inventory record of one adapter: a PCI function but for bridges, or an ISA Plug-and-Play device.
//
// A value, used by one thread at a time. Copies are whole, the device ID duplicated, except that neither a new copy nor
// an assigned record knows a WWN yet: the one that it knew would be that of another adapter.
// The record itself tells the identity: device ID "PCI\VEN_8086&DEV_10d3&SUBSYS_00001234&REV_02" (the last four digits
// of SUBSYS are the subsystem ID; the subsystem vendor is not part of it), class name, driver, interface, and a device
// name "eth0 0000:02:00.0" that begins with the interface, else the driver, else nothing before the blank. The queries
// below read the kernel's files when they are asked. Failures give false and leave outputs as they were, unless it says
// otherwise; nothing throws but std::bad_alloc.
class RAVD_EXPORT CSystemAdapter : public CSystemDevice {
 public:
  // No adapter: every text empty, the PCI address invalid.
  CSystemAdapter() = default;
  // Copies as the class describes:
  CSystemAdapter(const CSystemAdapter& other) = default;
  CSystemAdapter& operator=(const CSystemAdapter& other) = default;
  // Frees what the record owns.
  ~CSystemAdapter() override;

  // The scans use the process-wide bus tables, so one thread at a time. The flags are not used.
  // Appends the ISA devices, then the functions of the list in address order; true. A driver that is not known is
  // "<unknown>", an interface "ethx".
  static bool ScanSystemAdapters(std::vector<CSystemAdapter>& adapters, const CPciConfigList& list, bool unused);
  // The same with a list of its own.
  static bool ScanPciSystemAdapters(std::vector<CSystemAdapter>& adapters, bool unused);
  // Replaces what the vector holds by the network adapters and traces each of them; true when there is one.
  static bool ScanSystemNetAdapters(std::vector<CSystemAdapter>& adapters, bool unused);

  // Resources of a PCI function, counted from 0; an adapter without a PCI header has none. A walk over the base address
  // registers ends at the first that is 0, and takes two of them for host bridges, else six.
  // The upper half of a 64-bit register is skipped: it is no register of its own.
  bool GetIoResource(_SystemAdapterIoDescriptor& descriptor, int index) const;
  // The upper half of a 64-bit address is not used. False when /proc/iomem does not know the range.
  bool GetMemoryResource(_SystemAdapterMemoryDescriptor& descriptor, int index) const;
  // Index 0 only, when the function has an interrupt pin and a routed line.
  bool GetIrqResource(_SystemAdapterIrqDescriptor& descriptor, int index) const;
  // Line `index` of /proc/dma, when the device ID contains the name that the line gives to the channel.
  bool GetDmaResource(_SystemAdapterDmaDescriptor& descriptor, unsigned int index) const;
  // Append the start of every resource up to the first that cannot be told; true when there was one:
  bool GetIoAddresses(std::vector<CPhysicalAddress>& addresses) const;
  bool GetMemoryAddresses(std::vector<CPhysicalAddress>& addresses) const;

  // World wide name of the port of a Fibre Channel controller from sysfs. Once found it is kept and answered from the
  // record.
  bool GetNodeWWN(CWWN& wwn);
  // Driver, version and firmware of a network adapter as the kernel's driver tells them. The structure is zero when
  // this fails, whatever the reason, but for a null pointer.
  bool GetNetworkDrvInfo(ethtool_drvinfo* info) const;

  // Reads the three names of the adapter name file for that slot data; a name that is not found becomes "". Without the
  // file, or for an invalid address, the names stay as they were.
  void ScanPciNames(const CPciSlotData& slot);
  // Traces the record at that level; nothing while tracing is off. The first time it reads the names.
  static void Dump(int level, CSystemAdapter& adapter);

  // Borrowed from the record, as all that follows. Address invalid, header zero and slot -1 for an ISA device:
  const CPciSlotData& GetSlotData() const { return m_SlotData; }
  const CPciAddress& GetPciAddress() const { return m_SlotData.address; }
  // The names that ScanPciNames read; "" before:
  const std::string& GetFileVendorName() const { return m_FileVendorName; }
  const std::string& GetFileSubVendorName() const { return m_FileSubVendorName; }
  const std::string& GetFileDeviceName() const { return m_FileDeviceName; }
  // Network adapters: six bytes, zero when the function has no interface. Others: empty.
  const CDataStream& GetMacAddress() const { return m_MacAddress; }
  // Network adapters: six bytes, or empty when the driver does not tell them.
  const CDataStream& GetPermanentMacAddress() const { return m_PermanentMacAddress; }

 private:
  // A WWN that copies do not take along.
  class CachedWwn {
   public:
    CachedWwn() = default;
    CachedWwn(const CachedWwn&) {}
    CachedWwn& operator=(const CachedWwn&) {  // NOLINT(bugprone-unhandled-self-assignment)
      value = {};
      return *this;
    }

    CWWN value;
  };

  static CSystemAdapter MakeIsaAdapter(const CSystemDevice& device);
  static CSystemAdapter MakePciAdapter(const CPciSlotData& slot, PciDriverTable& drivers);
  void SetNetworkInterface();
  bool ReadNodeWwn(const std::string& address);
  const std::string& GetShownVendorName() const;

  CPciSlotData m_SlotData;
  std::string m_FileVendorName;
  std::string m_FileSubVendorName;
  std::string m_FileDeviceName;
  CDataStream m_CarriedBytes;  // no meaning to the inventory, as are the three fields below
  CDataStream m_MacAddress;
  CDataStream m_PermanentMacAddress;
  uint8_t m_CarriedByte1 = 0xFF;
  uint8_t m_CarriedByte2 = 0;
  bool m_NamesRead = false;
  CachedWwn m_NodeWwn;
  bool m_CarriedFlag = false;
};
