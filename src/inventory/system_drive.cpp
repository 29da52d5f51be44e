#include "inventory/system_drive.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "trace/debug.h"

namespace {

constexpr auto kBusTypeNames = std::to_array<const char*>({
    "N/A",
    "SCSI",
    "ATAPI",
    "ATA",
    "1394",
    "SSA",
    "Fibre",
    "USB",
    "RAID",
    "iSCSI",
    "SAS",
    "SATA",
    "SD",
    "MMC",
});
static_assert(kBusTypeNames.size() == kBusTypeMmc + 1);

constexpr const char kDriveText[] =
    "Name:  \"%s\" Vendor: \"%s\" Rev: \"%s\" \nBus:   %s\nDevice No: %d - Type %d (%s) \nDevice Driver: %s \nDevice Object: %s \nDevice ID: %s";

constexpr const char* kDriverNameProperty = "DriverName";

bool Contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

const char* StorageBusTypeToString(_DriveBusType busType) {
  const uint32_t index = busType;
  return index < kBusTypeNames.size() ? kBusTypeNames[index] : "N/A";
}

CSystemDrive::CSystemDrive(const char* deviceId) {
  SetDeviceId(deviceId);
}

CSystemDrive::CSystemDrive(const char* deviceId, const char* /*unused*/) : CSystemDrive(deviceId) {}

CSystemDrive::CSystemDrive(const CSystemDrive& other) : CSystemDevice(other) {
  ClassCopy(other);
}

CSystemDrive& CSystemDrive::operator=(const CSystemDrive& other) {
  if (this == &other) return *this;
  CSystemDevice::operator=(other);
  ClassCopy(other);
  return *this;
}

CSystemDrive::~CSystemDrive() = default;

void CSystemDrive::ClassInit() {
  m_BusType = kBusTypeUnknown;
  m_DeviceType = kDeviceUnknown;
  m_UniqueDriveNumber = kNoDriveNumber;
  m_MultipathDrive = false;
  m_MediaRemovable = false;
  m_Hotplug = false;
}

void CSystemDrive::ClassCopy(const CSystemDrive& other) {
  DeviceName = other.DeviceName;
  VendorName = other.VendorName;
  DeviceRevision = other.DeviceRevision;
  m_PciAddress = other.m_PciAddress;
  m_MultipathDrive = other.m_MultipathDrive;
  m_DriveNumber = other.m_DriveNumber;
  m_TypeIndex = other.m_TypeIndex;
  m_BusType = other.m_BusType;
  m_DeviceType = other.m_DeviceType;
  m_UniqueDriveNumber = other.m_UniqueDriveNumber;
  m_MediaRemovable = other.m_MediaRemovable;
  m_Hotplug = other.m_Hotplug;
  m_ScsiAddress = other.m_ScsiAddress;
  m_ScsiAddressText = other.m_ScsiAddressText;
  m_DeviceObjectName = other.m_DeviceObjectName;
}

std::string CSystemDrive::GetVendorName() const {
  if (VendorName == "WDC") return "Western Digital";
  if (VendorName == "ST") return "Seagate";
  return VendorName;
}

std::string& CSystemDrive::GetVendorName(std::string& name) const {
  return name = GetVendorName();
}

std::string& CSystemDrive::GetDriverName(std::string& name) const {
  const auto property = Properties.find(kDriverNameProperty);
  return name = property == Properties.end() ? "" : property->second;
}

int CSystemDrive::GetChannel() const {
  return m_ScsiAddress.length == 0 ? 0 : m_ScsiAddress.path;
}

int CSystemDrive::GetPortNo() const {
  return m_ScsiAddress.length == 0 ? 0 : m_ScsiAddress.port;
}

int CSystemDrive::GetTargetId() const {
  return m_ScsiAddress.length == 0 ? 0 : m_ScsiAddress.target;
}

int CSystemDrive::GetLun() const {
  return m_ScsiAddress.length == 0 ? 0 : static_cast<int>(m_ScsiAddress.lun);
}

bool CSystemDrive::GetScsiAddress(CScsiAddress& address) const {
  if (m_ScsiAddress.length == 0) return false;
  address = m_ScsiAddress;
  return true;
}

int CSystemDrive::GetDriveNo() const {
  const int number = static_cast<int>(m_UniqueDriveNumber);
  TRACE(5, "\nCSystemDrive          : Disk No: %d", number);
  return number;
}

int CSystemDrive::GetBusType() const {
  const int type = static_cast<int>(m_BusType);
  TRACE(5, "\nCSystemDrive          : Bus type: %d", type);
  return type;
}

int CSystemDrive::GetDeviceType() const {
  const int type = static_cast<int>(m_DeviceType);
  TRACE(5, "\nCSystemDrive          : Device type: %d", type);
  return type;
}

bool CSystemDrive::IsScsiDrive() const {
  return m_BusType == kBusTypeScsi || m_BusType == kBusTypeRaid || m_BusType == kBusTypeIscsi ||
         m_BusType == kBusTypeSas;
}

bool CSystemDrive::IsAtapiCompatible() const {
  return m_BusType == kBusTypeAtapi || m_BusType == kBusTypeAta || m_BusType == kBusTypeSata;
}

bool CSystemDrive::IsCdRomDrive() const {
  return m_DeviceType == kDeviceCdRom;
}

bool CSystemDrive::IsDiskDrive() const {
  if (m_BusType != kBusTypeScsi) return true;
  return m_DeviceType != kDeviceCdRom && !Contains(VendorName, "KVM") && !Contains(VendorName, "VMware") &&
         !Contains(DeviceName, "Virtual");
}

std::string CSystemDrive::toString() const {
  const char* busType = StorageBusTypeToString(static_cast<_DriveBusType>(GetBusType()));
  const std::string vendor = GetVendorName();
  const auto print = [&](char* buffer, size_t size) {
    return std::snprintf(buffer, size, kDriveText, DeviceName.c_str(), vendor.c_str(), DeviceRevision.c_str(), busType,
                         static_cast<int>(m_DriveNumber), static_cast<int>(m_TypeIndex), " ", "", ObjectName.c_str(),
                         DeviceIdText());
  };
  const int length = print(nullptr, 0);
  if (length < 0) return "";
  std::string text(static_cast<size_t>(length) + 1, '\0');
  print(text.data(), text.size());
  text.pop_back();
  return text;
}

void CSystemDrive::Dump(int level, CSystemDrive& drive) {
  if (!Debug.m_TraceActive.load(std::memory_order_relaxed)) return;
  const unsigned int traceLevel = static_cast<unsigned int>(std::max(level, 0));
  TRACE(traceLevel, "\n\nCSystemDrive        : System drive:");
  TRACE(traceLevel, "\nCSystemDrive        : -------------");
  TRACE(traceLevel, "\nCSystemDrive        : Device Name     : %s", drive.DeviceName.c_str());
  TRACE(traceLevel, "\nCSystemDrive        : Device Revision : %s", drive.DeviceRevision.c_str());
  TRACE(traceLevel, "\nCSystemDrive        : Device ID       : %s", drive.DeviceIdText());
  TRACE(traceLevel, "\nCSystemDrive        : Object Name     : %s", drive.ObjectName.c_str());
  TRACE(traceLevel, "\nCSystemDrive        : Vendor Name     : %s", drive.GetVendorName().c_str());
  TRACE(traceLevel, "\nCSystemDrive        : Enumerator      : %s", drive.GetEnumerator().c_str());
  TRACE(traceLevel, "\nCSystemDrive        : Class Name      : %s", drive.ClassName.c_str());
  TRACE(traceLevel, "\nCSystemDrive        : Unique drive no : %d\n", drive.GetDriveNo());
}
