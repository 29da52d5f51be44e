#include "ravctl/hardware/inventory_records.h"

#include <linux/ethtool.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <string_view>

#include "inventory/mount_entry.h"
#include "inventory/system_device_scan.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/error.h"
#include "ravctl/hardware/firmware_slots.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

constexpr unsigned int kTimeoutMs = 60'000;
constexpr std::string_view kDeviceNodes = "/dev/";
constexpr std::string_view kNetworkClass = "net";
constexpr std::string_view kScsiClass = "SCSIAdapter";

// What the scan puts where it finds nothing.
constexpr std::string_view kUnknownDriver = "<unknown>";
constexpr std::string_view kUnknownInterface = "ethx";

constexpr auto kKernelTypes = std::to_array<std::string_view>(
    {"autofs",   "binfmt_misc", "bpf",        "cgroup",     "cgroup2", "configfs",  "debugfs", "devpts",
     "devtmpfs", "efivarfs",    "fusectl",    "hugetlbfs",  "mqueue",  "nsfs",      "nfsd",    "proc",
     "pstore",   "ramfs",       "rpc_pipefs", "securityfs", "selinux", "selinuxfs", "sysfs",   "tracefs"});

// ---- adapters

Json Known(const std::string& text, std::string_view placeholder) {
  return text == placeholder ? Json() : TextOrNull(text);
}

Json Ports(const CSystemAdapter& adapter) {
  Json ports = Json::array();
  int index = 0;
  for (_SystemAdapterIoDescriptor range; adapter.GetIoResource(range, index); ++index)
    ports.push_back("0x" + HexText(range.start, 4));
  return ports;
}

Json Memory(const CSystemAdapter& adapter) {
  Json memory = Json::array();
  int index = 0;
  for (_SystemAdapterMemoryDescriptor range; adapter.GetMemoryResource(range, index); ++index)
    memory.push_back("0x" + HexText(range.start, 8) + "-0x" + HexText(range.end, 8));
  return memory;
}

Json Irq(const CSystemAdapter& adapter) {
  _SystemAdapterIrqDescriptor irq;
  return adapter.GetIrqResource(irq, 0) ? Json(irq.interrupt) : Json();
}

// The texts of the structure may fill their fields to the last byte.
template <size_t kSize>
Json FieldText(const char (&field)[kSize]) {
  return TextOrNull({field, ::strnlen(field, kSize)});
}

void AddNetworkDriver(const CSystemAdapter& adapter, Json& record) {
  ethtool_drvinfo info{};
  const bool isKnown = !record["interface"].is_null() && adapter.GetNetworkDrvInfo(&info);
  record["driver_version"] = isKnown ? FieldText(info.version) : Json();
  record["firmware"] = isKnown ? FieldText(info.fw_version) : Json();
}

void AddIds(const CSystemAdapter& adapter, Json& record) {
  const CPciCommonConfigHeader& header = adapter.GetSlotData().header;
  const bool isPci = adapter.GetPciAddress().IsValid();
  const auto id = [isPci](unsigned int value, int digits) { return isPci ? Json(HexText(value, digits)) : Json(); };
  record["vendor_id"] = id(header.VendorId(), 4);
  record["device_id"] = id(header.DeviceId(), 4);
  record["subvendor_id"] = id(header.SubsystemVendorId(), 4);
  record["subdevice_id"] = id(header.SubsystemId(), 4);
  record["revision"] = id(header.Revision(), 2);
  record["base_class"] = isPci ? Json(CPciCommonConfigHeader::GetPciBaseClassDescription(header)) : Json();
  record["sub_class"] = isPci ? TextOrNull(CPciCommonConfigHeader::GetPciSubClassDescription(header)) : Json();
}

Json AdapterRecord(CSystemAdapter& adapter, const SlotPlaces& slots) {
  const bool isPci = adapter.GetPciAddress().IsValid();
  const PciNames names = isPci ? FindPciNames(adapter.GetSlotData().header) : PciNames{};
  CWWN wwn;
  const bool hasWwn = adapter.ClassName == kScsiClass && adapter.GetNodeWWN(wwn);
  const auto slot = isPci ? slots.Find(PciPlace::Of(adapter.GetPciAddress())) : std::nullopt;
  Json record = {{"address", AddressText(adapter.GetPciAddress())},
                 {"class", TextOrNull(adapter.ClassName)},
                 {"name", TextOrNull(adapter.DeviceName)},
                 {"vendor", names.vendor},
                 {"product", names.product},
                 {"driver", Known(adapter.DriverName, kUnknownDriver)},
                 {"interface", Known(adapter.InterfaceName, kUnknownInterface)},
                 {"mac", BytesText(adapter.GetMacAddress().Bytes())},
                 {"permanent_mac", BytesText(adapter.GetPermanentMacAddress().Bytes())},
                 {"wwn", hasWwn ? BytesText(wwn.bytes) : Json()},
                 {"slot", slot ? Json(slot->slot->number) : Json()},
                 {"id", TextOrNull(adapter.DeviceIdText())}};
  AddIds(adapter, record);
  AddNetworkDriver(adapter, record);
  record["irq"] = Irq(adapter);
  record["ports"] = Ports(adapter);
  record["memory"] = Memory(adapter);
  return record;
}

Json ReadAdapters(CSystemDeviceScan& scan) {
  CPciConfigList list;
  scan.GetPciSlotConfig(list);
  const PciFunctions functions(list);
  const std::vector<FirmwareSlot> slots = ReadFirmwareSlots();
  const SlotPlaces places(slots, functions);
  Json records = Json::array();
  CSystemAdapter adapter;
  for (int index = 0; scan.GetAdapter(adapter, index); ++index)
    records.push_back(AdapterRecord(adapter, places));
  return records;
}

// ---- drives

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

Json DriveRecord(const CSystemDrive& drive) {
  const std::string& object = drive.GetFunctionalDeviceObjectName();
  const auto bus = static_cast<_DriveBusType>(drive.GetBusType());
  return {{"device", object.empty() ? Json() : Json(std::string(kDeviceNodes) + object)},
          {"type", DriveType(drive)},
          {"bus", bus == kBusTypeUnknown ? Json() : Json(StorageBusTypeToString(bus))},
          {"vendor", TextOrNull(drive.GetVendorName())},
          {"name", TextOrNull(drive.DeviceName)},
          {"revision", TextOrNull(drive.DeviceRevision)},
          {"serial", TextOrNull(drive.SerialNumber)},
          {"adapter", AddressText(drive.GetPciAddress())},
          {"scsi", TextOrNull(drive.GetScsiAddressText())},
          {"number", drive.GetDriveNo()},
          {"os_device", TextOrNull(drive.OsDeviceName)},
          {"id", TextOrNull(drive.DeviceIdText())},
          {"is_disk", drive.IsDiskDrive()},
          {"is_removable", drive.IsMediaRemoveable()},
          {"is_hotplug", drive.IsHotplugDevice()},
          {"is_multipath", drive.IsMpdDrive()}};
}

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

Json DriveOf(const CSystemVolume& volume, const Json& drives) {
  for (const Json& drive : drives) {
    const Json& device = drive["device"];
    if (device.is_string() && LiesOn(volume.Device, device.get_ref<const std::string&>())) return device;
  }
  return nullptr;
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

Json VolumeRecord(const CSystemVolume& volume, const Json& drives) {
  const bool hasSize = volume.Size != 0;  // the kernel was asked and told one
  const auto sized = [hasSize](uint64_t value) { return hasSize ? Json(value) : Json(); };
  return {{"mount_point", volume.MountPoint},
          {"device", TextOrNull(volume.Device)},
          {"type", TextOrNull(volume.Type)},
          {"kind", VolumeKind(volume.VolumeType)},
          {"drive", DriveOf(volume, drives)},
          {"size_kb", sized(volume.Size)},
          {"available_kb", sized(volume.Available)},
          {"used_percent", sized(volume.UsedPercent)},
          {"blocks", sized(volume.Blocks)},
          {"available_blocks", sized(volume.AvailableBlocks)},
          {"block_size", sized(uint64_t{volume.BlockSize} * 512)},
          {"type_flags", volume.TypeFlags},
          {"source", volume.Source == kVmfsList ? "vmfs" : "mounted"}};
}

}  // namespace

InventoryRecords ReadInventory(unsigned int parts) {
  const int flags = ((parts & kAdapterRecords) != 0 ? CSystemDeviceScan::SCAN_ADAPTERS : 0) |
                    ((parts & kVolumeRecords) != 0 ? CSystemDeviceScan::SCAN_VOLUMES : 0);
  CSystemDeviceScan scan;
  if (flags != 0 && scan.ScanHardware(flags, false, kTimeoutMs, nullptr) != 0) {
    throw CommandError(ExitCode::kInternal, "the scan of the hardware failed", "", "look at its trace");
  }
  InventoryRecords records;
  if ((parts & kAdapterRecords) != 0) records.adapters = ReadAdapters(scan);
  // The queries of the scan give the drives of adapters alone; others have none.
  std::vector<CSystemDrive> drives;
  if ((parts & (kDriveRecords | kVolumeRecords)) != 0) CSystemDrive::ScanSystemDrives(drives, false, false);
  for (const CSystemDrive& drive : drives)
    records.drives.push_back(DriveRecord(drive));
  CSystemVolume volume;
  for (int index = 0; scan.GetVolume(volume, index); ++index)
    records.volumes.push_back(VolumeRecord(volume, records.drives));
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
