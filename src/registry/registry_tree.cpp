// The process-wide registry tree: its state, loading with the fallback files and saving through the temporary file.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "platform/cancellation.h"
#include "platform/descriptor_io.h"
#include "platform/never_destroyed.h"
#include "platform/regular_file.h"
#include "platform/replace_file.h"
#include "platform/unique_fd.h"
#include "registry/registry.h"
#include "trace/debug.h"

namespace {

constexpr mode_t kRegistryMode = 0644;

constinit NeverDestroyed<CRegistryNode> rootNode;
constinit NeverDestroyed<CCriticalSection> lockOfClass;

struct RootKeyRow {
  const char* name;
  CRegistryNode** handle;
};

constexpr auto kRootKeys = std::to_array<RootKeyRow>({
    {"HKEY_LOCAL_MACHINE", &CRegistry::HKEY_LOCAL_MACHINE},
    {"HKEY_CURRENT_USER", &CRegistry::HKEY_CURRENT_USER},
    {"HKEY_USERS", &CRegistry::HKEY_USERS},
    {"HKEY_CLASSES_ROOT", &CRegistry::HKEY_CLASSES_ROOT},
    {"HKEY_CURRENT_CONFIG", &CRegistry::HKEY_CURRENT_CONFIG},
});

// What a root key handle pointed to stays for good, deleted or not: plain copies of the handle may be anywhere.
struct RetiredKey {
  CRegistryNode* node;
  RetiredKey* next;
};

constinit std::atomic<RetiredKey*> retiredKeys = nullptr;

void SetRootKey(const RootKeyRow& row, CRegistryNode* node) {
  CRegistryNode* old = std::exchange(*row.handle, node);
  auto* retired = old != nullptr ? new (std::nothrow) RetiredKey{old, retiredKeys} : nullptr;
  if (retired == nullptr) return;
  while (!retiredKeys.compare_exchange_weak(retired->next, retired)) {
  }
}

class File {
 public:
  explicit File(FILE* file) : m_File(file) {}
  ~File() { Close(); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  FILE* Get() const { return m_File; }
  bool Close() {
    FILE* file = std::exchange(m_File, nullptr);
    return file == nullptr || std::fclose(file) == 0;
  }

 private:
  FILE* m_File;
};

bool TraceFailure(const char* what, const char* path) {
  const int error = errno;
  TRACE(1, "CRegistry: ERROR: Cannot %s \"%s\" (errno=%d; %s)\n", what, path, error, std::strerror(error));
  return false;
}

// A file at a moment. One that was written to since is not the same.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};

  static FileIdentity Of(const struct stat& info) { return {info.st_dev, info.st_ino, info.st_size, info.st_mtim}; }
  bool Is(const struct stat& info) const {
    return device == info.st_dev && inode == info.st_ino && size == info.st_size &&
           modified.tv_sec == info.st_mtim.tv_sec && modified.tv_nsec == info.st_mtim.tv_nsec;
  }
};

// What this process knows about the registry file. Guarded by the class lock.
enum class Knowledge {
  kNothing,  // it was read or is not there
  kUnread,   // it or its backup is there and was not read whole: the tree lacks what a save would then lose
  kRefused,  // it was read and holds no value: it never takes the place of the backup, which may be all that is left
  kWritten,  // it holds what this process wrote
};
constinit Knowledge knowledge = Knowledge::kNothing;
constinit FileIdentity refusedFile;  // as long as it is the one that kRefused means

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{1};         // with another saver
constexpr std::chrono::milliseconds kImpatience{5};  // after it was in vain,
constexpr std::chrono::seconds kImpatientTime{5};    // for so long
constinit Clock::time_point patienceReturns;         // guarded by the class lock

// The errors that say that there is no file to read at a path. Behind any other a good one may lie.
constexpr int kNothingThere[] = {0, ENOENT, ENOTDIR, EISDIR, ELOOP, ENOTSUP};

bool IsNothingThere(int error) {
  return std::ranges::find(kNothingThere, error) != std::end(kNothingThere);
}

// How a file was read that did not load.
struct FileReading {
  int error = 0;  // of the call that failed; 0: all was read and holds no value
  FileIdentity file;
};

bool ReadFile(const char* path, CRegistryNode& node, FileReading& reading) {
  const File file(OpenRegularStream(path, O_RDONLY, 0, "r"));
  if (file.Get() == nullptr) {
    reading.error = errno;
    TRACE(1, "CRegistry: WARNING: Could not open \"%s\"\n", path);
    return false;
  }
  struct stat info {};
  if (::fstat(::fileno(file.Get()), &info) != 0) {
    reading.error = errno;
  } else if (info.st_size == 0) {
    TRACE(1, "CRegistry: WARNING: The length of \"%s\" is not sufficient\n", path);
    return false;
  }
  reading.file = S_ISREG(info.st_mode) ? FileIdentity::Of(info) : FileIdentity();
  const bool isTaken = node.restoreNode(file.Get());
  const bool isCut = std::ferror(file.Get()) != 0;  // what is missing would be missing from the next save
  if (isCut) reading.error = errno;
  if (isTaken && !isCut) return true;
  TRACE(1, "CRegistry: WARNING: Node restoring from \"%s\" failed - check the content of this file\n", path);
  return false;
}

// Complete and on the disk when this is true.
bool WriteContent(CRegistryNode& root, const CTempFile& temp, File& file, const char* path) {
  std::setvbuf(file.Get(), nullptr, _IONBF, 0);  // the text comes in large blocks
  try {
    root.dumpNode(file.Get());
  } catch (const std::exception&) {
    errno = ENOMEM;
    return TraceFailure("write", path);
  }
  if (std::fflush(file.Get()) != 0 || std::ferror(file.Get()) != 0) return TraceFailure("write", path);
  if (!temp.Sync()) return TraceFailure("sync", path);
  return file.Close() || TraceFailure("close", path);
}

// False when that cannot be told.
bool HaveSameContent(const char* one, const char* other) {
  const UniqueFd files[] = {OpenRegularFile(one, O_RDONLY), OpenRegularFile(other, O_RDONLY)};
  if (!files[0] || !files[1]) return false;
  constexpr size_t kBlock = 32 * 1024;
  const auto bytes = std::unique_ptr<char[]>(new (std::nothrow) char[2 * kBlock]);
  ssize_t count = bytes != nullptr ? 1 : 0;
  bool isSame = bytes != nullptr;
  while (isSame && count > 0) {
    count = ReadSome(files[0].Get(), bytes.get(), kBlock);
    isSame = count >= 0 && ReadSome(files[1].Get(), bytes.get() + kBlock, kBlock) == count &&
             std::memcmp(bytes.get(), bytes.get() + kBlock, static_cast<size_t>(count)) == 0;
  }
  return isSame;
}

// Whether the registry file shall become the backup: when it has content, other than what takes its place, and loads.
// True when it could be told.
bool LookForContent(const char* path, const char* temp, off_t newSize, bool& hasContent) {
  struct stat info {};
  const bool isThere = ::stat(path, &info) == 0;
  hasContent = isThere && S_ISREG(info.st_mode) && info.st_size > 0 &&
               !(knowledge == Knowledge::kRefused && refusedFile.Is(info)) &&
               !(info.st_size == newSize && HaveSameContent(path, temp));
  return isThere || IsNothingThere(errno) || TraceFailure("examine", path);
}

// Gives the registry file its second name, so that it is there for whoever loads. Where a file system has no second
// names it is moved, and is missing until the new one takes its place.
bool KeepAsBackup(const char* registry, const char* backup) {
  if ((::unlink(backup) == 0 || errno == ENOENT) && ::link(registry, backup) == 0) return true;
  return std::rename(registry, backup) == 0 || TraceFailure("rename", registry);
}

// The new file takes the registry's place. When that fails after the old one was moved away, the old one comes back.
bool RotateFiles(const CTempFile& temp, const char* tempPath, const char* registry, const char* backup) {
  struct stat info {};
  bool hasOld = false;
  if (::fstat(temp.Get(), &info) != 0) return TraceFailure("examine", tempPath);
  if (!LookForContent(registry, tempPath, info.st_size, hasOld)) return false;
  if (!temp.IsInPlace()) return TraceFailure("rename", tempPath);
  if (hasOld && !KeepAsBackup(registry, backup)) return false;
  const bool hasMode = ::fchmod(temp.Get(), kRegistryMode) == 0;
  if (hasMode && temp.RenameTo(registry)) return true;
  TraceFailure(hasMode ? "rename" : "change the mode of", tempPath);
  if (hasOld && std::rename(backup, registry) != 0) TraceFailure("rename", backup);  // two names of one file both stay
  return false;
}

}  // namespace

CRegistryNode* CRegistry::HKEY_LOCAL_MACHINE = nullptr;
CRegistryNode* CRegistry::HKEY_CURRENT_USER = nullptr;
CRegistryNode* CRegistry::HKEY_USERS = nullptr;
CRegistryNode* CRegistry::HKEY_CLASSES_ROOT = nullptr;
CRegistryNode* CRegistry::HKEY_CURRENT_CONFIG = nullptr;
constinit CRegistryNode& CRegistry::MRootNode = rootNode.object;
constinit CCriticalSection& CRegistry::MClassLock = lockOfClass.object;
std::atomic<CRegistry::TreeState> CRegistry::MTreeState = TreeState::kClean;
std::atomic<bool> CRegistry::MIsSetup = false;

CRegistryNode* CRegistry::LocalMachine() {
  return HKEY_LOCAL_MACHINE;
}

CRegistryNode* CRegistry::CurrentUser() {
  return HKEY_CURRENT_USER;
}

CRegistryNode* CRegistry::Users() {
  return HKEY_USERS;
}

CRegistryNode* CRegistry::ClassesRoot() {
  return HKEY_CLASSES_ROOT;
}

CRegistryNode* CRegistry::CurrentConfig() {
  return HKEY_CURRENT_CONFIG;
}

bool CRegistry::ReadTree(const char* path, CRegistryNode& node) {
  if (path == nullptr) {
    TRACE(1, "CRegistry: ERROR: Empty file path");
    return false;
  }
  const CancellationBlock block;
  try {
    FileReading reading;
    return ReadFile(path, node, reading);
  } catch (const std::exception&) {
    TRACE(1, "CRegistry: WARNING: Node restoring from \"%s\" failed - no memory for its content\n", path);
    return false;
  }
}

bool CRegistry::LoadFile(const char* path) {
  FileReading reading;
  if (ReadFile(path, MRootNode, reading)) return true;
  if (path == MPRegistryDefault) return false;  // never written, so nothing of it can be lost
  if (!IsNothingThere(reading.error)) {
    knowledge = Knowledge::kUnread;
  } else if (path == MPRegistry) {
    knowledge = Knowledge::kRefused;
    refusedFile = reading.file;
  }
  return false;
}

bool CRegistry::LoadTree() {
  knowledge = Knowledge::kNothing;
  if (LoadFile(MPRegistry)) return true;
  TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying backup\n", MPRegistry);
  if (LoadFile(MPRegistryOld)) return true;
  TRACE(1, "CRegistry: WARNING: Could not restore tree from \"%s\", trying default\n", MPRegistryOld);
  if (LoadFile(MPRegistryDefault)) return true;
  TRACE(1, "CRegistry: ERROR: Could not restore tree from \"%s\", restoring failed\n", MPRegistryDefault);
  return false;
}

void CRegistry::SetupTree(bool forceSetup) {
  if (MIsSetup && !forceSetup) return;
  const CancellationBlock block;
  const CCriticalSectionLock lock(MClassLock);
  if (MIsSetup && !forceSetup) return;
  TRACE(2, "CRegistry: SetupTree(): ForceSetup=%d, MIsSetup=%d, MIsDirty=%d\n", forceSetup, MIsSetup.load(),
        MTreeState != TreeState::kClean);
  try {
    // A process that found no file and has written one since has in memory what it would read, and perhaps more.
    const bool isLoaded = (knowledge == Knowledge::kWritten && !forceSetup) || LoadTree();
    if (!isLoaded && !MIsSetup) return;
    TakeRootKeys();
  } catch (const std::exception&) {
    knowledge = Knowledge::kUnread;
    TRACE(2, "CRegistry: SetupTree(): ## ERROR during Setup\n");
  }
  MIsSetup = true;
}

void CRegistry::TakeRootKeys() {
  for (const RootKeyRow& row : kRootKeys) {
    CRegistryNodeRef key = MRootNode.FindSubKey(row.name);
    if (key.Get() != *row.handle) SetRootKey(row, key.Release());
  }
}

void CRegistry::RestoreRootEntries() {
  if (MRootNode.FindSubKey(kRootKeys[0].name)) return;
  const CancellationBlock block;
  const CCriticalSectionLock classLock(MClassLock);
  const CCriticalSectionLock lock(MRootNode);
  if (MRootNode.FindSubKey(kRootKeys[0].name)) return;
  TRACE(1, "CRegistry::InitClass() : re-initialize the registry-tree\n");
  try {
    for (const RootKeyRow& row : kRootKeys) {
      // A key that was made without its handle stays.
      if (MRootNode.FindSubKey(row.name)) continue;
      CRegistryValue value = CRegistryValue::SubKey(CRegistryNodeRef(*row.handle).Release());
      MRootNode.Exchange(row.name, value);
    }
  } catch (const std::exception&) {
    TRACE(1, "CRegistry::InitClass() : no memory for the root keys\n");
  }
}

void CRegistry::ForgetRootKey(const CRegistryNode& parent, const CRegistryValue& removed) {
  if (&parent != &MRootNode || removed.Type() != kRegistrySubKey) return;
  const CancellationBlock block;
  const CCriticalSectionLock lock(MClassLock);
  for (const RootKeyRow& row : kRootKeys) {
    if (reinterpret_cast<uintptr_t>(*row.handle) == removed.Word()) SetRootKey(row, nullptr);
  }
}

void CRegistry::MarkDirty() {
  MTreeState = TreeState::kChanged;
}

void CRegistry::SaveTree() {
  if (MTreeState == TreeState::kClean) return;
  const CancellationBlock block;
  const CCriticalSectionLock lock(MClassLock);
  if (MTreeState == TreeState::kClean) return;
  if (knowledge == Knowledge::kUnread) {
    TRACE(1, "CRegistry: ERROR: The registry could not be read whole and is not written\n");
    return;
  }
  MTreeState = TreeState::kSaving;
  const TreeState after = ReplaceRegistryFile() ? TreeState::kClean : TreeState::kChanged;
  TreeState before = TreeState::kSaving;
  MTreeState.compare_exchange_strong(before, after);  // what was changed meanwhile stays so
}

// True when nothing is left to be tried again.
bool CRegistry::ReplaceRegistryFile() {
  try {
    CTempFile temp(MPRegistryTemp);
    const bool isPatient = Clock::now() >= patienceReturns;
    const CTempFile::Opening opening = temp.Open(isPatient ? kPatience : kImpatience);
    if (opening == CTempFile::kNotLocked) {
      if (isPatient && errno == EWOULDBLOCK) patienceReturns = Clock::now() + kImpatientTime;
      return TraceFailure("lock", MPRegistryTemp);
    }
    File file(opening == CTempFile::kDone ? temp.MakeStream() : nullptr);
    if (file.Get() == nullptr) {
      TRACE(1, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", MPRegistryTemp);
      return true;
    }
    if (!WriteContent(MRootNode, temp, file, MPRegistryTemp) ||
        !RotateFiles(temp, MPRegistryTemp, MPRegistry, MPRegistryOld)) {
      temp.Remove();
      return false;
    }
    knowledge = Knowledge::kWritten;
    if (!SyncDirectoryOf(MPRegistry)) return TraceFailure("sync the directory of", MPRegistry);
  } catch (const std::exception&) {
    errno = ENOMEM;
    return TraceFailure("write", MPRegistryTemp);
  }
  TRACE(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", MPRegistryTemp, MPRegistry);
  return true;
}
