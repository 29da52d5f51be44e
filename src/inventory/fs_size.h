#pragma once

#include <cstdint>

#include "inventory/mount_entry.h"

// Size figures of mounted file systems. One that cannot be asked, or does not answer within a second (fs_answer.h),
// counts as full: 100 % used with nothing available.

// All figures of a new entry.
void set_fs_sizes(mount_entry& entry);
// The usage; block count, block size and size as well when the device lies below /dev.
void refresh_fs_sizes(mount_entry& entry);

// count units of so many bytes in KiB, rounded down; the highest number when no 64 bits hold it.
uint64_t get_kib(uint64_t count, uint64_t unit);
// 0 to 100, rounded down; 100 for a file system without blocks.
uint32_t get_used_percent(uint64_t blocks, uint64_t available);
