#pragma once

#include "inventory/system_volume.h"
#include "ravctl/answer/json.h"
#include "ravctl/hardware/block_devices.h"

namespace ravctl {

// The drives as JSON objects, as ravctl schema inventory describes them: those that the library finds in its order,
// NVMe drives by name, then the block devices that are drives and that it does not look for, such as those of virtual
// machines. What the library does not tell comes from sysfs and udev's database; the key sources says where each value
// is from.
Json ReadDriveRecords(const BlockDevices& blocks);

// The volume, with the devices and the drives that it lies on.
Json MakeVolumeRecord(const CSystemVolume& volume, const Json& drives, const BlockDevices& blocks);

}  // namespace ravctl
