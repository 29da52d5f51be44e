#include "inventory/drive_inquiry.h"

#include "inventory/agt_exception.h"
#include "inventory/scsi_inquiry.h"

namespace {

template <typename Query>
bool StoreAnswer(std::string& output, Query query) {
  try {
    output = query(CScsiInquiry());
    return true;
  } catch (const CAgtException&) {
    return false;
  }
}

}  // namespace

bool GetDriveSerialNoInq(std::string& serialNo, const std::string& devicePath, bool clusterFallback) {
  return StoreAnswer(serialNo, [&](const CScsiInquiry& inquiry) {
    return inquiry.GetScsiDeviceSerialNo(devicePath, clusterFallback);
  });
}

bool GetDriveVendorInq(std::string& vendor, const std::string& devicePath) {
  return StoreAnswer(vendor, [&](const CScsiInquiry& inquiry) { return inquiry.GetScsiDeviceVendorName(devicePath); });
}

bool GetDriveProductNameInq(std::string& productName, const std::string& devicePath) {
  return StoreAnswer(productName,
                     [&](const CScsiInquiry& inquiry) { return inquiry.GetScsiDeviceProductName(devicePath); });
}
