#pragma once

#include "ravctl/answer/json.h"
#include "ravctl/answer/output.h"

namespace ravctl {

// The library's inventory as JSON objects in scan order, one a record, as ravctl schema inventory describes them.
struct InventoryRecords {
  Json adapters = Json::array();
  Json drives = Json::array();
  Json volumes = Json::array();
  Json machine = Json::object();  // see machine_records.h

  Json ToJson() const;  // one object with all the lists
};

enum InventoryParts : unsigned int {
  kAdapterRecords = 1,
  kDriveRecords = 2,
  kVolumeRecords = 4,  // the drives that they lie on are scanned as well
  kMachineRecords = 8,
  kAllRecords = 15,
};

// Scans what is asked for; the other lists are empty. The records are linked by name: a drive says the address of its
// adapter, a volume the object name of the drive that it or its partition lies on. Throws CommandError when the scan
// fails.
InventoryRecords ReadInventory(unsigned int parts);

// Whether the kernel made the file system up itself, such as proc.
bool IsKernelVolume(const Json& volume);

// What an ordinary user does not get.
void WarnAboutRights(const InventoryRecords& records, Output& out);

}  // namespace ravctl
