#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "inventory/mount_entry.h"
#include "platform/export.h"

// Inventory record of one mounted file system: the mount table entry by value.
// A value without a lock; copying copies everything.
class RAVD_EXPORT CSystemVolume {
 public:
  // Appends the mounted file systems but those of the types "tmpfs" and "rootfs". Any thread may call it; scans take
  // turns. Never fails: without a readable source there are no volumes. One that does not answer, or not in time, keeps
  // the figures of before; Answer tells. When stop becomes true no further silence is waited for.
  static void ScanSystemVolumes(std::vector<CSystemVolume>& volumes, const std::atomic<bool>* stop = nullptr);

  // Copies everything and traces that it does.
  void ClassCopy(const CSystemVolume& other);

  std::string Name;                      // left empty by the scan
  std::vector<std::string> MountPoints;  // the mount point alone
  uint64_t Reserved = 0;                 // always 0
  // By the type: 2 local disk, 1 "msdos", 4 network, 8 optical media, 16 memory; 0 for others and for types that are
  // not known.
  uint32_t VolumeType = 0;

  // As in mount_entry:
  std::string Device;            // mount source; "" for VMFS
  std::string MountPoint;        // the directory that it is mounted on
  std::string Type;              // "ext4"
  uint32_t TypeFlags = 0;        // 0 for a type without a flag
  uint32_t Mounted = 0;          // 1 for every volume of a scan
  uint64_t Blocks = 0;           // in the file system's own unit
  uint64_t AvailableBlocks = 0;  // of these, for everybody
  uint64_t Size = 0;             // KiB
  uint32_t BlockSize = 0;        // units of 512 bytes
  uint32_t Source = 0;           // kMountedList or kVmfsList
  uint64_t Available = 0;        // KiB
  uint32_t UsedPercent = 0;      // 0-100; 100 for a file system without blocks
  fs_answer Answer = kNotAsked;  // whether the figures are those of now
};
