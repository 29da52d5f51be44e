#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace ravctl {

// Mounts of the private mount namespace that a captured tree is shown in, by descriptors. Failures are thrown as
// CommandError (permission): "cannot enter the tree: WHAT: ...".

// Throws for a call that failed, by errno.
void RequireEntered(bool isDone, std::string_view what);

// A file system in memory, owned by the user, mounted over the root of the namespace (which the process's own root
// stays below) and known by its descriptor.
UniqueFd MountMemory(uint64_t size, uint64_t files, uid_t user);

// A user namespace for mounts in which the files of an owner are those of another one. None where the system gives
// none.
UniqueFd MapOwner(uid_t owner, uid_t shown);

// Shows what a descriptor stands for at a place that exists (an empty name: the directory itself), with further
// attributes (MOUNT_ATTR_...). owners: as of MapOwner, or -1; left out where the file system cannot map.
void ShowAt(int from, int directory, const std::string& name, uint64_t attributes, int owners = -1);

// Changes a mount, nothing below it.
void Restrict(int mount, uint64_t attributes);

}  // namespace ravctl
