#include "inventory/fs_size.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "inventory/fs_answer.h"
#include "trace/debug.h"

namespace {

__extension__ typedef unsigned __int128 Wide;  // a block count times a block size

void SetTotals(mount_entry& entry, const struct statvfs& info) {
  entry.blocks = info.f_blocks;
  entry.size = get_kib(info.f_blocks, info.f_frsize);
  entry.block_size = static_cast<uint32_t>(info.f_bsize / 512);
}

void SetUsage(mount_entry& entry, const struct statvfs& info) {
  entry.available_blocks = info.f_bavail;
  entry.available = get_kib(info.f_bavail, info.f_frsize);
  entry.used_percent = get_used_percent(info.f_blocks, info.f_bavail);
}

void SetNothingAvailable(mount_entry& entry) {
  entry.used_percent = 100;
  entry.available = 0;
  entry.available_blocks = 0;
}

}  // namespace

uint64_t get_kib(uint64_t count, uint64_t unit) {
  const Wide size = unit % 1024 == 0 ? Wide{count} * (unit / 1024) : Wide{count} * unit / 1024;
  return static_cast<uint64_t>(std::min(size, Wide{std::numeric_limits<uint64_t>::max()}));
}

uint32_t get_used_percent(uint64_t blocks, uint64_t available) {
  if (blocks == 0) return 100;
  if (available >= blocks) return 0;
  return static_cast<uint32_t>(Wide{blocks - available} * 100 / blocks);
}

void set_fs_sizes(mount_entry& entry) {
  struct statvfs info {};
  if (!ask_fs_info(entry, info)) {
    SetNothingAvailable(entry);
    return;
  }
  TRACE(3, "\nadd_mount_entry: fs '%s' f_blocks %lld f_frsize %ld f_bsize %ld f_bfree %lld f_bavail %lld",
        entry.mount_point, static_cast<long long>(info.f_blocks), static_cast<long>(info.f_frsize),
        static_cast<long>(info.f_bsize), static_cast<long long>(info.f_bfree), static_cast<long long>(info.f_bavail));
  SetTotals(entry, info);
  SetUsage(entry, info);
}

void refresh_fs_sizes(mount_entry& entry) {
  struct statvfs info {};
  if (!ask_fs_info(entry, info)) {
    SetNothingAvailable(entry);
    return;
  }
  TRACE(3, "\nget_fs_table: fs '%s' f_blocks %lld f_frsize %ld f_bsize %ld f_bfree %lld f_bavail %lld\n",
        entry.mount_point, static_cast<long long>(info.f_blocks), static_cast<long>(info.f_frsize),
        static_cast<long>(info.f_bsize), static_cast<long long>(info.f_bfree), static_cast<long long>(info.f_bavail));
  if (std::string_view(entry.device).starts_with("/dev/")) SetTotals(entry, info);
  SetUsage(entry, info);
}
