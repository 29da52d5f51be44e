#pragma once

#include <sys/statvfs.h>

#include "inventory/mount_entry.h"

// statvfs on the mount point of an entry, for file systems that may never answer: those that another machine or an
// ordinary process serves. Whoever waits for such an answer cannot always be ended, not even by SIGKILL, so a child
// process asks, and after one second the file system counts as one that cannot be asked. It is asked again after a
// minute, but never while a child still waits: at most one is left behind for a mount point, with no descriptor of this
// process. Everything else is asked directly.
//
// False when there is no answer. The state is static and unguarded, as that of the mount table.
bool ask_fs_info(const mount_entry& entry, struct statvfs& info);
