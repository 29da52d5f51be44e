#include "registry/registry_temp_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/regular_file.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLongestWait{1000};
constexpr std::chrono::milliseconds kPause{3};
constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr mode_t kMode = 0666;  // before the umask, until it is complete

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// A file system that has no locks is written as it was before there was one.
bool IsWithoutLocks(int error) {
  return error == ENOLCK || error == ENOSYS || error == ENOTSUP || error == EINVAL;
}

// Nobody else can reach it by another name or change it later.
bool IsOwn(const struct stat& info) {
  return info.st_nlink == 1 && info.st_uid == ::geteuid();
}

}  // namespace

CRegistryTempFile::~CRegistryTempFile() {
  if (m_File) ::flock(m_File.Get(), LOCK_UN);
}

CRegistryTempFile::Opening CRegistryTempFile::Open() {
  const Clock::time_point end = Clock::now() + kLongestWait;
  do {
    switch (TryOpen()) {
      case Attempt::kDone:
        return Opening::kDone;
      case Attempt::kNotOpened:
        return Opening::kNotOpened;
      case Attempt::kNotLocked:
        return Opening::kNotLocked;
      case Attempt::kBusy:
        std::this_thread::sleep_for(kPause);
        break;
      case Attempt::kAgain:
        break;
    }
  } while (Clock::now() < end);
  errno = EWOULDBLOCK;
  return Opening::kNotLocked;
}

// Only who holds the lock of the file that the path names may empty, rename or remove it. So after the lock was taken
// the path is looked at again: its last owner may have renamed the file.
CRegistryTempFile::Attempt CRegistryTempFile::TryOpen() {
  UniqueFd file = AboveStandardDescriptors(UniqueFd(::open(m_Path, kFlags, kMode)));
  if (!file) return errno == ELOOP || errno == ENXIO ? TakeAway() : Attempt::kNotOpened;
  struct stat opened {};
  if (::fstat(file.Get(), &opened) != 0) return Attempt::kNotOpened;
  if (!S_ISREG(opened.st_mode)) return TakeAway();
  if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0 && !IsWithoutLocks(errno))
    return errno == EWOULDBLOCK || errno == EINTR ? Attempt::kBusy : Attempt::kNotLocked;

  struct stat named {};
  if (::lstat(m_Path, &named) != 0) return errno == ENOENT ? Attempt::kAgain : Attempt::kNotLocked;
  if (!IsSameFile(opened, named)) return Attempt::kAgain;
  if (!IsOwn(named)) return TakeAway();
  if (::ftruncate(file.Get(), 0) != 0) return Attempt::kNotLocked;
  m_File = std::move(file);
  return Attempt::kDone;
}

CRegistryTempFile::Attempt CRegistryTempFile::TakeAway() const {
  return ::unlink(m_Path) == 0 || errno == ENOENT ? Attempt::kAgain : Attempt::kNotOpened;
}

FILE* CRegistryTempFile::MakeStream() const {
  UniqueFd copy(::fcntl(m_File.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  FILE* stream = copy ? ::fdopen(copy.Get(), "w") : nullptr;
  if (stream != nullptr) copy.Release();
  return stream;
}

bool CRegistryTempFile::IsInPlace() const {
  struct stat opened {};
  struct stat named {};
  if (::fstat(m_File.Get(), &opened) != 0 || ::lstat(m_Path, &named) != 0) return false;
  if (IsSameFile(opened, named)) return true;
  errno = ESTALE;
  return false;
}

void CRegistryTempFile::Remove() const {
  if (IsInPlace()) ::unlink(m_Path);
}
