#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "inventory/scsi_address.h"
#include "inventory/system_device.h"
#include "pci/pci_address.h"
#include "platform/critical_section.h"
#include "platform/export.h"

struct CScsiListDevice;

// How a drive is attached. The numbers leave the library with the records and do not change. The scans say kBusTypeScsi
// for what the kernel lists as SCSI and kBusTypeUnknown for the cards and NVMe devices.
enum _DriveBusType : uint32_t {
  kBusTypeUnknown = 0,  // "N/A"
  kBusTypeScsi = 1,     // "SCSI", parallel or not told apart
  kBusTypeAtapi = 2,    // "ATAPI"
  kBusTypeAta = 3,      // "ATA"
  kBusType1394 = 4,     // "1394", IEEE 1394
  kBusTypeSsa = 5,      // "SSA", Serial Storage Architecture
  kBusTypeFibre = 6,    // "Fibre", Fibre Channel
  kBusTypeUsb = 7,      // "USB"
  kBusTypeRaid = 8,     // "RAID", behind a RAID controller
  kBusTypeIscsi = 9,    // "iSCSI"
  kBusTypeSas = 10,     // "SAS", Serial Attached SCSI
  kBusTypeSata = 11,    // "SATA"
  kBusTypeSd = 12,      // "SD", Secure Digital
  kBusTypeMmc = 13,     // "MMC", MultiMediaCard
};

// The text for a bus type, a constant: those above, "N/A" for every other value.
RAVD_EXPORT const char* StorageBusTypeToString(_DriveBusType busType);

// Inventory record of one drive: a SCSI device that the kernel lists (disk, CD/DVD, optical drive, tape), a Fusion-io
// card or an NVMe block device.
//
// A value, used by one thread at a time. Copies are whole, the device ID duplicated, except that every record has a
// lock of its own. Scanning needs root for the serial numbers; what cannot be found out stays empty or unset, and a
// source that is missing does not keep the others from being read. Nothing here throws but std::bad_alloc.
class RAVD_EXPORT CSystemDrive : public CSystemDevice {
 public:
  // No drive: every text empty, nothing set.
  CSystemDrive() = default;
  // The ID is copied; null leaves it unset.
  explicit CSystemDrive(const char* deviceId);
  // The second text is not used.
  CSystemDrive(const char* deviceId, const char* unused);
  // Copies as the class describes:
  CSystemDrive(const CSystemDrive& other);
  CSystemDrive& operator=(const CSystemDrive& other);
  // Frees what the record owns.
  ~CSystemDrive() override;

  // Bus type, device type, drive number as known to GetDriveNo and the three flags back to their initial values.
  void ClassInit();
  // Copies the names (device, vendor, revision), both addresses, the numbers, the flags and the device object name;
  // device ID, serial number, OS device name and all else stay.
  void ClassCopy(const CSystemDrive& other);

  // Appends the SCSI devices of /proc/scsi/scsi, then the Fusion-io cards, then the NVMe devices of /sys/block. The
  // flags are not used. The other three are its steps. A device that does not answer holds the scan up for 50 seconds;
  // after the first one the other drives of its SCSI host are recorded without being asked. When stop becomes true the
  // scan ends before the next drive:
  static void ScanSystemDrives(std::vector<CSystemDrive>& drives, bool unused1, bool unused2,
                               const std::atomic<bool>* stop = nullptr);
  static void ScanScsiDrives(std::vector<CSystemDrive>& drives, const std::atomic<bool>* stop = nullptr);
  static void ScanSSDDrives(std::vector<CSystemDrive>& drives);
  static void ScanIntelSSDDevices(std::vector<CSystemDrive>& drives, const std::atomic<bool>* stop = nullptr);

  // Scans nothing; always true.
  static bool ScanDrives(std::vector<CSystemDrive>& drives, const char* unused);
  // No effect.
  void ScanStorageDeviceProperties() {}

  // The vendor text as stored, trailing blanks included, but "Western Digital" for exactly "WDC" and "Seagate" for
  // exactly "ST". The second form stores the text in its argument and returns that:
  std::string GetVendorName() const;
  std::string& GetVendorName(std::string& name) const;
  // The property "DriverName", "" when there is none; stored in the argument and returned.
  std::string& GetDriverName(std::string& name) const;
  // Name of its block or tape device without "/dev/": "sda". Borrowed.
  const std::string& GetFunctionalDeviceObjectName() const { return m_DeviceObjectName; }

  // Parts of the SCSI address, 0 without one:
  int GetChannel() const;
  int GetPortNo() const;
  int GetTargetId() const;
  int GetLun() const;
  // False without a SCSI address; the output then stays as it was.
  bool GetScsiAddress(CScsiAddress& address) const;
  // "256:0:1:0": host, channel, target and lun in full, where the parts above are cut to their size; "" without one.
  const std::string& GetScsiAddressText() const { return m_ScsiAddressText; }
  // Address of the host adapter; invalid when it could not be determined.
  CPciAddress GetPciAddress() const { return m_PciAddress; }

  int GetDriveNo() const;     // -1 until the drive has been added to a vector by a scan
  int GetBusType() const;     // _DriveBusType
  int GetDeviceType() const;  // SCSI peripheral device type; 0x1F = unknown

  // By the bus type: SCSI, RAID, iSCSI or SAS.
  bool IsScsiDrive() const;
  // By the bus type: ATAPI, ATA or SATA.
  bool IsAtapiCompatible() const;
  // By the device type: CD-ROM.
  bool IsCdRomDrive() const;
  // True but for CD-ROM drives on SCSI and for the virtual drives of remote consoles and virtual machines there.
  bool IsDiskDrive() const;
  // The flag that the scans set for every disk; a fixed drive is one without it. It tells nothing about the medium:
  bool IsMediaRemoveable() const { return m_MediaRemovable; }
  bool IsFixedDrive() const { return !m_MediaRemovable; }
  // No scan finds one, so false.
  bool IsHotplugDevice() const { return m_Hotplug; }
  // Whether it is reached over several paths, as its place in sysfs tells.
  bool IsMpdDrive() const { return m_MultipathDrive; }
  // Always false, for a tape drive as well:
  bool IsTapeDrive() const { return false; }
  bool IsFloppyDrive() const { return false; }

  // Several lines for people.
  std::string toString() const;
  // Traces the record at that level; nothing while tracing is off.
  static void Dump(int level, CSystemDrive& drive);

  // For a client whose threads share one record. The record itself and the scanners never take it.
  CCriticalSection& GetLock() const { return m_Lock; }

 private:
  static constexpr uint32_t kTypeOther = 0;
  static constexpr uint32_t kTypeDirectAccess = 1;
  static constexpr uint32_t kTypeCdRom = 2;
  static constexpr uint32_t kTypeOptical = 3;

  static constexpr uint32_t kDeviceDisk = 0;
  static constexpr uint32_t kDeviceCdRom = 5;
  static constexpr uint32_t kDeviceOptical = 7;
  static constexpr uint32_t kDeviceUnknown = 0x1F;

  static constexpr uint32_t kNoDriveNumber = 0xFFFFFFFF;

  // False when the drive was not asked or took too long.
  static bool AddScsiDrive(std::vector<CSystemDrive>& drives, const CScsiListDevice& device, bool isAsked);
  void SetTypes(const std::string& typeText);
  void SetDiskTypes();
  // Numbers the drive and appends it; returns the new size of the vector.
  static int Append(std::vector<CSystemDrive>& drives, CSystemDrive& drive);

  CPciAddress m_PciAddress;
  CScsiAddress m_ScsiAddress;
  std::string m_ScsiAddressText;
  bool m_MultipathDrive = false;
  mutable CCriticalSection m_Lock;
  std::string m_DeviceObjectName;  // block or tape device
  uint32_t m_DriveNumber = 0;      // position in the vector when added, from 1
  uint32_t m_TypeIndex = kTypeOther;
  _DriveBusType m_BusType = kBusTypeUnknown;
  uint32_t m_DeviceType = kDeviceUnknown;
  uint32_t m_UniqueDriveNumber = kNoDriveNumber;  // the drive number once added
  bool m_MediaRemovable = false;
  bool m_Hotplug = false;
};

// Drives in the order of their scan.
using CSystemDriveList = std::vector<CSystemDrive>;
