#pragma once

#include <string>

// Identification of a drive by SCSI inquiry, with failures as results: false and the output as it was. A serial number
// that the device gives but that is not valid counts as "". The path is that of the device node.

bool GetDriveSerialNoInq(std::string& serialNo, const std::string& devicePath, bool clusterFallback);
bool GetDriveVendorInq(std::string& vendor, const std::string& devicePath);
bool GetDriveProductNameInq(std::string& productName, const std::string& devicePath);
