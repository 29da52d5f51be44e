#include "ravctl/hardware/drive_records.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <string_view>

#include "inventory/mount_entry.h"
#include "inventory/system_drive.h"
#include "ravctl/hardware/pci_name_finder.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr std::string_view kDeviceNodes = "/dev/";
constexpr std::string_view kNvme = "nvme";

const char* DriveType(const CSystemDrive& drive) {
  switch (drive.GetDeviceType()) {
    case 0x00:
      return "disk";
    case 0x05:
      return "cdrom";
    case 0x07:
      return "optical";
    default:  // tapes have no type of their own in the record, but their device
      return drive.GetFunctionalDeviceObjectName().starts_with("nst") ? "tape" : "other";
  }
}

Json LibraryRecord(const CSystemDrive& drive) {
  const std::string& object = drive.GetFunctionalDeviceObjectName();
  const auto bus = static_cast<_DriveBusType>(drive.GetBusType());
  Json record = {{"device", object.empty() ? Json() : Json(std::string(kDeviceNodes) + object)},
                 {"type", DriveType(drive)},
                 {"bus", bus == kBusTypeUnknown ? Json() : Json(StorageBusTypeToString(bus))},
                 {"vendor", TextOrNull(drive.GetVendorName())},
                 {"name", TextOrNull(drive.DeviceName)},
                 {"revision", TextOrNull(drive.DeviceRevision)},
                 {"serial", TextOrNull(drive.SerialNumber)},
                 {"size_kb", nullptr},
                 {"adapter", AddressText(drive.GetPciAddress())},
                 {"scsi", TextOrNull(drive.GetScsiAddressText())},
                 {"number", drive.GetDriveNo()},
                 {"os_device", TextOrNull(drive.OsDeviceName)},
                 {"id", TextOrNull(drive.DeviceIdText())},
                 {"is_disk", drive.IsDiskDrive()},
                 {"is_removable", drive.IsMediaRemoveable()},
                 {"is_hotplug", drive.IsHotplugDevice()},
                 {"is_multipath", drive.IsMpdDrive()},
                 {"paths", Json::array()},
                 {"partitions", Json::array()},
                 {"sources", Json::object()}};
  for (const char* key : {"bus", "vendor", "name", "revision", "serial", "adapter", "scsi"}) {
    if (!record[key].is_null()) record["sources"][key] = "library";
  }
  return record;
}

// A drive that the library does not look for.
Json NewRecord(const BlockDevice& drive, const DriveDetails& details, size_t number) {
  CSystemDrive blank;
  Json record = LibraryRecord(blank);
  record["device"] = drive.Node();
  record["type"] = details.isCdRom ? "cdrom" : "disk";
  record["number"] = number;
  record["os_device"] = drive.name;
  record["is_disk"] = !details.isCdRom;
  record["is_removable"] = details.isRemovable;
  return record;
}

void Fill(Json& record, const char* key, const Json& value, const char* source) {
  if (!record[key].is_null() || value.is_null()) return;
  record[key] = value;
  record["sources"][key] = source;
}

class DriveList {
 public:
  explicit DriveList(const BlockDevices& blocks) : m_Blocks(blocks) {
    std::vector<CSystemDrive> drives;
    CSystemDrive::ScanSystemDrives(drives, false, false);
    // Those of NVMe, which come last, are found in any order.
    std::ranges::stable_sort(drives, {}, [](const CSystemDrive& drive) {
      const std::string& name = drive.GetFunctionalDeviceObjectName();
      return name.starts_with(kNvme) ? std::pair(name.size(), name) : std::pair(size_t{0}, std::string());
    });
    for (const CSystemDrive& drive : drives)
      AddKnown(drive);
    for (const auto& [name, device] : blocks.All()) {
      if (device.isDrive && !m_Seen.contains(name)) AddNew(device);
    }
  }

  Json TakeRecords() { return std::move(m_Records); }

 private:
  void AddKnown(const CSystemDrive& drive) {
    const std::string& name = drive.GetFunctionalDeviceObjectName();
    const BlockDevice* const block = m_Blocks.Find(name);
    Json record = LibraryRecord(drive);
    m_Seen.insert(name);
    if (IsOtherWay(name)) return;
    if (block != nullptr) {
      const DriveDetails details = ReadDriveDetails(*block);
      if (details.isHidden) return;
      AddDetails(*block, details, record);
    }
    m_Records.push_back(std::move(record));
  }

  void AddNew(const BlockDevice& drive) {
    const DriveDetails details = ReadDriveDetails(drive);
    if (details.isHidden || IsOtherWay(drive.name)) return;
    Json record = NewRecord(drive, details, m_Records.size() + 1);
    AddDetails(drive, details, record);
    m_Records.push_back(std::move(record));
  }

  // The first of several ways stands for the drive.
  bool IsOtherWay(const std::string& name) const {
    const std::vector<std::string> ways = m_Blocks.WaysTo(name);
    return !ways.empty() && ways.front() != name;
  }

  void AddDetails(const BlockDevice& drive, const DriveDetails& details, Json& record) {
    // The kernel's path to the drive is never wrong; the library's address may be cut.
    if (details.adapter && record["adapter"] != details.adapter->Text()) record["adapter"] = nullptr;
    Fill(record, "adapter", details.adapter ? Json(details.adapter->Text()) : Json(), "sysfs");
    for (const auto& [key, text] : {std::pair{"vendor", &details.vendor},
                                    {"name", &details.model},
                                    {"revision", &details.revision},
                                    {"serial", &details.serial}})
      Fill(record, key, TextOrNull(text->value), text->source);
    if (details.pciVendor) Fill(record, "vendor", TextOrNull(m_Names.VendorName(*details.pciVendor)), "pci.ids");
    Fill(record, "bus", TextOrNull(details.bus), "sysfs");
    Fill(record, "scsi", TextOrNull(details.scsi), "sysfs");
    Fill(record, "size_kb", drive.sizeKb ? Json(*drive.sizeKb) : Json(), "sysfs");
    for (const std::string& way : m_Blocks.WaysTo(drive.name)) {
      record["paths"].push_back(m_Blocks.Find(way)->Node());
      record["is_multipath"] = true;
    }
    for (const BlockDevice* const partition : m_Blocks.PartitionsOf(drive.name)) {
      record["partitions"].push_back(
          {{"device", partition->Node()}, {"size_kb", partition->sizeKb ? Json(*partition->sizeKb) : Json()}});
    }
  }

  const BlockDevices& m_Blocks;
  PciNameFinder m_Names;
  std::set<std::string, std::less<>> m_Seen;
  Json m_Records = Json::array();
};

// ---- volumes

bool IsDigit(char letter) {
  return std::isdigit(static_cast<unsigned char>(letter)) != 0;
}

// "/dev/sda", "/dev/sda12" or "/dev/nvme0n1p3" for the drive in front of the partition number.
bool LiesOn(std::string_view device, std::string_view drive) {
  if (!device.starts_with(drive)) return false;
  std::string_view rest = device.substr(drive.size());
  if (rest.empty()) return true;
  if (IsDigit(drive.back())) {
    if (rest.front() != 'p') return false;
    rest.remove_prefix(1);
  }
  return !rest.empty() && std::ranges::all_of(rest, IsDigit);
}

bool IsDrive(const Json& drives, const std::string& node) {
  return std::ranges::any_of(drives, [&node](const Json& drive) { return drive["device"] == node; });
}

void AddPlace(Json& record, const std::string& device, const std::string& drive) {
  record["on"].push_back(device);
  Json& known = record["drives"];
  if (std::find(known.begin(), known.end(), drive) == known.end()) known.push_back(drive);
}

// By sysfs, and by the name of the device where that does not show it.
void AddPlaces(const CSystemVolume& volume, const Json& drives, const BlockDevices& blocks, Json& record) {
  const BlockDevice* const device = blocks.FindNode(volume.Device);
  BlockDevices::Foundation foundation;
  if (device != nullptr) foundation = blocks.FoundationOf(*device);
  record["layers"] = foundation.layers;
  for (const BlockDevice* const each : foundation.devices) {
    const BlockDevice* const disk = each->disk.empty() ? each : blocks.Find(each->disk);
    if (disk != nullptr && IsDrive(drives, disk->Node())) AddPlace(record, each->Node(), disk->Node());
  }
  if (!record["drives"].empty() || !foundation.layers.empty()) return;
  for (const Json& drive : drives) {
    const Json& node = drive["device"];
    if (node.is_string() && LiesOn(volume.Device, node.get_ref<const std::string&>()))
      return AddPlace(record, volume.Device, node);
  }
}

const char* VolumeKind(uint32_t type) {
  switch (type) {
    case 1:
      return "fat";
    case 2:
      return "local";
    case 4:
      return "network";
    case 8:
      return "optical";
    case 16:
      return "memory";
    default:
      return "other";
  }
}

}  // namespace

Json ReadDriveRecords(const BlockDevices& blocks) {
  return DriveList(blocks).TakeRecords();
}

Json MakeVolumeRecord(const CSystemVolume& volume, const Json& drives, const BlockDevices& blocks) {
  const bool hasSize = volume.Size != 0;  // the kernel was asked and told one
  const auto sized = [hasSize](uint64_t value) { return hasSize ? Json(value) : Json(); };
  Json record = {{"mount_point", volume.MountPoint},
                 {"device", TextOrNull(volume.Device)},
                 {"type", TextOrNull(volume.Type)},
                 {"kind", VolumeKind(volume.VolumeType)},
                 {"drive", nullptr},
                 {"drives", Json::array()},
                 {"on", Json::array()},
                 {"layers", Json::array()},
                 {"size_kb", sized(volume.Size)},
                 {"available_kb", sized(volume.Available)},
                 {"used_percent", sized(volume.UsedPercent)},
                 {"blocks", sized(volume.Blocks)},
                 {"available_blocks", sized(volume.AvailableBlocks)},
                 {"block_size", sized(uint64_t{volume.BlockSize} * 512)},
                 {"type_flags", volume.TypeFlags},
                 {"source", volume.Source == kVmfsList ? "vmfs" : "mounted"}};
  AddPlaces(volume, drives, blocks, record);
  if (!record["drives"].empty()) record["drive"] = record["drives"][0];
  return record;
}

}  // namespace ravctl
