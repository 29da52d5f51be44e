#pragma once

#include <map>
#include <string>
#include <utility>

#include "firmware/device_io.h"
#include "pci/pci_address.h"

// A device that gives access to a bus. Belongs to one thread. Closes its descriptor when it is destroyed open.
class CDeviceBusIoBase : public CDeviceIo {
 public:
  explicit CDeviceBusIoBase(std::string deviceName) : CDeviceIo(std::move(deviceName)) {}
  ~CDeviceBusIoBase() override;

 protected:
  bool m_IsOpen = false;  // set by whoever opened the device
};

// Access to the configuration space of PCI functions through the kernel's files below /proc/bus/pci.
//
// Belongs to one thread. The list of functions is read on first use and kept for the object's lifetime; a new object
// sees functions that came later. Failures show in the results and in the trace.
class CDeviceBusIo : public CDeviceBusIoBase {
 public:
  using NameList = std::map<CPciAddress, std::string>;  // path of each function's configuration file

  CDeviceBusIo();
  ~CDeviceBusIo() override;

  // Adds the path of every function's configuration file. Bus directories are named "00" (segment 0) or "0000:00",
  // functions "1f.0"; whatever is named otherwise is no function. False when /proc/bus/pci cannot be listed, true even
  // when no function was found.
  static bool BuildPciDeviceNameList(NameList& names);

  // Reads exactly `length` bytes at `offset`. False for a length of 0, a null buffer, a function that the kernel does
  // not show, and when fewer bytes can be read; the buffer may hold those then.
  bool GetPciConfigSpace(unsigned segment, unsigned bus, unsigned device, unsigned function, unsigned offset,
                         unsigned& length, unsigned char* buffer);

  // The functions in address order; empty until the first GetPciConfigSpace.
  const NameList& Names() const { return m_DeviceNameList; }

 private:
  NameList m_DeviceNameList;
  bool m_NameListBuilt = false;
};
