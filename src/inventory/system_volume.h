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

  std::string Name;  // left empty by the scan
  std::vector<std::string> MountPoints;
  uint64_t Reserved = 0;
  uint32_t VolumeType = 0;  // as get_fs_voltype

  std::string Device;
  std::string MountPoint;
  std::string Type;
  uint32_t TypeFlags = 0;
  uint32_t Mounted = 0;
  uint64_t Blocks = 0;
  uint64_t AvailableBlocks = 0;
  uint64_t Size = 0;       // KiB
  uint32_t BlockSize = 0;  // units of 512 bytes
  uint32_t Source = 0;
  uint64_t Available = 0;  // KiB
  uint32_t UsedPercent = 0;
  fs_answer Answer = kNotAsked;
};
