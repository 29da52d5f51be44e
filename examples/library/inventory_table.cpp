// The adapters, drives and volumes of this machine as a table. As root it sees serial numbers and slots, too.

#include <cstdio>

#include "inventory/system_device_scan.h"

int main() {
  CSystemDeviceScan scan;
  const int parts = CSystemDeviceScan::SCAN_ADAPTERS | CSystemDeviceScan::SCAN_DRIVES | CSystemDeviceScan::SCAN_VOLUMES;
  if (scan.ScanDevices(parts, false, 60'000) != 0) {
    std::fprintf(stderr, "the scan did not end in a minute\n");
    return 1;
  }
  CSystemAdapter adapter;
  for (int index = 0; scan.GetAdapter(adapter, index); ++index) {
    const CPciAddress& address = adapter.GetPciAddress();
    if (!address.IsValid()) continue;  // a device of the board without PCI
    std::printf("adapter  %04x:%02x:%02x.%x  slot %-3d %-12s %s\n", address.segment, address.bus, address.device,
                address.function, adapter.GetSlotData().slot, adapter.ClassName.c_str(), adapter.DriverName.c_str());
    CSystemDriveList drives;
    scan.GetHostDrives(drives, adapter);
    for (const CSystemDrive& drive : drives)
      std::printf("  drive  %-12s %s %s\n", drive.OsDeviceName.c_str(), drive.GetVendorName().c_str(),
                  drive.DeviceName.c_str());
  }
  CSystemVolume volume;
  for (int index = 0; scan.GetVolume(volume, index); ++index)
    std::printf("volume   %-30s %10llu KiB, %u %% used\n", volume.MountPoint.c_str(),
                static_cast<unsigned long long>(volume.Size), volume.UsedPercent);
}
