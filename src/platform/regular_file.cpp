#include "platform/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

// 0, or the errno of the refusal.
int Examine(int fd, bool isForWriting) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) return errno;
  if (S_ISDIR(info.st_mode)) return isForWriting ? EISDIR : 0;  // reading one fails by itself
  if (!S_ISREG(info.st_mode)) return ENOTSUP;
  return isForWriting && info.st_nlink > 1 ? EMLINK : 0;
}

}  // namespace

UniqueFd AboveStandardDescriptors(UniqueFd file) {
  if (!file || file.Get() > STDERR_FILENO) return file;
  return UniqueFd(::fcntl(file.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

UniqueFd OpenRegularFile(const char* path, int flags, mode_t mode) {
  const bool isForWriting = (flags & O_ACCMODE) != O_RDONLY;
  const int hardened = O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (isForWriting ? O_NOFOLLOW : 0);
  UniqueFd file = AboveStandardDescriptors(UniqueFd(::open(path, (flags & ~O_TRUNC) | hardened, mode)));
  if (!file) {
    if (errno == ENXIO) errno = ENOTSUP;  // a pipe without a reader
    return file;
  }
  int error = Examine(file.Get(), isForWriting);
  if (error == 0 && (flags & O_TRUNC) != 0 && ::ftruncate(file.Get(), 0) != 0) error = errno;
  if (error != 0) {
    file.Reset();
    errno = error;
  }
  return file;
}

FILE* OpenRegularStream(const char* path, int flags, mode_t mode, const char* streamMode) {
  UniqueFd file = OpenRegularFile(path, flags, mode);
  FILE* stream = file ? ::fdopen(file.Get(), streamMode) : nullptr;
  if (stream != nullptr) file.Release();
  return stream;
}

bool IsWritableForOthers(const char* path) {
  struct stat info {};
  if (::stat(path, &info) != 0) return false;
  return (info.st_mode & S_IWOTH) != 0 || (info.st_uid != 0 && (info.st_mode & S_IWUSR) != 0) ||
         (info.st_gid != 0 && (info.st_mode & S_IWGRP) != 0);
}
