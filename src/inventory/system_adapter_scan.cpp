// The scanners of CSystemAdapter.

#include <cstdio>
#include <exception>

#include "inventory/adapter_classes.h"
#include "inventory/adapter_driver.h"
#include "inventory/adapter_mac.h"
#include "inventory/pci_list_walk.h"
#include "inventory/system_adapter.h"
#include "trace/debug.h"

namespace {

constexpr size_t kMaxName = 127;  // drivers and interfaces
constexpr const char* kIsaEnumerator = "ISAPNP";
constexpr const char* kUnknownDriver = "<unknown>";
constexpr const char* kUnknownInterface = "ethx";
constexpr const char* kNetworkClass = "net";

bool IsAdapter(const CPciCommonConfigHeader& header) {
  return header.IsPresent() && !header.IsBridge();
}

std::string PciDeviceId(const CPciCommonConfigHeader& header) {
  char text[64] = {};
  std::snprintf(text, sizeof text, "PCI\\VEN_%04x&DEV_%04x&SUBSYS_%08x&REV_%02x", header.VendorId(), header.DeviceId(),
                header.SubsystemId(), header.Revision());
  return text;
}

std::string PciDeviceName(const std::string& prefix, const CPciAddress& address) {
  char text[40] = {};
  std::snprintf(text, sizeof text, " %04x:%02x:%02x.%d", address.segment, address.bus, address.device,
                address.function);
  return prefix + text;
}

}  // namespace

CSystemAdapter CSystemAdapter::MakeIsaAdapter(const CSystemDevice& device) {
  CSystemAdapter adapter;
  adapter.SetDeviceId(device.DeviceId.get());
  adapter.ClassName = device.ClassName;
  adapter.DeviceName = device.DeviceName;
  TRACE(3, "\nCSystemAdapter      : Adding ISA adapter \"%s\" (Class: %s, DeviceName: %s)", adapter.DeviceIdText(),
        adapter.ClassName.c_str(), adapter.DeviceName.c_str());
  return adapter;
}

void CSystemAdapter::SetNetworkInterface() {
  const CPciAddress& address = m_SlotData.address;
  MacAddress mac = {};
  if (!FindNetInterface(address.segment, address.bus, address.device, address.function, InterfaceName, mac)) {
    InterfaceName = kUnknownInterface;
  }
  InterfaceName.resize(std::min(InterfaceName.size(), kMaxName));
  m_MacAddress = CDataStream(mac.data(), mac.size());
  if (!GetHardwareMacInformation(InterfaceName, m_PermanentMacAddress)) {
    TRACE(2, "\nCSystemAdapter::ScanSystemAdapters() : WARN # Could not find HW Mac address.");
  }
}

CSystemAdapter CSystemAdapter::MakePciAdapter(const CPciSlotData& slot, PciDriverTable& drivers) {
  const CPciAddress& address = slot.address;
  const AdapterClass found = FindAdapterClass(slot.header.BaseClass(), slot.header.SubClass(), slot.header.VendorId());
  CSystemAdapter adapter;
  adapter.m_SlotData = slot;
  adapter.SetDeviceId(PciDeviceId(slot.header).c_str());
  adapter.ClassName = found.name;
  if (found.hasDriver &&
      !drivers.Find(address.segment, address.bus, address.device, address.function, kMaxName, adapter.DriverName)) {
    adapter.DriverName = kUnknownDriver;
  }
  if (found.hasMac) adapter.SetNetworkInterface();
  adapter.DeviceName = PciDeviceName(found.hasMac ? adapter.InterfaceName : adapter.DriverName, address);
  TRACE(3, "\nCSystemAdapter      : Adding PCI adapter \"%s\" (Class: %s)", adapter.DeviceIdText(),
        adapter.ClassName.c_str());
  return adapter;
}

bool CSystemAdapter::ScanSystemAdapters(std::vector<CSystemAdapter>& adapters, const CPciConfigList& list,
                                        bool /*unused*/) {
  TRACE(5, "\nCSystemAdapter      : -> ScanSystemAdapters");
  std::map<std::string, CSystemDevice> isaDevices;
  const int isaCount = ScanDeviceData(isaDevices, false);
  TRACE(2, "\nCSystemAdapter      : Found %d ISA devices", isaCount);
  for (const auto& [id, device] : isaDevices) {
    if (device.GetEnumerator() == kIsaEnumerator) adapters.push_back(MakeIsaAdapter(device));
  }

  const size_t pciCount = CountSlotData(list);
  TRACE(2, "\nCSystemAdapter      : Found %d PCI devices", static_cast<int>(pciCount));
  adapters.reserve(adapters.size() + pciCount);
  PciDriverTable drivers;
  CPciAddress position;
  for (CPciSlotData slot; GetNextSlotData(list, position, slot);) {
    if (IsAdapter(slot.header)) adapters.push_back(MakePciAdapter(slot, drivers));
  }
  TRACE(5, "\nCSystemAdapter      : <- ScanSystemAdapters");
  return true;
}

bool CSystemAdapter::ScanPciSystemAdapters(std::vector<CSystemAdapter>& adapters, bool /*unused*/) {
  CPciConfigList list;
  ScanPciSlotsQuietly(list);
  return ScanSystemAdapters(adapters, list, false);
}

bool CSystemAdapter::ScanSystemNetAdapters(std::vector<CSystemAdapter>& adapters, bool /*unused*/) {
  TRACE(5, "\nCSystemAdapter      : -> ScanSystemNetAdapters");
  adapters.clear();
  try {
    std::vector<CSystemAdapter> all;
    ScanPciSystemAdapters(all, false);
    for (const CSystemAdapter& each : all) {
      if (each.DeviceId == nullptr || each.ClassName != kNetworkClass) continue;
      CSystemAdapter& adapter = adapters.emplace_back(each);
      TRACE(5, "\nCSystemAdapter      : ScanSystemNetAdapters Find:");
      TRACE(5, "\nCSystemAdapter      : ******************************************************");
      Dump(1, adapter);
    }
  } catch (const std::exception&) {
    TRACE(1, "\n\nCSystemAdapter      : ERROR! EXCEPTION in ScanSystemNetAdapters()!");
  }
  TRACE(5, "\nCSystemAdapter      : <- ScanSystemNetAdapters");
  return !adapters.empty();
}
