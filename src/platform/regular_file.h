#pragma once

#include <sys/types.h>

#include <cstdio>

#include "platform/unique_fd.h"

// Opening of files at fixed paths of a root process, hardened against what somebody may have put there instead. Never
// traces; any thread may call it. Always close-on-exec, and never under the number of a standard descriptor, even where
// those are closed. On failure there is no descriptor and errno tells why.

// The same file under a number above those of the standard descriptors: a module that closed them still prints to them.
UniqueFd AboveStandardDescriptors(UniqueFd file);

// Opens a regular file; a pipe or a device at the path is refused (ENOTSUP) without waiting for its other side. For
// writing, a symbolic link at the path (ELOOP) and a file that has further names (EMLINK) are refused, too, and the
// file is emptied only after that. flags as for open, mode for a file that is made, before the umask.
UniqueFd OpenRegularFile(const char* path, int flags, mode_t mode = 0);

// The same as a stream, for the mode of fdopen that fits the flags; null on failure.
FILE* OpenRegularStream(const char* path, int flags, mode_t mode, const char* streamMode);

// Whether anybody but root may write to what is at the path: by its mode bits or as its owner or group. False for what
// is not there.
bool IsWritableForOthers(const char* path);
