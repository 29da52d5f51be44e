#include "ravctl/hardware/inventory_records.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "inventory/mount_entry.h"
#include "inventory/system_device_scan.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/error.h"
#include "ravctl/hardware/adapter_records.h"
#include "ravctl/hardware/drive_records.h"
#include "ravctl/hardware/machine_records.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr unsigned int kTimeoutMs = 60'000;

constexpr auto kKernelTypes = std::to_array<std::string_view>(
    {"autofs",   "binfmt_misc", "bpf",        "cgroup",     "cgroup2", "configfs",  "debugfs", "devpts",
     "devtmpfs", "efivarfs",    "fusectl",    "hugetlbfs",  "mqueue",  "nsfs",      "nfsd",    "proc",
     "pstore",   "ramfs",       "rpc_pipefs", "securityfs", "selinux", "selinuxfs", "sysfs",   "tracefs"});

}  // namespace

Json InventoryRecords::ToJson() const {
  Json all = {{"adapters", adapters}, {"drives", drives}, {"volumes", volumes}};
  all.update(machine);
  return all;
}

InventoryRecords ReadInventory(unsigned int parts) {
  const int flags = ((parts & kAdapterRecords) != 0 ? CSystemDeviceScan::SCAN_ADAPTERS : 0) |
                    ((parts & kVolumeRecords) != 0 ? CSystemDeviceScan::SCAN_VOLUMES : 0);
  CSystemDeviceScan scan;
  if (flags != 0 && scan.ScanHardware(flags, false, kTimeoutMs, nullptr) != 0) {
    throw CommandError(ExitCode::kInternal, "the scan of the hardware failed", "", "look at its trace");
  }
  InventoryRecords records;
  if ((parts & kAdapterRecords) != 0) records.adapters = MakeAdapterRecords(scan);
  if ((parts & kMachineRecords) != 0) records.machine = ReadMachineRecords();
  if ((parts & (kDriveRecords | kVolumeRecords)) == 0) return records;
  const BlockDevices blocks;
  records.drives = ReadDriveRecords(blocks);
  CSystemVolume volume;
  for (int index = 0; scan.GetVolume(volume, index); ++index)
    records.volumes.push_back(MakeVolumeRecord(volume, records.drives, blocks));
  return records;
}

bool IsKernelVolume(const Json& volume) {
  const auto type = volume.find("type");
  return type != volume.end() && type->is_string() &&
         std::ranges::find(kKernelTypes, type->get_ref<const std::string&>()) != kKernelTypes.end();
}

void WarnAboutRights(const InventoryRecords& records, Output& out) {
  if (!records.adapters.empty()) WarnWithoutSlots(out);
  for (const Json& drive : records.drives) {
    const size_t warnings = out.Warnings();
    if (drive["serial"].is_null() && drive["device"].is_string()) {
      WarnUnreadable(out, "serial numbers of drives are missing", drive["device"].get<std::string>());
    }
    if (out.Warnings() != warnings) return;  // one drive stands for all
  }
}

}  // namespace ravctl
