#pragma once

#include <cstdint>
#include <string>

namespace ravctl {

// Makes the captured tree of another machine the root of this process, for good: a directory, or a bundle that
// `ravctl bundle` wrote. From then on the real absolute paths of the library show what was captured, and nothing of
// this machine is asked:
//
// - the tree is mounted read-only, in a mount namespace that ends with the process; the tree itself is never touched
// - a bundle is unpacked into memory, by a child that has no rights left, and vanishes with the process
// - the process is an ordinary user without any capability and with limits (see confine.h): an ordinary caller itself,
//   inside a user namespace; for root the owner of the tree, or nobody (65534) for a tree of root and for a bundle.
//   What root alone may read in a tree of root is shown to it where the file system can map owners; elsewhere it stays
//   closed
// - nothing in the tree can be executed or loaded: /usr, /bin, /sbin and /lib are always those of this machine, for the
//   commands that the library runs, and so is /dev/null; the tree's etc/ld.so.preload and etc/ld.so.cache are closed
// - device files of the tree are plain files or cannot be opened: no ioctl reaches a device of this machine. Pipes are
//   closed, so that nothing waits for their other end; somebody who may change a tree meanwhile can still make one
// - the network namespace is an empty one; statfs and statvfs fail with ENOSYS
// - the environment variables that configure the library or the dynamic loader are gone
//
// The current directory becomes the root. For a process with one thread that has not entered a tree yet; a command that
// compares trees enters each in a child (RunInChild).
//
// Throws CommandError: kInputMissing for a tree that is not there, kInputDamaged for a bundle that cannot be unpacked
// and a tree that no machine has (hundreds of names at its top, deeper than 128 directories, more than 4,000,000
// files), and kPermission where the system allows no private namespaces.
void EnterSysroot(const std::string& directoryOrBundle);

// Whether this process has a captured tree as its root.
bool IsInSysroot();

// Seconds since 1970 from which times count back: those of the clock, and in a bundle's tree those of its capture, when
// the manifest was written.
int64_t PresentTime();

}  // namespace ravctl
