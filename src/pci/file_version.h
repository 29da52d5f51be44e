#pragma once

#include <sys/types.h>

#include <cstdint>

// The state of a file, to tell later without reading it whether it is still the same:
//
//   const FileVersion now = FileVersion::Of(fd);
//   if (now == read) return names;   // else read on, and keep `now` as the version that was read
//
// Taken before the file is read, so that a change while it is read shows the next time. A default one and one of a file
// that could not be asked equal none, and so does one of a file that was changed in this very tick of the file system's
// clock: a further change would leave the same time. Never traces; any thread may use its own.
struct FileVersion {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  int64_t changedSeconds = 0;
  int64_t changedNanoseconds = 0;
  bool isSettled = false;

  static FileVersion Of(int fd);
};

bool operator==(const FileVersion& left, const FileVersion& right);
