// The three scanners of CSystemDrive.

#include <fcntl.h>

#include <chrono>
#include <cstdio>
#include <set>

#include "inventory/drive_links.h"
#include "inventory/fusion_card.h"
#include "inventory/scsi_device_list.h"
#include "inventory/scsi_inquiry.h"
#include "inventory/system_drive.h"
#include "platform/descriptor_io.h"
#include "platform/directory.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kBlockDevices = "/sys/block/";
constexpr const char* kDeviceNodes = "/dev/";

bool ReadScsiList(std::string& text) {
  const UniqueFd file(::open(CScsiDeviceList::kPath, O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  ReadToEnd(file.Get(), text);
  return true;
}

std::string ScsiDeviceId(const CScsiListDevice& device) {
  char text[64] = {};
  std::snprintf(text, sizeof text, "SCSI\\DISK-%-8.8s%-16.16s%-4.4s", device.vendor.c_str(), device.model.c_str(),
                device.revision.c_str());
  return text;
}

// False when the question took as long as it may: the next one would, too.
template <typename Question>
bool AsksInTime(Question question) {
  const auto start = std::chrono::steady_clock::now();
  question();
  return std::chrono::steady_clock::now() - start < std::chrono::milliseconds(CScsiInquiry::kTimeoutMs);
}

bool IsSet(const std::atomic<bool>* stop) {
  return stop != nullptr && *stop;
}

}  // namespace

void CSystemDrive::ScanSystemDrives(std::vector<CSystemDrive>& drives, bool /*unused1*/, bool /*unused2*/,
                                    const std::atomic<bool>* stop) {
  TRACE(5, "\nCSystemDrive        : -> ScanSystemDrives");
  ScanScsiDrives(drives, stop);
  ScanSSDDrives(drives);
  ScanIntelSSDDevices(drives, stop);
  TRACE(5, "\nCSystemDrive        : <- ScanSystemDrives");
}

bool CSystemDrive::ScanDrives(std::vector<CSystemDrive>& /*drives*/, const char* /*unused*/) {
  return true;
}

void CSystemDrive::ScanScsiDrives(std::vector<CSystemDrive>& drives, const std::atomic<bool>* stop) {
  TRACE(2, "\nCSystemDrive::ScanScsiDevices ");
  std::string text;
  if (!ReadScsiList(text)) {
    TRACE(3, "\nCSystemDrive::ScanScsiDevices  : Cannot get scsi devices. File %s cannot be open!",
          CScsiDeviceList::kPath);
    return;
  }
  CScsiDeviceList list(text);
  std::set<unsigned int> silentHosts;
  for (CScsiListDevice device; !IsSet(stop) && list.Next(device);) {
    const bool isAsked = !silentHosts.contains(device.host);
    if (AddScsiDrive(drives, device, isAsked) || !isAsked) continue;
    TRACE(1, "\nCSystemDrive::ScanScsiDrives : Host %u timed out, its other drives are not asked", device.host);
    silentHosts.insert(device.host);
  }
}

bool CSystemDrive::AddScsiDrive(std::vector<CSystemDrive>& drives, const CScsiListDevice& device, bool isAsked) {
  const std::string& address = device.address;
  std::string name;
  if (!GetScsiDriveOSName(name, address, device.type.starts_with("Sequential-Access"))) return true;
  const std::string path = kDeviceNodes + name;
  CSystemDrive drive(ScsiDeviceId(device).c_str());
  drive.m_DeviceObjectName = name;
  drive.OsDeviceName = name;
  drive.VendorName = device.vendor;
  drive.DeviceName = device.model;
  drive.DeviceRevision = device.revision;
  drive.m_ScsiAddress = device.scsiAddress;
  drive.m_ScsiAddressText = address;
  drive.m_MultipathDrive = SetMpdDrive(address);
  GetDrivePciAddress(drive.m_PciAddress, address, drive.m_MultipathDrive, true);
  const bool isInTime = isAsked && AsksInTime([&] { GetDriveSerialNoInq(drive.SerialNumber, path, true); });
  drive.m_BusType = kBusTypeScsi;
  drive.SetTypes(device.type);
  const int count = Append(drives, drive);
  TRACE(3, "\nCSystemDrive::ScanScsiDrives : Add drive [%d] device Id: \"%s\" Interface: \"%s\"", count,
        drive.DeviceIdText(), path.c_str());
  return isInTime;
}

void CSystemDrive::ScanSSDDrives(std::vector<CSystemDrive>& drives) {
  std::string name;
  for (int card = 0; GetFusionBlockDevice(name, card); ++card) {
    const CFusionBoardInfo board = ReadFusionBoardInfo(card);
    CSystemDrive drive(("Fusion-io SSD fct" + std::to_string(card)).c_str());
    drive.m_DeviceObjectName = name;
    drive.VendorName = board.vendor;
    drive.SerialNumber = board.serialNumber;
    drive.OsDeviceName = board.productName;
    drive.DeviceName = board.productName;
    GetFusionPciAddress(drive.m_PciAddress, card);
    drive.SetDiskTypes();
    const int count = Append(drives, drive);
    TRACE(3, "\nCSystemDrive::ScanSSDDrives  : Add drive [%d] device Id: \"%s\" Interface: \"%s\"", count,
          drive.DeviceIdText(), (kDeviceNodes + name).c_str());
  }
}

void CSystemDrive::ScanIntelSSDDevices(std::vector<CSystemDrive>& drives, const std::atomic<bool>* stop) {
  std::vector<std::string> entries;
  CDirectory::GetDirectoryContent(entries, kBlockDevices, false);
  for (const std::string& name : entries) {
    if (IsSet(stop)) return;
    if (name.find("nvme") == std::string::npos) continue;
    const std::string path = kDeviceNodes + name;
    CSystemDrive drive(("Intel SSD " + name).c_str());
    drive.m_DeviceObjectName = name;
    drive.OsDeviceName = name;
    GetDrivePciAddress(drive.m_PciAddress, name, false, false);
    // Each question after the one before, as long as the device answers in time.
    static_cast<void>(AsksInTime([&] { GetDriveProductNameInq(drive.DeviceName, path); }) &&
                      AsksInTime([&] { GetDriveVendorInq(drive.VendorName, path); }) &&
                      AsksInTime([&] { GetDriveSerialNoInq(drive.SerialNumber, path, false); }));
    drive.SetDiskTypes();
    const int count = Append(drives, drive);
    TRACE(3, "\nCSystemDrive::ScanIntelSSDDevices  : Add drive [%d] device Id: \"%s\" Interface: \"%s\"", count,
          drive.DeviceIdText(), path.c_str());
  }
}

void CSystemDrive::SetTypes(const std::string& typeText) {
  if (typeText.starts_with("Direct-Access")) {
    SetDiskTypes();
  } else if (typeText.starts_with("CD-ROM")) {
    m_TypeIndex = kTypeCdRom;
    m_DeviceType = kDeviceCdRom;
  } else if (typeText.starts_with("Optical Device")) {
    m_TypeIndex = kTypeOptical;
    m_DeviceType = kDeviceOptical;
  }
}

void CSystemDrive::SetDiskTypes() {
  m_TypeIndex = kTypeDirectAccess;
  m_DeviceType = kDeviceDisk;
  m_MediaRemovable = true;
}

int CSystemDrive::Append(std::vector<CSystemDrive>& drives, CSystemDrive& drive) {
  drive.m_DriveNumber = static_cast<uint32_t>(drives.size() + 1);
  drive.m_UniqueDriveNumber = drive.m_DriveNumber;
  drives.push_back(drive);
  return static_cast<int>(drives.size());
}
