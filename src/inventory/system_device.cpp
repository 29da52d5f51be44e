#include "inventory/system_device.h"

#include <string_view>

#include "inventory/adapter_classes.h"
#include "inventory/pci_list_walk.h"
#include "pci/bus_scan.h"
#include "trace/debug.h"

namespace {

constexpr const char* kIsaEnumerator = "ISAPNP\\";
constexpr std::string_view kUnknownDevice = "Unknown Device";

bool IsKnownIsaDevice(const BusFunction& function) {
  return function.busType == kBusTypeIsa && function.deviceName.Text() != kUnknownDevice;
}

CSystemDevice MakeIsaDevice(const BusFunction& function) {
  CSystemDevice device;
  device.SetDeviceId((std::string(kIsaEnumerator) + function.pnpId.Text()).c_str());
  device.ClassName = FindIsaClassName(function.type);
  device.DeviceName = function.deviceName.Text();
  device.VendorName = function.vendorName.Text();
  return device;
}

}  // namespace

CSystemDevice::~CSystemDevice() = default;

void CSystemDevice::ClassCopy(const CSystemDevice& other) {
  VendorName = other.VendorName;
  DeviceRevision = other.DeviceRevision;
  SerialNumber = other.SerialNumber;
  DeviceName = other.DeviceName;
  CarriedText = other.CarriedText;
  ObjectName = other.ObjectName;
  DriverName = other.DriverName;
  InterfaceName = other.InterfaceName;
  OsDeviceName = other.OsDeviceName;
  Properties = other.Properties;
}

int CSystemDevice::ScanDeviceData(std::map<std::string, CSystemDevice>& devices, bool /*unused*/) {
  TRACE(3, "\nCSystemDevice       : -> ScanDeviceData");
  const CCriticalSectionLock lock(DeviceTablesLock());
  for (const BusTableEntry* entry = BusGetNextTableEntry(0); entry != nullptr; entry = BusGetNextTableEntry(1)) {
    if (!IsKnownIsaDevice(entry->function)) continue;
    const CSystemDevice device = MakeIsaDevice(entry->function);
    devices.insert_or_assign(device.DeviceIdText(), device);
  }
  TRACE(3, "\nCSystemDevice       : <- ScanDeviceData");
  return static_cast<int>(devices.size());
}
