#include "machine/machine_scan.h"

#include <linux/ethtool.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "base/whole_file.h"
#include "inventory/system_adapter.h"
#include "inventory/system_drive.h"
#include "inventory/system_volume.h"
#include "machine/smbios_records.h"
#include "pci/pci_config_list.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kPciDevices = "/sys/bus/pci/devices/";
constexpr const char* kBlock = "/sys/block";
constexpr const char* kClassBlock = "/sys/class/block/";
constexpr uint64_t kSectorSize = 512;  // of the sizes in sysfs

// File systems that hold no data of the machine's own, beside those without any blocks.
constexpr std::array<std::string_view, 6> kNoVolumes = {"devtmpfs", "iso9660", "nsfs", "overlay", "ramfs", "squashfs"};

std::string TextOf(const CPciAddress& address) {
  if (!address.IsValid()) return "";
  char text[32];
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", address.segment, address.bus, address.device, address.function);
  return text;
}

std::string Hex(unsigned int id) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04x", id);
  return text;
}

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// "" for a number that sysfs does not know, which it gives as 0 or -1 or not at all.
std::string Positive(const std::string& text) {
  return !text.empty() && text[0] != '-' && text != "0" ? text : "";
}

bool IsPciAddress(const std::string& text) {
  unsigned int part[4];
  int end = 0;
  return std::sscanf(text.c_str(), "%4x:%2x:%2x.%1x%n", &part[0], &part[1], &part[2], &part[3], &end) == 4 &&
         static_cast<size_t>(end) == text.size();
}

// The function behind which a device of sysfs lies: the last address in its path.
std::string PciAddressOf(const std::string& link) {
  std::error_code error;
  std::string found;
  for (const fs::path& part : fs::canonical(link, error))
    if (IsPciAddress(part.string())) found = part.string();
  return found;
}

// The drive under a block device: "sda1" => "sda", "dm-0" => the drive of its one slave. "" when there are several.
std::string DriveOf(const std::string& block, int depth = 0) {
  std::error_code error;
  const fs::path device = fs::canonical(kClassBlock + block, error);
  if (error || depth > 8) return "";
  if (fs::exists(device / "partition", error)) return device.parent_path().filename().string();
  std::set<std::string> drives;
  for (fs::directory_iterator slave(device / "slaves", error), end; !error && slave != end; slave.increment(error))
    drives.insert(DriveOf(slave->path().filename().string(), depth + 1));
  if (drives.empty()) return device.filename().string();
  return drives.size() == 1 ? *drives.begin() : "";
}

using SlotsByAddress = std::map<std::string, std::string>;

class MachineScan {
 public:
  explicit MachineScan(bool withSerialNumbers) : m_WithSerialNumbers(withSerialNumbers) {}

  MachineRecords Run() {
    Measure("pci", [this] { CPciConfigList::ScanPciSlots(m_Functions, true); });
    Measure("firmware", [this] { AppendFirmwareRecords(m_Functions, m_WithSerialNumbers, m_Records); });
    Measure("adapters", [this] { AddAdapters(); });
    Measure("drives", [this] { AddDrives(); });
    return std::move(m_Records);
  }

 private:
  void Measure(const char* part, const std::function<void()>& step) {
    const auto begin = std::chrono::steady_clock::now();
    step();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    m_Records.push_back({"scan", part, {{"seconds", std::to_string(took.count())}}});
  }

  void AddAdapters() {
    std::vector<CSystemAdapter> adapters;
    CSystemAdapter::ScanSystemAdapters(adapters, m_Functions, false);
    for (const CSystemAdapter& adapter : adapters)
      if (adapter.GetPciAddress().IsValid()) AddAdapter(adapter);
  }

  void AddAdapter(const CSystemAdapter& adapter) {
    const CPciSlotData& data = adapter.GetSlotData();
    const std::string address = TextOf(data.address);
    const std::string slot = data.slot > 0 ? std::to_string(data.slot) : "";
    m_Slots[address] = slot;
    MachineRecord record{"adapter", address, {}};
    record.Add("address", address)
        .Add("slot", slot)
        .Add("slot_source", data.slot > 0    ? "firmware"
                            : data.slot == 0 ? "onboard"
                                             : "")
        .Add("kind", adapter.ClassName == "Unknown" ? "" : adapter.ClassName)
        .Add("vendor_id", Hex(data.header.VendorId()))
        .Add("device_id", Hex(data.header.DeviceId()))
        .Add("driver", adapter.DriverName == "<unknown>" ? "" : adapter.DriverName)
        .Add("lanes", Positive(ReadLine(kPciDevices + address + "/current_link_width")));
    ethtool_drvinfo driver{};
    if (adapter.GetNetworkDrvInfo(&driver))
      record.Add("firmware",
                 Trim(std::string(driver.fw_version, ::strnlen(driver.fw_version, sizeof driver.fw_version))));
    m_Records.push_back(std::move(record));
  }

  // Those that the library lists, then the other block devices that are hardware.
  void AddDrives() {
    std::vector<CSystemDrive> drives;
    CSystemDrive::ScanSystemDrives(drives, false, false);
    std::set<std::string> known;
    for (const CSystemDrive& drive : drives) {
      const std::string& device = drive.GetFunctionalDeviceObjectName();
      if (device.empty() || !known.insert(device).second) continue;
      AddDrive(device, TextOf(drive.GetPciAddress()), drive.DeviceName, drive.VendorName, drive.DeviceRevision,
               drive.SerialNumber);
    }
    std::error_code error;
    std::set<std::string> names;
    for (fs::directory_iterator block(kBlock, error), end; !error && block != end; block.increment(error))
      names.insert(block->path().filename().string());
    for (const std::string& name : names) {
      const std::string device = std::string(kBlock) + "/" + name + "/device/";
      if (known.contains(name) || !fs::exists(device, error)) continue;
      AddDrive(name, "", ReadLine(device + "model"), "", ReadLine(device + "firmware_rev"),
               ReadLine(device + "serial"));
    }
  }

  void AddDrive(const std::string& device, std::string address, const std::string& model, const std::string& vendor,
                const std::string& firmware, const std::string& serial) {
    const std::string block = std::string(kBlock) + "/" + device;
    if (address.empty()) address = PciAddressOf(block);
    const std::string sectors = Positive(ReadLine(block + "/size"));
    MachineRecord record{"drive", KeyOf(device, Trim(serial)), {}};
    record.Add("device", device)
        .Add("address", address)
        .Add("slot", m_Slots[address])
        .Add("model", Trim(model))
        .Add("vendor", Trim(vendor))
        .Add("firmware", Trim(firmware));
    if (m_WithSerialNumbers) record.Add("serial", Trim(serial));
    if (!sectors.empty()) record.Add("size", std::to_string(std::strtoull(sectors.c_str(), nullptr, 10) * kSectorSize));
    m_Records.push_back(std::move(record));
  }

  // The same for the drive under another name. Who is not to know the serial number gets a number made of it (FNV-1a).
  std::string KeyOf(const std::string& device, const std::string& serial) const {
    if (serial.empty() || m_WithSerialNumbers) return serial.empty() ? device : serial;
    uint64_t hash = 0xcbf29ce484222325;
    for (const char letter : serial)
      hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001b3;
    char text[32];
    std::snprintf(text, sizeof text, "#%016llx", static_cast<unsigned long long>(hash));
    return text;
  }

  const bool m_WithSerialNumbers;
  CPciConfigList m_Functions;
  SlotsByAddress m_Slots;
  MachineRecords m_Records;
};

bool IsShown(const CSystemVolume& volume) {
  if (std::ranges::find(kNoVolumes, volume.Type) != kNoVolumes.end()) return false;
  return volume.Answer == kSilent || (volume.Answer == kAnswered && volume.Size > 0);
}

}  // namespace

MachineRecords ScanMachine(bool withSerialNumbers) {
  return MachineScan(withSerialNumbers).Run();
}

MachineRecords ScanVolumes() {
  std::vector<CSystemVolume> volumes;
  CSystemVolume::ScanSystemVolumes(volumes);
  std::erase_if(volumes, [](const CSystemVolume& volume) { return !IsShown(volume); });
  std::ranges::stable_sort(volumes, {}, [](const CSystemVolume& volume) { return volume.MountPoint.size(); });
  MachineRecords records;
  std::set<std::string> devices;
  for (const CSystemVolume& volume : volumes) {
    const bool isBlock = volume.Device.starts_with("/dev/");
    if (isBlock && !devices.insert(volume.Device).second) continue;
    std::error_code error;
    const std::string node = isBlock ? fs::canonical(volume.Device, error).filename().string() : "";
    const std::string drive = node.empty() ? "" : DriveOf(node);
    MachineRecord record{"volume", volume.MountPoint, {}};
    record.Add("mountpoint", volume.MountPoint)
        .Add("fstype", volume.Type)
        .Add("device", volume.Device)
        .Add("drive", drive);
    if (!drive.empty()) record.Add("address", PciAddressOf(kClassBlock + drive));
    record.Add("answering", volume.Answer == kAnswered ? "1" : "0");
    if (volume.Answer == kAnswered) {
      record.Add("size", std::to_string(volume.Size * 1024)).Add("available", std::to_string(volume.Available * 1024));
    }
    records.push_back(std::move(record));
  }
  return records;
}
