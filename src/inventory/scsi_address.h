#pragma once

#include <cstdint>

// Address of a device on a SCSI host, as /proc/scsi/scsi gives it, cut to the sizes of the fields.
struct CScsiAddress {
  static constexpr uint64_t kLength = 16;  // the length of an address that is set

  uint64_t length = 0;  // 0: no address
  uint8_t port = 0;     // number of the SCSI host
  uint8_t path = 0;     // channel
  uint8_t target = 0;   // number of the device
  uint32_t lun = 0;     // logical unit of the device
};
