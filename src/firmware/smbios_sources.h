#pragma once

#include "firmware/data_stream.h"

// Where the operating system hands out the machine's SMBIOS data: the entry point (header) and the structure table
// (data), as raw bytes. CSMBios interprets them, and knows the one further source, the legacy BIOS area.
//
// Stateless and independent of each other. A source that the machine does not have ends in false and a trace line;
// nothing is thrown. Outputs are written on success only, except where said.
class CBiosTables {
 public:
  // The first of the sources below that delivers; both streams are then non-empty.
  static bool GetSmbiosData(CDataStream& header, CDataStream& data);

  // The kernel's export, which hands out the files whole, whatever the anchor.
  static bool GetAnySMBiosFromSysfs(CDataStream& header, CDataStream& data);

  // Physical memory, located through the UEFI system table; the 64-bit entry point first.
  static bool GetAnySMBiosFromMemory(CDataStream& header, CDataStream& data);

  // The SMBIOS device of a VMware ESX host. The header may be filled before a failure. Data is all that the device
  // delivers up to 32 bytes more than the table length; a device that ends within its own entry point, or that has no
  // byte behind it, fails.
  static bool GetBiosTableESX(CDataStream& header, CDataStream& data);
};
