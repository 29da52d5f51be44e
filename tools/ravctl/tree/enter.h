#pragma once

#include <string>

namespace ravctl {

// Makes the captured tree of another machine the root of this process, for good: a directory, or a bundle that
// `ravctl bundle` wrote. From then on the real absolute paths of the library show what was captured, and nothing of
// this machine is asked:
//
// - the tree is mounted read-only, in a mount namespace that ends with the process; the tree itself is never touched
// - a bundle is unpacked into memory and vanishes with the process
// - device files of the tree are plain files or cannot be opened: no ioctl reaches a device of this machine
// - the network namespace is an empty one; statfs and statvfs fail with ENOSYS
// - the environment variables that configure the library are gone
// - nothing in the tree can be executed: /usr, /bin, /sbin and /lib are always those of this machine, for the commands
//   that the library runs, and so is /dev/null
//
// An ordinary user gets the namespaces inside a user namespace and keeps their user number. The current directory
// becomes the root. For a process with one thread that has not entered a tree yet; a command that compares trees enters
// each in a child (RunInChild).
//
// Throws CommandError: kInputMissing for a tree that is not there, kInputDamaged for a bundle that cannot be unpacked,
// kPermission where the system allows no private namespaces.
void EnterSysroot(const std::string& directoryOrBundle);

// Whether this process has a captured tree as its root.
bool IsInSysroot();

}  // namespace ravctl
