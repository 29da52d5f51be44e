#pragma once

#include <string>
#include <string_view>

#include "inventory/scsi_address.h"

// One device of the kernel's list. The texts keep their trailing blanks and are cut where their line ends early.
struct CScsiListDevice {
  std::string address;       // "256:0:1:0": host, channel, id and lun, as sysfs names the device
  unsigned int host = 0;     // its number, the first part of the address
  CScsiAddress scsiAddress;  // the parts as far as they fit there
  std::string vendor;        // 8 characters
  std::string model;         // 16 characters
  std::string revision;      // 4 characters
  std::string type;          // 32 characters, "Direct-Access    ..."
};

// Walks the text of /proc/scsi/scsi. Pure but for its traces; lines are taken in pieces of at most 128 bytes.
class CScsiDeviceList {
 public:
  static constexpr const char* kPath = "/proc/scsi/scsi";

  // The text is borrowed and must outlive the walk.
  explicit CScsiDeviceList(std::string_view text) : m_Rest(text) {}

  // The next device. A host line that does not parse is traced at level 2 and passed over. False at the end of the
  // text, also when it ends before the two lines that belong to a host line.
  bool Next(CScsiListDevice& device);

 private:
  bool NextLine(std::string& line);

  std::string_view m_Rest;
};
