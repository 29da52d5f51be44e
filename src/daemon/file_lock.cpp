#include "daemon/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/regular_file.h"
#include "trace/debug.h"

namespace {

constexpr mode_t kDirectoryMode = 0711;
constexpr mode_t kFileMode = 0644;
constexpr int kRetryMs = 100;
constexpr size_t kMaxOwnerInfo = 255;  // characters read of another process' lock file

// "/var/lock/ravd.lock" => "/var/lock"; a name without a further slash is its own directory
std::string DirectoryOf(const std::string& fileName) {
  const size_t slash = fileName.size() < 2 ? std::string::npos : fileName.rfind('/', fileName.size() - 2);
  return slash == std::string::npos || slash == 0 ? fileName : fileName.substr(0, slash);
}

bool MakeDirectory(const std::string& path) {
  return ::mkdir(path.c_str(), kDirectoryMode) == 0 || errno == EEXIST;
}

// Waits until the lock is granted.
bool LockExclusively(int fd) {
  int result;
  do {
    result = ::flock(fd, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

}  // namespace

CFileLock::~CFileLock() {
  if (fd < 0) return;
  TRACE(5, "\nCFileLock           :   release file lock using file %s", lockFileName);
  // While the lock is still held, so that nobody can lock a file that is about to go; but not a file of somebody else
  // who came after this one was removed by hand.
  if (IsFileAtPath()) ::unlink(lockFileName);
  Close();
}

bool CFileLock::Lock(const char* lockPath, const char* ownerName, int timeoutMs) {
  if (lockPath == nullptr || *lockPath == '\0') return false;
  TRACE(5, "\nCFileLock           :   apply file lock using file %s...", lockPath);
  const std::string fileName = std::string(lockPath) + ".lock";
  std::snprintf(lockFileName, sizeof lockFileName, "%s", fileName.c_str());
  TRACE(3, "\nCFileLock::Lock     : LockFileName.c_str() = %s\n", fileName.c_str());
  const std::string directory = DirectoryOf(fileName);
  TRACE(3, "\nCFileLock::Lock     : LockFileDir.c_str() = %s\n", directory.c_str());
  if (!CreateLockDirectory(directory)) {
    TRACE(1, "\nCFileLock           : ## ERROR! Failed to open/create lock directory %s (LastError = 0x%08X)",
          directory.c_str(), static_cast<unsigned int>(LastError));
    return false;
  }
  Close();
  const int nrRetries = timeoutMs / kRetryMs;
  TRACE(3, "\nCFileLock::Lock     : nrRetries = %d\n", nrRetries);
  const bool fileIsLockable = IsLockable(nrRetries);
  TRACE(3, "\nCFileLock::Lock     : fileIsLockable = %s\n", fileIsLockable ? "true" : "false");
  if (!fileIsLockable) {
    ReadOwner();
    return false;
  }
  return TakeLock(ownerName);
}

bool CFileLock::CreateLockDirectory(const std::string& directory) {
  if (directory.empty() || directory[0] != '/') return false;
  if (directory == "/") return true;
  for (size_t end = 0; end != std::string::npos;) {
    end = directory.find('/', end + 1);
    if (std::min(end, directory.size()) >= kPathSize) return true;  // of the name that is cut
    if (!MakeDirectory(directory.substr(0, end))) {
      LastError = errno;
      return false;
    }
  }
  return true;
}

bool CFileLock::IsLockable(int nrRetries) {
  struct stat info {};
  if (::stat(lockFileName, &info) != 0) {
    TRACE(3, "\nCFileLock::Lock     : lockfile %s does NOT exist!\n", lockFileName);
    return true;
  }
  TRACE(3, "\nCFileLock::Lock     : lockfile %s EXISTS!\n", lockFileName);
  fd = OpenRegularFile(lockFileName, O_RDONLY | O_NOFOLLOW).Release();
  if (fd < 0) {
    LastError = errno;
    TRACE(3, "\nCFileLock::Lock     : Could NOT open lockfile %s\n", lockFileName);
    return false;
  }
  isOpen = true;
  TRACE(3, "\nCFileLock::Lock     : Successfully opened lockfile %s\n", lockFileName);
  TRACE(3, "\nCFileLock::Lock     : Trying to lock lockfile %s\n", lockFileName);
  const bool lockable = TryProbe(nrRetries);
  Close();
  return lockable;
}

bool CFileLock::TryProbe(int nrRetries) {
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
      TRACE(3, "\nCFileLock::Lock     : Successfully locked lockfile %s\n", lockFileName);
      if (::flock(fd, LOCK_UN) != 0) LastError = errno;
      return true;
    }
    LastError = errno;
    if (LastError != EWOULDBLOCK) {
      TRACE(3, "\nCFileLock::Lock     : Could NOT lock lockfile %s\n", lockFileName);
      return false;
    }
    TRACE(3, "\nCFileLock::Lock     : Error Sharing Violation while trying to lock lockfile %s\n", lockFileName);
    --nrRetries;
    ::usleep(kRetryMs * 1000);
    if (nrRetries < 1) return false;
  }
}

void CFileLock::ReadOwner() {
  const UniqueFd file = OpenRegularFile(lockFileName, O_RDONLY | O_NOFOLLOW);
  if (!file) {
    LastError = errno;
    return;
  }
  char text[kMaxOwnerInfo];
  const ssize_t length = ::read(file.Get(), text, sizeof text);
  if (length < 0) LastError = errno;
  ownerInfo.assign(text, length > 0 ? static_cast<size_t>(length) : 0);
}

bool CFileLock::TakeLock(const char* ownerName) {
  // A file that its last holder deleted between opening and locking is not the lock any more: open the new one.
  while (OpenLocked()) {
    if (IsFileAtPath()) {
      WriteOwner(ownerName);
      return true;
    }
    Close();
  }
  return false;
}

bool CFileLock::OpenLocked() {
  UniqueFd file = OpenRegularFile(lockFileName, O_RDWR | O_CREAT, kFileMode);
  if (!file) {
    LastError = errno;
    return false;
  }
  if (!LockExclusively(file.Get())) {
    LastError = errno;
    return false;
  }
  fd = file.Release();
  isOpen = isLocked = true;
  return true;
}

bool CFileLock::IsFileAtPath() const {
  struct stat locked {};
  struct stat atPath {};
  return ::fstat(fd, &locked) == 0 && ::stat(lockFileName, &atPath) == 0 && locked.st_ino == atPath.st_ino &&
         locked.st_dev == atPath.st_dev;
}

// Emptied only now that the lock is held: a starter that lost the race must not wipe the holder's name.
void CFileLock::WriteOwner(const char* ownerName) {
  std::string owner = ownerName != nullptr ? ownerName : "";
  owner.append("#").append(std::to_string(::getpid()));
  LastError = 0;
  if (::ftruncate(fd, 0) != 0 || ::write(fd, owner.data(), owner.size()) < 0) LastError = errno;
  ::fsync(fd);
}

void CFileLock::Close() {
  if (fd < 0) return;
  if (isLocked) {
    ::fsync(fd);
    ::flock(fd, LOCK_UN);
  }
  ::close(fd);
  fd = -1;
  isOpen = isLocked = false;
}
