#pragma once

#include <map>
#include <string>

#include "inventory/pnp_device.h"
#include "platform/export.h"

// The inventory record that adapters and drives have in common. Texts that a scanner cannot find stay empty.
//
// A value like its base: copying an object copies every field, the device ID as a duplicate. The destructor is the only
// virtual operation. No lock: the holder of the record decides who reads and writes it.
class RAVD_EXPORT CSystemDevice : public CPnpDevice {
 public:
  // Every text empty.
  CSystemDevice() = default;
  // Every field of this class and of the base:
  CSystemDevice(const CSystemDevice& other) = default;
  CSystemDevice& operator=(const CSystemDevice& other) = default;
  // Frees what the record owns.
  virtual ~CSystemDevice();

  // Copies the fields of this class, VendorName to Properties, and leaves the base alone: class GUID, class name and
  // device ID stay what they were.
  void ClassCopy(const CSystemDevice& other);

  // Adds a record of every ISA device of the legacy bus tables to the map, under its device ID, "ISAPNP\\" and the PnP
  // ID of the device; one that the map has under that ID gets the new fields. The first call in the process builds the
  // tables. Returns the size of the map. One thread at a time, since the tables are shared by the whole process.
  static int ScanDeviceData(std::map<std::string, CSystemDevice>& devices, bool unused);

  std::string VendorName;                         // drives and ISA devices
  std::string DeviceRevision;                     // drives
  std::string SerialNumber;                       // drives
  std::string DeviceName;                         // what is shown to people
  std::string CarriedText;                        // without a meaning to the inventory, carried along by copies
  std::string ObjectName;                         // filled by no scanner
  std::string DriverName;                         // bound kernel driver (adapters)
  std::string InterfaceName;                      // of the operating system (network adapters)
  std::string OsDeviceName;                       // of the operating system (drives)
  std::map<std::string, std::string> Properties;  // more texts by their names; filled by no scanner
};
