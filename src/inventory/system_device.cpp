#include "inventory/system_device.h"

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
