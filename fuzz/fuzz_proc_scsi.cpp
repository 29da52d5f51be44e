// The kernel's list of SCSI devices, and the PCI addresses that are cut out of link targets.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "inventory/drive_links.h"
#include "inventory/scsi_device_list.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  CScsiDeviceList list(text);
  size_t count = 0;
  for (CScsiListDevice device; list.Next(device); ++count) {
    Check(device.vendor.size() <= 8 && device.model.size() <= 16 && device.revision.size() <= 4);
    Check(device.type.size() <= 32 && device.scsiAddress.length == CScsiAddress::kLength);
    Check(device.address.starts_with(std::to_string(device.host) + ":") && device.address.size() <= 53);
  }
  Check(count <= size / std::string_view("Host:").size());
  Check(FindPciAddresses(text).size() <= size / std::string_view("0000:00:00.0").size());
  return 0;
}
