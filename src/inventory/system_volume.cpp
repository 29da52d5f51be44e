#include "inventory/system_volume.h"

#include <string_view>

#include "inventory/fs_type.h"
#include "inventory/mount_table.h"
#include "platform/critical_section.h"
#include "trace/debug.h"

namespace {

constinit CCriticalSection s_MountTable;

bool IsVolume(const mount_entry& entry) {
  const std::string_view type = entry.type;
  return entry.mounted != 0 && type != "tmpfs" && type != "rootfs";
}

CSystemVolume MakeVolume(const mount_entry& entry) {
  CSystemVolume volume;
  volume.MountPoints.emplace_back(entry.mount_point);
  volume.VolumeType = static_cast<uint32_t>(get_fs_voltype(entry.type));
  volume.Device = entry.device;
  volume.MountPoint = entry.mount_point;
  volume.Type = entry.type;
  volume.TypeFlags = entry.type_flags;
  volume.Mounted = entry.mounted;
  volume.Blocks = entry.blocks;
  volume.AvailableBlocks = entry.available_blocks;
  volume.Size = entry.size;
  volume.BlockSize = entry.block_size;
  volume.Source = entry.source;
  volume.Available = entry.available;
  volume.UsedPercent = entry.used_percent;
  volume.Answer = entry.answer;
  return volume;
}

}  // namespace

void CSystemVolume::ScanSystemVolumes(std::vector<CSystemVolume>& volumes, const std::atomic<bool>* stop) {
  const CCriticalSectionLock lock(s_MountTable);
  TRACE(3, "\nCSystemVolume       : Scan system volumes ...");
  int left = get_MountedFileSystems(stop);
  for (const mount_entry* entry = measure_fs_table(left, stop); entry != nullptr && left > 0; entry = entry->next) {
    --left;
    if (!IsVolume(*entry)) continue;
    const CSystemVolume& volume = volumes.emplace_back(MakeVolume(*entry));
    TRACE(3, "\nCSystemVolume       : system volume %s found, type %s / %d", entry->mount_point, entry->type,
          static_cast<int>(volume.VolumeType));
  }
  TRACE(3, "\nCSystemVolume       : %d system volumes found", static_cast<int>(volumes.size()));
}

void CSystemVolume::ClassCopy(const CSystemVolume& other) {
  TRACE(2, "\nCSystemVolume  ClassCopy:  this=%p, Src=%p\n", static_cast<void*>(this),
        static_cast<const void*>(&other));
  *this = other;
}
