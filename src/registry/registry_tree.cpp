// The process-wide registry tree: its state, loading with the fallback files and saving through the temporary file.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "platform/regular_file.h"
#include "platform/unique_fd.h"
#include "registry/registry.h"
#include "registry/registry_temp_file.h"
#include "trace/debug.h"

namespace {

constexpr const char* kDirectory = "/etc/pelrix";
constexpr mode_t kRegistryMode = 0644;

// Constructed at compile time and left alone at the end of the process.
template <typename Object>
union Immortal {
  constexpr Immortal() : object() {}
  ~Immortal() {}
  Object object;
};

constinit Immortal<CRegistryNode> rootNode;
constinit Immortal<CCriticalSection> classLock;

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

// The registry file when it did not load: it never takes the place of the backup, which may be all that is left.
// Guarded by the class lock.
constinit FileIdentity refusedFile;

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
bool WriteContent(CRegistryNode& root, File& file, const char* path) {
  std::setvbuf(file.Get(), nullptr, _IONBF, 0);  // the text comes in large blocks
  root.dumpNode(file.Get());
  if (std::fflush(file.Get()) != 0 || std::ferror(file.Get()) != 0) return TraceFailure("write", path);
  if (::fchmod(::fileno(file.Get()), kRegistryMode) != 0) return TraceFailure("change the mode of", path);
  if (::fsync(::fileno(file.Get())) != 0) return TraceFailure("sync", path);
  return file.Close() || TraceFailure("close", path);
}

// True when it could be told.
bool LookForContent(const char* path, bool& hasContent) {
  struct stat info {};
  const bool isThere = ::stat(path, &info) == 0;
  hasContent = isThere && info.st_size > 0 && !refusedFile.Is(info);
  return isThere || IsNothingThere(errno) || TraceFailure("examine", path);
}

// The new file takes the registry's place. When that fails after the old one was moved away, the old one comes back.
bool RotateFiles(const CRegistryTempFile& tempFile, const char* temp, const char* registry, const char* backup) {
  bool hasOld = false;
  if (!LookForContent(registry, hasOld)) return false;
  if (!tempFile.IsInPlace()) return TraceFailure("rename", temp);
  if (hasOld && std::rename(registry, backup) != 0) return TraceFailure("rename", registry);
  if (std::rename(temp, registry) == 0) {
    refusedFile = {};
    return true;
  }
  TraceFailure("rename", temp);
  if (hasOld && std::rename(backup, registry) != 0) TraceFailure("rename", backup);
  return false;
}

// Makes the renames last. A file system that cannot do this for a directory says EINVAL.
bool SyncDirectory() {
  const UniqueFd directory(::open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return TraceFailure("open", kDirectory);
  return ::fsync(directory.Get()) == 0 || errno == EINVAL || TraceFailure("sync", kDirectory);
}

}  // namespace

CRegistryNode* CRegistry::HKEY_LOCAL_MACHINE = nullptr;
CRegistryNode* CRegistry::HKEY_CURRENT_USER = nullptr;
CRegistryNode* CRegistry::HKEY_USERS = nullptr;
CRegistryNode* CRegistry::HKEY_CLASSES_ROOT = nullptr;
CRegistryNode* CRegistry::HKEY_CURRENT_CONFIG = nullptr;
constinit CRegistryNode& CRegistry::MRootNode = rootNode.object;
constinit CCriticalSection& CRegistry::MClassLock = classLock.object;
std::atomic<bool> CRegistry::MIsDirty = false;
std::atomic<bool> CRegistry::MIsSetup = false;
std::atomic<uint64_t> CRegistry::MChanges = 0;
bool CRegistry::MIsSaved = false;
bool CRegistry::MIsUnread = false;

bool CRegistry::ReadTree(const char* path, CRegistryNode& node) {
  if (path == nullptr) {
    TRACE(1, "CRegistry: ERROR: Empty file path");
    return false;
  }
  FileReading reading;
  return ReadFile(path, node, reading);
}

bool CRegistry::LoadFile(const char* path) {
  FileReading reading;
  if (ReadFile(path, MRootNode, reading)) return true;
  if (!IsNothingThere(reading.error)) MIsUnread = true;
  if (path == MPRegistry) refusedFile = reading.file;
  return false;
}

bool CRegistry::LoadTree() {
  MIsUnread = false;
  refusedFile = {};
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
  const CCriticalSectionLock lock(MClassLock);
  if (MIsSetup && !forceSetup) return;
  TRACE(2, "CRegistry: SetupTree(): ForceSetup=%d, MIsSetup=%d, MIsDirty=%d\n", forceSetup, MIsSetup.load(),
        MIsDirty.load());
  try {
    // A process that found no file and has written one since has in memory what it would read, and perhaps more.
    const bool isLoaded = (MIsSaved && !forceSetup) || LoadTree();
    if (!isLoaded && !MIsSetup) return;
    TakeRootKeys();
  } catch (const std::exception&) {
    MIsUnread = true;
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
  for (const RootKeyRow& row : kRootKeys) {
    if (reinterpret_cast<uintptr_t>(*row.handle) == removed.Word()) SetRootKey(row, nullptr);
  }
}

void CRegistry::MarkDirty() {
  ++MChanges;
  MIsDirty = true;
}

void CRegistry::SaveTree() {
  if (!MIsDirty) return;
  const CCriticalSectionLock lock(MClassLock);
  if (!MIsDirty) return;
  if (MIsUnread) {
    TRACE(1, "CRegistry: ERROR: The registry could not be read whole and is not written\n");
    return;
  }
  const uint64_t changes = MChanges;
  if (!ReplaceRegistryFile()) return;
  MIsDirty = false;
  if (MChanges != changes) MIsDirty = true;
}

// True when nothing is left to be tried again.
bool CRegistry::ReplaceRegistryFile() {
  CRegistryTempFile temp(MPRegistryTemp);
  const CRegistryTempFile::Opening opening = temp.Open();
  if (opening == CRegistryTempFile::Opening::kNotLocked) return TraceFailure("lock", MPRegistryTemp);
  File file(opening == CRegistryTempFile::Opening::kDone ? temp.MakeStream() : nullptr);
  if (file.Get() == nullptr) {
    TRACE(1, "CRegistry: ERROR: Cannot open \"%s\" for writing\n", MPRegistryTemp);
    return true;
  }
  bool isWritten = false;
  try {
    isWritten = WriteContent(MRootNode, file, MPRegistryTemp);
  } catch (const std::exception&) {
    errno = ENOMEM;
    TraceFailure("write", MPRegistryTemp);
  }
  if (!isWritten || !RotateFiles(temp, MPRegistryTemp, MPRegistry, MPRegistryOld)) {
    temp.Remove();
    return false;
  }
  if (!SyncDirectory()) return false;
  MIsSaved = true;
  TRACE(2, "\nCRegistry::SaveTree MPRegistryTemp[%s] \t MPRegistry[%s]", MPRegistryTemp, MPRegistry);
  return true;
}
