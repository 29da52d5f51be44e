#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string_view>

// The process-wide table of file systems: the mounted ones (/etc/mtab), the configured ones (/etc/fstab) and, on ESX
// hosts, the VMFS volumes (/vmfs).
//
// Entries are ordered by source and within a source by mount point. They belong to the table and live until their
// source is read again; nothing frees the table at exit. All state is static and unguarded: one thread at a time, which
// the inventory ensures by its access gate.
//
// NFS mounts are left out before anybody asks for their size, so a server that does not answer holds nobody up.
// Failures show in the results; a source that cannot be read keeps its previous entries.

constexpr uint32_t kMountedList = 1;
constexpr uint32_t kConfiguredList = 2;
constexpr uint32_t kVmfsList = 4;

// Flags of get_mount_table beside the source: leave out a mount point that the table already has.
constexpr unsigned int kOnlyNewMountPoints = 0x100;

// One heap block: this header, then the three texts, each NUL-terminated.
struct mount_entry {
  uint64_t device_length;
  const char* device;  // mount source; "" for VMFS
  uint64_t mount_point_length;
  const char* mount_point;
  uint64_t type_length;
  const char* type;
  uint32_t type_flags;  // 0 for a type without a flag
  uint32_t mounted;     // 1 for entries of the mounted list and VMFS
  uint64_t blocks;
  uint64_t available_blocks;
  uint64_t size;        // KiB
  uint32_t block_size;  // units of 512 bytes
  uint32_t source;      // kMountedList, kConfiguredList or kVmfsList
  uint64_t available;   // KiB
  uint32_t used_percent;
  mount_entry* next;  // null for the last entry
};

// build_fs_table, its result kept as the number of file systems.
int get_MountedFileSystems();

// Reads again the sources that changed, each at the earliest 60 seconds after the modification time last seen of it,
// and returns the number of mounted entries (VMFS included). The number does not cover the entries of the configured
// list. /etc/mtab as a link to the kernel's own list: that has no modification time of use, so the kernel is asked
// whether the mounts changed since the last look; the time of that look then stands for the modification time.
int build_fs_table();
int build_fs_table(time_t now);

// Reads one source: flags are the source, and for the configured list kOnlyNewMountPoints; entries with the option
// "noauto" are left out of the configured list. Returns the number of entries added, -1 when the file cannot be opened.
int get_mount_table(const char* file, unsigned int flags);

// As get_mount_table for the mounted and the configured list, from an open mount table. The stream stays open.
int read_mount_table(FILE* table, unsigned int flags);

// The entry at that position, from 0, with its size figures brought up to date when it is mounted; null past the end.
// Borrowed until its source is read again.
mount_entry* get_fs_table(int index);

// Size figures of a VMFS volume, asked from vmkfstools; figures stay as they were when it gives none. A volume whose
// name the shell would not take as one plain word is not asked for.
void get_vmfs_data(mount_entry* entry, const char* volume);

// What vmkfstools says about a volume.
struct vmfs_usage {
  double capacity = 0;   // bytes
  double available = 0;  // bytes
  int blocks = 0;
  int block_size = 0;  // bytes
  int available_blocks = 0;
};

// Takes the first good line of the tool's output and returns 5, the number of values in it; -1 and the output as it
// was when there is none. "Capacity 1048576.000000 (1 file blocks * 1048576), 524288.000000 (0 blocks)" is good.
int parse_vmfs_usage(std::string_view output, vmfs_usage& usage);

// Kind of a file system as a number: 2 for local disk file systems, 1 "msdos", 4 network, 8 optical media, 16 memory;
// 0 for others and for types that are not known.
int get_fs_voltype(const char* type);
