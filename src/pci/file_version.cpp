#include "pci/file_version.h"

#include <sys/stat.h>

#include <ctime>

FileVersion FileVersion::Of(int fd) {
  // The clock that file systems take their times from, read first: a later change has a later time.
  timespec tick{};
  struct stat info {};
  if (::clock_gettime(CLOCK_REALTIME_COARSE, &tick) != 0 || ::fstat(fd, &info) != 0) return {};
  const bool isSettled = info.st_ctim.tv_sec != tick.tv_sec || info.st_ctim.tv_nsec != tick.tv_nsec;
  return {info.st_dev, info.st_ino, info.st_size, info.st_ctim.tv_sec, info.st_ctim.tv_nsec, isSettled};
}

bool operator==(const FileVersion& left, const FileVersion& right) {
  return left.isSettled && right.isSettled && left.device == right.device && left.inode == right.inode &&
         left.size == right.size && left.changedSeconds == right.changedSeconds &&
         left.changedNanoseconds == right.changedNanoseconds;
}
