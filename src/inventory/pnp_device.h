#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/export.h"

// Identifier of a device class: three little-endian groups, then eight single bytes.
struct RAVD_EXPORT CGuid {
  uint32_t data1 = 0;                 // first group
  uint16_t data2 = 0;                 // second group
  uint16_t data3 = 0;                 // third group
  std::array<uint8_t, 8> data4 = {};  // the two groups behind it

  // Upper case: "4D36E97B-E325-11CE-BFC1-08002BE10318".
  std::string ToString() const;
  // The same identifier.
  bool operator==(const CGuid&) const = default;
};
static_assert(sizeof(CGuid) == 16);

// What every inventory record says about the class and the identity of its device.
//
// A plain value without virtual operations and without a lock: a record belongs to one thread at a time. It owns its
// device ID; a copy gets a duplicate of its own, so either side may change or go without the other noticing.
class RAVD_EXPORT CPnpDevice {
 public:
  // Every text empty, the device ID unset.
  CPnpDevice() = default;
  // Every field, the device ID as a duplicate. May throw std::bad_alloc:
  CPnpDevice(const CPnpDevice& other);
  CPnpDevice& operator=(const CPnpDevice& other);
  // Frees what the record owns.
  ~CPnpDevice() = default;

  // Stores a copy of the text; null unsets the ID. The text may be the record's own ID.
  void SetDeviceId(const char* deviceId);
  // Never null: "" when unset. Valid until the ID changes or the record goes.
  const char* DeviceIdText() const { return DeviceId ? DeviceId.get() : ""; }
  // The device ID up to its first backslash, the whole ID when it has none: "SCSI\DISK-..." => "SCSI".
  std::string GetEnumerator() const;

  CGuid ClassGuid;                   // all zero when unknown
  std::string ClassName;             // "SCSIAdapter", "net", ...
  std::string CarriedText1;          // without a meaning to the inventory: no scanner fills it, copies carry it along
  std::string CarriedText2;          // the same
  std::unique_ptr<char[]> DeviceId;  // NUL-terminated; null when unset
};
