#pragma once

#include <string>

// Asks a drive for its identification with the SCSI INQUIRY command (SPC-4, 6.6) through SG_IO.
//
// Stateless; any thread may call, and a call blocks for as long as the device takes, 50 seconds at most. Every failure
// of the device, the ioctl or the answer throws CAgtException; no partial result, no descriptor stays open.
class CScsiInquiry {
 public:
  static constexpr unsigned int kTimeoutMs = 50000;  // of every query

  // One INQUIRY: sends the 6-byte cdb and reads up to length bytes into buffer. When the device cannot be opened and
  // clusterFallback is set, the command goes through the diagnostic device of the cluster disk driver; where that
  // driver is not installed this ends in an exception that names both devices.
  void ExecuteScsiInquiry(std::string path, void* buffer, unsigned char length, unsigned char* cdb,
                          bool clusterFallback, unsigned int timeoutMs) const;

  std::string GetScsiDeviceVendorName(const std::string& path) const;
  std::string GetScsiDeviceProductName(const std::string& path) const;
  // "" when the serial number holds anything but letters and digits.
  std::string GetScsiDeviceSerialNo(const std::string& path, bool clusterFallback) const;

  // The text of a field of at most 64 bytes without the white space around it. The text ends at the first NUL; the
  // field needs none. "  LITEON " => "LITEON".
  std::string ScsiFormatString(const unsigned char* field, int length) const;
};

// The same with failures as results: false and the output as it was. A serial number that the device gives but that is
// not valid counts as "". The path is that of the device node.
bool GetDriveSerialNoInq(std::string& serialNo, const std::string& devicePath, bool clusterFallback);
bool GetDriveVendorInq(std::string& vendor, const std::string& devicePath);
bool GetDriveProductNameInq(std::string& productName, const std::string& devicePath);
