#pragma once

#include <sys/types.h>

namespace ravctl {

// Who reads what strangers made.
struct Reader {
  uid_t user = 0;
  gid_t group = 0;
};

// Takes the rights of root, and what a stranger's file could use up, from this process and its children, for good:
//
// - it runs under the reader's numbers, without further groups; a caller that has those numbers already stays who it is
// - no capability is left, nor can one be had again by running a program
// - 4 GiB of memory (not under a sanitizer, which needs more), ten minutes of processor time, 512 processes, no core
//   file; lower limits that are set already stay
// - statfs and fstatfs, which see the file system below a captured tree, fail with ENOSYS
//
// For a process with one thread, root in its user namespace. Throws CommandError (permission) when a right cannot be
// given up.
void Confine(const Reader& reader);

}  // namespace ravctl
