#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pci/pci_address.h"

// What sysfs tells about a drive by directories and symbolic links: its name in the operating system and the PCI
// address of its host adapter. Stateless; failures are traced by the helpers and give false with the output unchanged.
// Addresses are texts as in CScsiListDevice.

// Name of the device node below /dev: the block device (both the layout of today and the one of older kernels), else
// the generic device; for a tape the non-rewinding device.
//   "0:0:0:0" => "sda"    "1:0:3:0" with tape => "nst0"    "2:0:0:0", no block device => "sg2"
bool GetScsiDriveOSName(std::string& name, const std::string& address, bool tape);
bool GetScsiTapeDriveOSName(std::string& name, const std::string& address);
// The first generic device whose link ends in the address.
bool GetScsiDriveGenericName(std::string& name, const std::string& address);

// Whether the device belongs to the "mpdx" multipath driver.
bool SetMpdDrive(const std::string& address);

// PCI address of the host adapter of a SCSI device (scsi, name is its address) or of a block device. That of a
// multipath device is taken from its first path.
bool GetDrivePciAddress(CPciAddress& pci, const std::string& name, bool multipath, bool scsi);
// The same for the link target of a multipath device.
bool GetMpdDrivePciAddress(CPciAddress& pci, const std::string& linkTarget);

// The PCI addresses of a path from left to right, four hexadecimal digits of segment each: an address of a longer
// segment is none. The last one is the nearest to the device. One whose function is not decimal is there as invalid.
//   "../devices/pci0000:00/0000:00:1d.0/0000:02:00.0/nvme/nvme0" => 0000:00:1d.0 and 0000:02:00.0
//   "../devices/pci10000:e0/10000:e1:00.0/nvme/nvme1" => none
std::vector<CPciAddress> FindPciAddresses(std::string_view path);

// By position: segment, bus and device are hexadecimal, the function is decimal. "0001:5e:00.1" => segment 1, bus 0x5E,
// device 0, function 1; what stands between and behind them does not matter.
bool ReadPciAddressByPosition(CPciAddress& pci, std::string_view text);
