#pragma once

#include "machine/machine_record.h"

// Looks at the machine through the library, and at what the library does not tell in sysfs. For ravd-machine: a drive
// or a mount that does not answer holds the caller up. One thread; needs root for the firmware's tables. What cannot be
// found out is left out.
//
//   machine  vendor, product, board, bios_version, bios_date
//   slot     slot, designation, width ("x8"), source, address; occupied and conflict (0 or 1). A conflict: two slots of
//            one number, or the firmware calls a slot empty where a function answers, or in use where none does.
//   adapter  address, slot, slot_source, kind, vendor_id, device_id, driver, firmware, lanes
//   dimm     locator, bank, manufacturer, part, type; size in bytes. Empty sockets are no records.
//   drive    device, address, slot, model, vendor, firmware; size in bytes
//   volume   mountpoint, fstype, device, drive, slot; size and available in bytes; answering (0 or 1)
//   scan     seconds that the part took, in the key
// A device that is mounted several times is one volume, that of its shortest mount point.
MachineRecords ScanMachine(bool withSerialNumbers);
MachineRecords ScanVolumes();
