#include "platform/replace_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <thread>
#include <utility>
#include <vector>

#include "platform/owned_text.h"
#include "platform/regular_file.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLongestWait{1000};
constexpr std::chrono::milliseconds kPause{3};
constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr mode_t kModeUntilComplete = 0600;
constexpr mode_t kModeOfOthers = 0077;
constexpr mode_t kModeBits = 07777;
constexpr size_t kLargestAttributes = 64 * 1024;  // the kernel's limit for all names and for one value
constexpr int kLongestChain = 40;                 // of symbolic links, as the kernel has it

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// A file system that has no locks is written as it was before there was one.
bool IsWithoutLocks(int error) {
  return error == ENOLCK || error == ENOSYS || error == ENOTSUP || error == EINVAL;
}

bool TryLock(int fd) {
  return ::flock(fd, LOCK_EX | LOCK_NB) == 0 || IsWithoutLocks(errno);
}

bool IsLockedByOther(int error) {
  return error == EWOULDBLOCK || error == EINTR;
}

bool IsOpenToOthers(const struct stat& info) {
  return (info.st_mode & kModeOfOthers) != 0;
}

// Nobody else can reach it by another name, change it later or hold its lock.
bool IsOwn(const struct stat& info) {
  return info.st_nlink == 1 && info.st_uid == ::geteuid() && !IsOpenToOthers(info);
}

// The names of a file's extended attributes. False when they cannot be listed.
bool ListAttributes(int fd, std::vector<std::string>& names) {
  std::string list(kLargestAttributes, '\0');
  const ssize_t length = ::flistxattr(fd, list.data(), list.size());
  for (const char* name = list.data(); name < list.data() + length; name += names.back().size() + 1) {
    names.emplace_back(name);
  }
  return length >= 0 || errno == ENOTSUP;
}

bool GetAttribute(int fd, const char* name, std::string& value) {
  value.resize(kLargestAttributes);
  const ssize_t length = ::fgetxattr(fd, name, value.data(), value.size());
  value.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return length >= 0;
}

bool CopyAttribute(int from, int to, const char* name) {
  std::string value;
  std::string present;
  if (!GetAttribute(from, name, value)) return false;
  if (GetAttribute(to, name, present) && present == value) return true;
  return ::fsetxattr(to, name, value.data(), value.size(), 0) == 0;
}

// Those that the new file got from its directory go when the old one does not have them.
bool CopyAttributes(int from, int to) {
  std::vector<std::string> names;
  std::vector<std::string> inherited;
  if (!ListAttributes(from, names) || !ListAttributes(to, inherited)) return false;
  for (const std::string& name : inherited) {
    if (std::ranges::find(names, name) == names.end()) ::fremovexattr(to, name.c_str());
  }
  return std::ranges::all_of(names, [=](const std::string& name) { return CopyAttribute(from, to, name.c_str()); });
}

// "/a/b" => "/a", "/b" => "/", "b" => "."
std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

}  // namespace

CTempFile::~CTempFile() {
  if (m_File) ::flock(m_File.Get(), LOCK_UN);
}

CTempFile::Opening CTempFile::Open(std::chrono::milliseconds longestWait) {
  const Clock::time_point end = Clock::now() + longestWait;
  bool isLeftOver = true;  // whenever it was looked at
  do {
    const Attempt attempt = TryOpen();
    isLeftOver = isLeftOver && attempt == Attempt::kBusyLeftOver;
    switch (attempt) {
      case Attempt::kDone:
        return kDone;
      case Attempt::kNotOpened:
        return kNotOpened;
      case Attempt::kNotLocked:
        return kNotLocked;
      case Attempt::kBusy:
      case Attempt::kBusyLeftOver:
        std::this_thread::sleep_for(kPause);
        break;
      case Attempt::kAgain:
        break;
    }
  } while (Clock::now() < end);
  if (isLeftOver && TakeAway() == Attempt::kAgain && TryOpen() == Attempt::kDone) return kDone;
  errno = EWOULDBLOCK;
  return kNotLocked;
}

// Only who holds the lock of the file that the path names may empty, rename or remove it. So after the lock was taken
// the path is looked at again: its last owner may have renamed the file.
CTempFile::Attempt CTempFile::TryOpen() {
  UniqueFd file = AboveStandardDescriptors(UniqueFd(::open(m_Path.c_str(), kFlags, kModeUntilComplete)));
  if (!file) return errno == ELOOP || errno == ENXIO ? TakeAway() : Attempt::kNotOpened;
  struct stat opened {};
  if (::fstat(file.Get(), &opened) != 0) return Attempt::kNotOpened;
  if (!S_ISREG(opened.st_mode)) return TakeAway();
  if (!TryLock(file.Get())) {
    if (!IsLockedByOther(errno)) return Attempt::kNotLocked;
    return IsOpenToOthers(opened) ? Attempt::kBusyLeftOver : Attempt::kBusy;
  }

  struct stat named {};
  if (::lstat(m_Path.c_str(), &named) != 0) return errno == ENOENT ? Attempt::kAgain : Attempt::kNotLocked;
  if (!IsSameFile(opened, named)) return Attempt::kAgain;
  if (!IsOwn(named)) return TakeAway();
  // Only where there is something: a file that was ever cut short is flushed by some file systems at its close.
  if (named.st_size > 0 && ::ftruncate(file.Get(), 0) != 0) return Attempt::kNotLocked;
  m_File = std::move(file);
  return Attempt::kDone;
}

CTempFile::Attempt CTempFile::TakeAway() const {
  return ::unlink(m_Path.c_str()) == 0 || errno == ENOENT ? Attempt::kAgain : Attempt::kNotOpened;
}

FILE* CTempFile::MakeStream() const {
  UniqueFd copy(::fcntl(m_File.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  FILE* stream = copy ? ::fdopen(copy.Get(), "w") : nullptr;
  if (stream != nullptr) copy.Release();
  return stream;
}

// The mode comes last: a change of owner takes bits of it away, and access lists change it.
bool CTempFile::TakeAttributesOf(int other) const {
  const int file = m_File.Get();
  struct stat info {};
  struct stat own {};
  if (::fstat(other, &info) != 0 || ::fstat(file, &own) != 0) return false;
  const bool isOwned = own.st_uid == info.st_uid && own.st_gid == info.st_gid;
  return (isOwned || ::fchown(file, info.st_uid, info.st_gid) == 0) && CopyAttributes(other, file) &&
         ::fchmod(file, info.st_mode & kModeBits) == 0;
}

bool CTempFile::Sync() const {
  return ::fsync(m_File.Get()) == 0;
}

bool CTempFile::IsInPlace() const {
  struct stat opened {};
  struct stat named {};
  if (::fstat(m_File.Get(), &opened) != 0 || ::lstat(m_Path.c_str(), &named) != 0) return false;
  if (IsSameFile(opened, named)) return true;
  errno = ESTALE;
  return false;
}

bool CTempFile::RenameTo(const char* path) const {
  return IsInPlace() && std::rename(m_Path.c_str(), path) == 0;
}

bool CTempFile::RenameToNew(const char* path) const {
  if (!IsInPlace()) return false;
  if (::renameat2(AT_FDCWD, m_Path.c_str(), AT_FDCWD, path, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // A file system or kernel without that flag. A second name does the same where there are such.
  if (::link(m_Path.c_str(), path) != 0) return false;
  Remove();
  return true;
}

void CTempFile::Remove() const {
  if (IsInPlace()) ::unlink(m_Path.c_str());
}

bool SyncDirectoryOf(const char* path) {
  const UniqueFd directory(::open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory && (::fsync(directory.Get()) == 0 || errno == EINVAL);
}

bool LockFile(int fd) {
  const Clock::time_point end = Clock::now() + kLongestWait;
  while (!TryLock(fd)) {
    if (!IsLockedByOther(errno) || Clock::now() >= end) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

std::string ResolvePath(const char* path) {
  std::string link = path;
  for (int length = 0; length < kLongestChain; ++length) {
    const MallocText directory(::realpath(DirectoryOf(link).c_str(), nullptr));
    if (directory == nullptr) return "";
    const std::string place = std::string(directory.get()) + "/" + link.substr(link.rfind('/') + 1);
    char target[PATH_MAX];
    const ssize_t size = ::readlink(place.c_str(), target, sizeof target);
    if (size < 0) return errno == EINVAL || errno == ENOENT ? place : "";
    link.assign(target, static_cast<size_t>(size));
    if (!link.starts_with('/')) link.insert(0, std::string(directory.get()) + "/");
  }
  errno = ELOOP;
  return "";
}
