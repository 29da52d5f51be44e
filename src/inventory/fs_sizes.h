#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string_view>

#include "inventory/mount_entry.h"

// Sizes of mounted file systems, from statvfs, without waiting for one that never answers.
//
// Every question may hang for good, in a way that not even SIGKILL ends: the file system of another machine or of an
// ordinary process, whatever is mounted over a path or above it, an overlay on such a layer. So this process asks none.
// A helper child walks all mount points and sends one record for each; when the next record takes longer than a second
// the helper is ended, and another one goes on behind that mount point. The helper keeps nothing of this process open,
// blocks every signal and makes system calls alone. One that cannot be ended is never waited for; the scan after its
// end takes it out of the list of processes.
//
// A mount point that was silent is asked again after a minute, behind all others, unless a helper still hangs there.
// Until then the silence stands for
//   - what lies below it, as the way there leads through it;
//   - the other mounts of its server, where the mount tells one (get_fs_server): a hundred dead mounts of a server cost
//     one second. Each minute another one of them is asked first, so that a healthy one among them is found.
// At most five silences are waited for in one call: with more dead servers than that, what comes behind is asked by the
// next one. Nothing is said about a file system that was not asked.

// What statvfs told.
struct fs_info {
  fs_answer answer = kNotAsked;
  uint64_t blocks = 0;
  uint64_t free_blocks = 0;
  uint64_t available_blocks = 0;
  uint64_t unit = 0;  // bytes of such a block (f_frsize)
  uint64_t block_size = 0;
};

struct fs_question {
  const char* mount_point;
  std::string_view server;  // "" stands alone
  fs_info info;             // the answer
};

// Answers all questions about different mount points. When stop becomes true, those behind the next silence are not
// asked. One thread at a time.
void ask_fs_infos(std::span<fs_question> questions, const std::atomic<bool>* stop);

// What is likely to be dead together with a file system.
//   "nas:/a", "nfs4" => "nas"    "//nas/a", "cifs" => "//nas"    "me@host:", "fuse.sshfs" => "me@host"
//   "portal", "fuse.portal" => "portal": one program serves them    "/dev/sda1", "overlay", "none" => ""
std::string_view get_fs_server(std::string_view source, std::string_view type);

// Puts an answer into an entry: everything for a new one; for others the usage, and the totals as well when the device
// lies below /dev. A refusal counts as full, with nothing available. Silence leaves the figures as they were.
void set_fs_sizes(mount_entry& entry, const fs_info& info, bool isNew);

// count units of so many bytes in KiB, rounded down; the highest number when no 64 bits hold it.
uint64_t get_kib(uint64_t count, uint64_t unit);
// 0 to 100, rounded down; 100 for a file system without blocks.
uint32_t get_used_percent(uint64_t blocks, uint64_t available);
