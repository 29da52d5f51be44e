#pragma once

#include "inventory/system_device_scan.h"
#include "ravctl/answer/json.h"

namespace ravctl {

// The adapters of the scan as JSON objects in its order, as ravctl schema inventory describes them, and behind them the
// functions of segments that the library has no number for. What sysfs tells goes before what the library says.
//
// ISA devices come first: those that the library's table knows by their names in the kernel's files as one record a
// kind; the others bear is_known false.
Json MakeAdapterRecords(CSystemDeviceScan& scan);

}  // namespace ravctl
