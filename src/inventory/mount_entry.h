#pragma once

#include <cstdint>

// Where an entry of the mount table comes from:
constexpr uint32_t kMountedList = 1;     // /etc/mtab
constexpr uint32_t kConfiguredList = 2;  // /etc/fstab
constexpr uint32_t kVmfsList = 4;        // /vmfs, of ESX hosts

// What came of the last question for the size of a file system.
enum fs_answer : uint32_t {
  kNotAsked = 0,  // it is not mounted, or nobody got to it; the figures are those of before
  kAnswered = 1,  // the figures are those of the system
  kRefused = 2,   // statvfs failed: counts as full
  kSilent = 3,    // did not answer; the figures are those of before, 0 when there were none
};

// One file system of the mount table. One heap block: this header, then the three texts, each NUL-terminated.
struct mount_entry {
  uint64_t device_length;       // characters, without the NUL
  const char* device;           // mount source; "" for VMFS
  uint64_t mount_point_length;  // characters, without the NUL
  const char* mount_point;      // the directory that it is mounted on
  uint64_t type_length;         // characters, without the NUL
  const char* type;             // "ext4"
  uint32_t type_flags;          // 0 for a type without a flag
  uint32_t mounted;             // 1 for entries of the mounted list and VMFS
  uint64_t blocks;              // in the file system's own unit
  uint64_t available_blocks;    // of these, for everybody
  uint64_t size;                // KiB
  uint32_t block_size;          // units of 512 bytes
  uint32_t source;              // kMountedList, kConfiguredList or kVmfsList
  uint64_t available;           // KiB
  uint32_t used_percent;        // 0-100; 100 for a file system without blocks
  mount_entry* next;            // null for the last entry
  fs_answer answer;             // whether the figures are those of now
};
