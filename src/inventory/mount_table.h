#pragma once

#include <atomic>
#include <cstdio>
#include <ctime>

#include "inventory/mount_entry.h"

// The process-wide table of file systems: the mounted ones (/etc/mtab), the configured ones (/etc/fstab) and, on ESX
// hosts, the VMFS volumes (/vmfs).
//
// Entries are ordered by source and within a source by mount point. They belong to the table and live until their
// source is read again; nothing frees the table at exit. All state is static and unguarded: one thread at a time, as
// CSystemVolume::ScanSystemVolumes sees to.
//
// NFS mounts are left out before anybody asks for their size. No other one holds a caller up for good either, see
// fs_sizes.h: whoever does not answer keeps the figures of before, also when its source is read again.
// Failures show in the results; a source that cannot be read keeps its previous entries, as does one that memory runs
// out for (std::bad_alloc).
//
// stop, where it is given: when it becomes true, no further silent file system is waited for.

// Flags of get_mount_table beside the source: leave out a mount point that the table already has.
constexpr unsigned int kOnlyNewMountPoints = 0x100;

// build_fs_table, its result kept as the number of file systems.
int get_MountedFileSystems(const std::atomic<bool>* stop = nullptr);

// Reads again the sources that changed, each at the earliest 60 seconds after the modification time last seen, and
// returns the count: the entries of the mounted list when that was last read and what each reading of VMFS since then
// added. The configured list does not count.
//
// A clock that was set back hides nothing: a modification time last seen that is still to come counts as old, and any
// other one as newer. /etc/mtab may be a link to the kernel's own list. That has no modification time of use: the
// kernel is asked whether the mounts changed, at the earliest 60 seconds of uptime after it was last read.
int build_fs_table();
int build_fs_table(time_t now, time_t uptime, const std::atomic<bool>* stop = nullptr);

// Reads one source: flags are the source, and for the configured list kOnlyNewMountPoints; entries with the option
// "noauto" are left out of the configured list. Returns the number of entries added, -1 when the file cannot be opened.
int get_mount_table(const char* file, unsigned int flags);

// As get_mount_table for the mounted and the configured list, from an open mount table. The stream stays open.
int read_mount_table(FILE* table, unsigned int flags);

// The entry at that position, from 0, with its size figures brought up to date when it is mounted; null past the end.
// Borrowed until its source is read again.
mount_entry* get_fs_table(int index);

// The first entry, for a walk along the list, with the figures of the first count entries brought up to date; null for
// none. What get_MountedFileSystems has just asked is not asked twice.
const mount_entry* measure_fs_table(int count, const std::atomic<bool>* stop);
