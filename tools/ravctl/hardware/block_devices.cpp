#include "ravctl/hardware/block_devices.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <set>
#include <string_view>

#include "platform/directory.h"
#include "platform/file.h"
#include "platform/text_cursor.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/hardware/pci_sysfs.h"

namespace ravctl {

namespace {

constexpr const char* kBlockClass = "/sys/class/block";
constexpr const char* kDisks = "/sys/block";
constexpr const char* kUdevData = "/run/udev/data/b";
constexpr std::string_view kDeviceNodes = "/dev/";
constexpr std::string_view kMapper = "mapper/";
constexpr unsigned int kDeepestStack = 32;
constexpr const char* kCdRom = "5";
constexpr std::string_view kMultipath = "mpath-";  // what the names begin with that the multipath daemon gives its maps
constexpr size_t kVpdHeader = 4;                   // SPC-4, 7.8: the page's number and length before what it holds

std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  if (::access(directory.c_str(), F_OK) == 0) CDirectory::GetDirectoryContent(names, directory, false);
  std::ranges::sort(names);
  return names;
}

std::optional<uint64_t> ReadNumber(const std::string& path, int base = 10) {
  const std::string text = ReadAttribute(path);
  const std::string_view digits = std::string_view(text).substr(text.starts_with("0x") ? 2 : 0);
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
  return error == std::errc() && end == digits.data() + digits.size() ? std::optional(value) : std::nullopt;
}

std::string Replaced(std::string text, char from, char to) {
  std::ranges::replace(text, from, to);
  return text;
}

// As the device mapper writes the parts of a name.
std::string Doubled(std::string_view part) {
  std::string text;
  for (const char letter : part)
    text.append(letter == '-' ? 2 : 1, letter);
  return text;
}

// "../../devices/.../block/sda/sda1" => "sda"
std::string ParentName(const std::string& link) {
  const std::vector<std::string> names = SplitList(link, '/');
  return names.size() < 2 ? "" : names[names.size() - 2];
}

bool IsScsiAddress(std::string_view text) {
  return std::ranges::count(text, ':') == 3 && text.find_first_not_of("0123456789:") == std::string_view::npos;
}

std::string ScsiAddress(const std::string& link) {
  for (const std::string& name : SplitList(link, '/')) {
    if (IsScsiAddress(name)) return name;
  }
  return "";
}

std::string BusOf(const std::string& link) {
  for (const auto& [mark, bus] :
       {std::pair{"/usb", "USB"}, {"/nvme", "NVMe"}, {"/virtio", "virtio"}, {"/mmc", "MMC"}, {"/target", "SCSI"}}) {
    if (link.find(mark) != std::string::npos) return bus;
  }
  return "";
}

// An NVMe drive with several paths hangs on its subsystem, which links to the controllers.
std::optional<PciPlace> AdapterOf(const BlockDevice& drive) {
  if (const auto place = LastPciPlace(drive.link)) return place;
  const std::string device = std::string(kDisks) + "/" + drive.name + "/device";
  for (const std::string& name : NamesIn(device)) {
    std::string target;
    if (!name.starts_with("nvme") || !CFile::GetSymbolicLink(target, device + "/" + name)) continue;
    if (const auto place = LastPciPlace(target)) return place;
  }
  return std::nullopt;
}

// The unit serial number page as the kernel keeps it.
std::string VpdSerial(const std::string& path) {
  std::string page;
  if (ReadFileInto(path, page) != 0 || page.size() <= kVpdHeader) return "";
  const std::string_view serial = std::string_view(page).substr(kVpdHeader);
  return std::string(TextCursor::Trim(serial.substr(0, serial.find('\0'))));
}

// The first that has a value.
DriveDetails::Text FirstOf(std::initializer_list<std::string> sysfs, std::initializer_list<std::string> udev) {
  for (const auto& [texts, source] : {std::pair{sysfs, "sysfs"}, std::pair{udev, "udev"}}) {
    const auto* const found = std::ranges::find_if(texts, [](const std::string& text) { return !text.empty(); });
    if (found != texts.end()) return {*found, source};
  }
  return {};
}

std::string NoNumber(const std::string& text) {
  return text.starts_with("0x") ? "" : text;  // virtio has its ID there
}

}  // namespace

std::string BlockDevice::Node() const {
  return std::string(kDeviceNodes) + Replaced(name, '!', '/');
}

BlockDevices::BlockDevices() {
  for (const char* directory : {kBlockClass, kDisks}) {
    for (const std::string& name : NamesIn(directory)) {
      BlockDevice& device = m_Devices[name];
      if (device.link.empty()) CFile::GetSymbolicLink(device.link, std::string(directory) + "/" + name);
      device.name = name;
    }
  }
  for (const auto& each : m_Devices)
    Read(each.first);
}

void BlockDevices::Read(const std::string& name) {
  BlockDevice& device = m_Devices[name];
  std::string path = std::string(kBlockClass) + "/" + name;
  if (::access(path.c_str(), F_OK) != 0) path = std::string(kDisks) + "/" + name;
  const std::string parent = ParentName(device.link);
  if (::access((path + "/partition").c_str(), F_OK) == 0 || m_Devices.contains(parent)) device.disk = parent;
  device.isMultipath = ReadAttribute(path + "/dm/uuid").starts_with(kMultipath);
  device.mapName = ReadAttribute(path + "/dm/name");
  device.slaves = NamesIn(path + "/slaves");
  if (const auto sectors = ReadNumber(path + "/size")) device.sizeKb = *sectors / 2;
  device.isDrive = device.disk.empty() && ::access((path + "/device").c_str(), F_OK) == 0;
}

const BlockDevice* BlockDevices::Find(const std::string& name) const {
  const auto found = m_Devices.find(name);
  return found == m_Devices.end() ? nullptr : &found->second;
}

const BlockDevice* BlockDevices::FindNode(const std::string& node) const {
  if (!node.starts_with(kDeviceNodes)) return nullptr;
  const std::string name = node.substr(kDeviceNodes.size());
  if (const BlockDevice* const device = Find(Replaced(name, '/', '!'))) return device;
  const size_t slash = name.find('/');
  std::string mapName = name.starts_with(kMapper) ? name.substr(kMapper.size()) : "";
  if (mapName.empty() && slash != std::string::npos)
    mapName = Doubled(name.substr(0, slash)) + "-" + Doubled(name.substr(slash + 1));
  const auto mapped = std::ranges::find_if(
      m_Devices, [&](const auto& each) { return !mapName.empty() && each.second.mapName == mapName; });
  if (mapped != m_Devices.end()) return &mapped->second;
  const std::unique_ptr<char, decltype([](char* text) { std::free(text); })> real(::realpath(node.c_str(), nullptr));
  if (real == nullptr || node == real.get() || !std::string_view(real.get()).starts_with(kDeviceNodes)) return nullptr;
  return Find(Replaced(real.get() + kDeviceNodes.size(), '/', '!'));
}

std::vector<const BlockDevice*> BlockDevices::PartitionsOf(const std::string& disk) const {
  std::vector<const BlockDevice*> partitions;
  for (const auto& [name, device] : m_Devices) {
    if (device.disk == disk) partitions.push_back(&device);
  }
  // sda2 before sda10
  std::ranges::sort(partitions, {}, [](const BlockDevice* each) { return std::pair(each->name.size(), each->name); });
  return partitions;
}

std::vector<std::string> BlockDevices::WaysTo(const std::string& drive) const {
  std::vector<std::string> ways;
  for (const auto& [name, device] : m_Devices) {
    if (!device.isMultipath || std::ranges::count(device.slaves, drive) == 0) continue;
    std::ranges::copy_if(device.slaves, std::back_inserter(ways), [this](const std::string& slave) {
      const BlockDevice* const way = Find(slave);
      return way != nullptr && way->isDrive;
    });
    break;
  }
  return ways;
}

BlockDevices::Foundation BlockDevices::FoundationOf(const BlockDevice& device) const {
  Foundation found;
  Descend(device, 0, found);
  return found;
}

void BlockDevices::Descend(const BlockDevice& device, unsigned int depth, Foundation& found) const {
  if (depth > kDeepestStack) return;
  // A partition of something that is made of others lies where that lies.
  const BlockDevice* const disk = device.disk.empty() ? nullptr : Find(device.disk);
  const BlockDevice& whole = disk != nullptr && !disk->slaves.empty() ? *disk : device;
  if (whole.slaves.empty()) {
    if (std::ranges::find(found.devices, &device) == found.devices.end()) found.devices.push_back(&device);
    return;
  }
  const std::string& layer = whole.mapName.empty() ? whole.name : whole.mapName;
  if (std::ranges::find(found.layers, layer) != found.layers.end()) return;
  found.layers.push_back(layer);
  for (const std::string& slave : whole.slaves) {
    if (const BlockDevice* const below = Find(slave)) Descend(*below, depth + 1, found);
  }
}

std::string UdevProperty(std::string_view record, std::string_view name) {
  const std::string start = "E:" + std::string(name) + "=";
  for (const std::string& line : SplitList(record, '\n')) {
    if (!line.starts_with(start)) continue;
    std::string value;
    for (size_t at = start.size(); at < line.size(); ++at) {
      unsigned char code = 0;
      const bool isEscape =
          line.compare(at, 2, "\\x") == 0 && at + 4 <= line.size() &&
          std::from_chars(line.data() + at + 2, line.data() + at + 4, code, 16).ptr == line.data() + at + 4;
      value += isEscape ? static_cast<char>(code) : line[at];
      if (isEscape) at += 3;
    }
    return std::string(TextCursor::Trim(value));
  }
  return "";
}

DriveDetails ReadDriveDetails(const BlockDevice& drive) {
  const std::string disk = std::string(kDisks) + "/" + drive.name;
  const std::string device = disk + "/device/";
  std::string udev;
  const std::string number = ReadAttribute(disk + "/dev");
  if (!number.empty()) ReadFileInto(kUdevData + number, udev);
  DriveDetails details;
  details.vendor = FirstOf({NoNumber(ReadAttribute(device + "vendor"))}, {UdevProperty(udev, "ID_VENDOR_ENC")});
  details.model = FirstOf({ReadAttribute(device + "model"), ReadAttribute(device + "name")},
                          {UdevProperty(udev, "ID_MODEL_ENC"), UdevProperty(udev, "ID_MODEL")});
  details.revision = FirstOf({ReadAttribute(device + "rev"), ReadAttribute(device + "firmware_rev")},
                             {UdevProperty(udev, "ID_REVISION")});
  details.serial =
      FirstOf({VpdSerial(device + "vpd_pg80"), ReadAttribute(device + "serial"), ReadAttribute(disk + "/serial")},
              {UdevProperty(udev, "ID_SCSI_SERIAL"), UdevProperty(udev, "ID_SERIAL_SHORT")});
  details.bus = BusOf(drive.link);
  details.scsi = ScsiAddress(drive.link);
  details.adapter = AdapterOf(drive);
  if (const auto vendor = ReadNumber(device + "device/vendor", 16); vendor && details.bus == "NVMe")
    details.pciVendor = static_cast<uint16_t>(*vendor);
  details.isCdRom = ReadAttribute(device + "type") == kCdRom;
  details.isRemovable = ReadAttribute(disk + "/removable") == "1";
  details.isHidden = ReadAttribute(disk + "/hidden") == "1";
  return details;
}

}  // namespace ravctl
