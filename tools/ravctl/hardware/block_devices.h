#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ravctl/hardware/pci_functions.h"

namespace ravctl {

// A block device of the kernel.
struct BlockDevice {
  std::string name;                 // "sda1", "cciss!c0d0"
  std::string link;                 // where it sits in sysfs: "../../devices/pci0000:00/.../block/sda/sda1"
  std::string disk;                 // of a partition, or of another part such as the boot areas of a card: "sda"
  std::string mapName;              // of a device of the device mapper: "vg0-root"
  std::vector<std::string> slaves;  // the devices that it is made of
  std::optional<uint64_t> sizeKb;
  bool isDrive = false;      // a device of its own, neither partition nor made by the kernel out of others or of memory
  bool isMultipath = false;  // made by the device mapper out of several ways to one drive

  std::string Node() const;  // "/dev/sda1", "/dev/cciss/c0d0"
};

// The block devices as sysfs shows them, read once when it is made.
class BlockDevices {
 public:
  BlockDevices();

  // By names.
  const std::map<std::string, BlockDevice>& All() const { return m_Devices; }
  // Null for a name that none has.
  const BlockDevice* Find(const std::string& name) const;
  // The device that a node is of, by its name, the link that it is, or its name in the device mapper. Null when it is
  // none.
  //   "/dev/sda1", "/dev/disk/by-label/data", "/dev/mapper/vg0-root", "/dev/vg0/root"
  const BlockDevice* FindNode(const std::string& node) const;

  // In the order of their numbers.
  std::vector<const BlockDevice*> PartitionsOf(const std::string& disk) const;

  // The drives that are ways to the same one as this, itself included; empty for one that has no other.
  std::vector<std::string> WaysTo(const std::string& drive) const;

  // What a device lies on through all that is stacked in between: partitions and whole drives, each once.
  struct Foundation {
    std::vector<const BlockDevice*> devices;
    std::vector<std::string> layers;  // names of what is in between, from above: "vg0-root", "md127"
  };
  Foundation FoundationOf(const BlockDevice& device) const;

 private:
  void Read(const std::string& name);
  void Descend(const BlockDevice& device, unsigned int depth, Foundation& found) const;

  std::map<std::string, BlockDevice> m_Devices;
};

// What sysfs and udev's database know of a drive, empty where neither does, and which of the two has it.
struct DriveDetails {
  struct Text {
    std::string value;
    const char* source = nullptr;  // "sysfs", "udev"
  };
  Text vendor, model, revision, serial;
  std::string bus;                    // "NVMe", "virtio", "USB", "MMC", "SCSI"
  std::string scsi;                   // "0:2:0:0"
  std::optional<PciPlace> adapter;    // where it is attached
  std::optional<uint16_t> pciVendor;  // of the controller of an NVMe drive
  bool isCdRom = false;
  bool isRemovable = false;
  bool isHidden = false;  // a path to a drive that is shown under another name
};
DriveDetails ReadDriveDetails(const BlockDevice& drive);

// The parser of a record of udev's database: the value of a property, without the escapes of "\x20".
std::string UdevProperty(std::string_view record, std::string_view name);

}  // namespace ravctl
