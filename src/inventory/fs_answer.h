#pragma once

#include <sys/statvfs.h>

#include "inventory/mount_entry.h"

// What is mounted where, told from the list of mounts before any of them is asked. The state is static and unguarded,
// as that of the mount table.
void forget_mounts();
void note_mount(const char* mountPoint, const char* type);

// statvfs on the mount point of an entry, for file systems that may never answer: those that another machine or an
// ordinary process serves, and what is mounted below them. Whoever waits for such an answer cannot always be ended, not
// even by SIGKILL, so a child process asks, and after one second the file system counts as one that cannot be asked; a
// further one of the same scan after half of that, and so on down to a tenth of a second: four silent ones hold a scan
// up for two seconds, twenty for less than four. It is asked again after a minute, but never while a child still waits:
// at most one is left behind for a mount point, with no descriptor of this process. Everything else is asked directly.
//
// False when there is no answer.
bool ask_fs_info(const mount_entry& entry, struct statvfs& info);
