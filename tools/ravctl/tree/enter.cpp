#include "ravctl/tree/enter.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/unique_fd.h"
#include "ravctl/base/child.h"
#include "ravctl/base/error.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/bundle_reader.h"
#include "ravctl/tree/confine.h"
#include "ravctl/tree/mounts.h"

namespace ravctl {

namespace {

constexpr const char* kUserMap = "/proc/self/uid_map";
constexpr const char* kGroupMap = "/proc/self/gid_map";
constexpr const char* kSetGroups = "/proc/self/setgroups";
constexpr const char* kNullDevice = "/dev/null";
constexpr auto kLoaderFiles = std::to_array<const char*>({"/etc/ld.so.preload", "/etc/ld.so.cache"});

// What the commands of the library come from: this machine's, whatever the tree has.
constexpr auto kSystemDirectories =
    std::to_array<std::string_view>({"usr", "bin", "sbin", "lib", "lib32", "lib64", "libx32"});

constexpr uint64_t kTreeAttributes = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;
constexpr uint64_t kSystemAttributes = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;

// Of the root that is put together: places to mount at, and links.
constexpr uint64_t kRootSize = uint64_t{16} << 20;
constexpr uint64_t kRootFiles = 65536;
constexpr const char* kClosedFile = "/.closed";  // nobody may read it
constexpr const char* kCapturedDevices = ".captured";

// What a tree may hold.
constexpr size_t kMostTopNames = 256;
constexpr size_t kMostPipes = 256;
constexpr unsigned int kDeepestDirectory = 128;
constexpr size_t kMostFiles = 4000000;

constexpr uid_t kNobody = 65534;
constexpr int kUnpackSeconds = 300;

bool isInSysroot = false;

[[noreturn]] void RefuseTree(const char* why, const std::string& where) {
  throw CommandError(ExitCode::kInputDamaged, "the tree is refused", std::string(why) + ": " + where,
                     "no machine was captured like that");
}

// ---- namespaces

void WriteTo(const char* path, const std::string& text) {
  const UniqueFd file(::open(path, O_WRONLY | O_CLOEXEC));
  RequireEntered(file && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
}

// In the user namespace the caller is nobody until mapped; it stays who it is.
void MapCaller(uid_t user, gid_t group) {
  WriteTo(kSetGroups, "deny");
  WriteTo(kUserMap, std::to_string(user) + " " + std::to_string(user) + " 1");
  WriteTo(kGroupMap, std::to_string(group) + " " + std::to_string(group) + " 1");
}

// A mount that is shared would take ours along to the machine. Below a root directory that is no mount (a chroot) the
// root of the namespace comes first; what is needed of the old root is open already.
void KeepMountsPrivate() {
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return;
  const UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
  RequireEntered(self && ::setns(self.Get(), CLONE_NEWNS) == 0, "setns");
  RequireEntered(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

void EnterNamespaces() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  constexpr int kFlags = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC;
  if (::unshare(kFlags) != 0) {
    RequireEntered(errno == EPERM && ::unshare(kFlags | CLONE_NEWUSER) == 0, "unshare");
    MapCaller(user, group);
  }
}

// Whether the user namespace has a user beside root.
bool HasUser(uid_t user) {
  ::setfsuid(user);
  return static_cast<uid_t>(::setfsuid(::geteuid())) == user;
}

// Who is to read the tree.
Reader ReaderOf(const struct stat& tree) {
  if (::geteuid() != 0) return {::geteuid(), ::getegid()};
  const bool isOwned = S_ISDIR(tree.st_mode) && tree.st_uid != 0;
  const Reader reader = isOwned ? Reader{tree.st_uid, tree.st_gid} : Reader{kNobody, kNobody};
  return HasUser(reader.user) ? reader : Reader{::geteuid(), ::getegid()};
}

// ---- names

UniqueFd OpenPath(int directory, const std::string& name) {
  return UniqueFd(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

UniqueFd OpenDirectory(int directory, const std::string& name) {
  return UniqueFd(::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::string ReadLink(int link) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlinkat(link, "", target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<size_t>(length)) : std::string();
}

mode_t TypeOf(int file) {
  struct stat info {};
  return ::fstat(file, &info) == 0 ? info.st_mode & S_IFMT : 0;
}

struct Name {
  std::string text;
  unsigned char type = DT_UNKNOWN;
};

std::vector<Name> NamesIn(int directory, size_t most) {
  std::vector<Name> names;
  UniqueFd copy = OpenDirectory(directory, ".");
  const std::unique_ptr<DIR, decltype([](DIR* stream) { ::closedir(stream); })> stream(::fdopendir(copy.Get()));
  if (stream == nullptr) throw SystemFailure("cannot list", "the tree", errno);
  copy.Release();
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (names.size() >= most) RefuseTree("too many names in a directory", std::string(name));
    names.push_back({std::string(name), entry->d_type});
  }
  return names;
}

bool IsOfSystem(std::string_view name) {
  return std::ranges::find(kSystemDirectories, name) != kSystemDirectories.end();
}

// ---- the root that is put together

// This machine's own parts, opened while they can still be named.
struct SystemParts {
  std::vector<std::pair<std::string, UniqueFd>> directories;
  UniqueFd null;

  SystemParts() : null(::open(kNullDevice, O_PATH | O_CLOEXEC)) {
    for (const std::string_view name : kSystemDirectories) {
      UniqueFd directory = OpenPath(AT_FDCWD, "/" + std::string(name));
      if (directory) directories.emplace_back(name, std::move(directory));
    }
  }
};

void MakeFile(int directory, const char* name, mode_t mode) {
  RequireEntered(static_cast<bool>(UniqueFd(::openat(directory, name, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode))),
                 name);
}

// Shows an open file, directory or link under its name in another directory. What is neither, such as a device or a
// pipe, is left out.
void Show(int from, int directory, const std::string& name, uint64_t attributes, int owners = -1) {
  const mode_t type = TypeOf(from);
  if (type == S_IFLNK) RequireEntered(::symlinkat(ReadLink(from).c_str(), directory, name.c_str()) == 0, name);
  if (type == S_IFDIR) RequireEntered(::mkdirat(directory, name.c_str(), 0755) == 0, name);
  if (type == S_IFREG) MakeFile(directory, name.c_str(), 0444);
  if (type == S_IFDIR || type == S_IFREG) ShowAt(from, directory, name, attributes, owners);
}

// One mount for all captured devices, and links to them beside this machine's null device.
void ShowDevices(int tree, int root, const SystemParts& system, int owners) {
  RequireEntered(::mkdirat(root, "dev", 0755) == 0, "dev");
  const UniqueFd devices = OpenDirectory(root, "dev");
  RequireEntered(static_cast<bool>(devices), "dev");
  if (system.null) {
    MakeFile(devices.Get(), "null", 0666);
    ShowAt(system.null.Get(), devices.Get(), "null", 0);
  }
  const UniqueFd captured = OpenDirectory(tree, "dev");
  if (!captured) return;
  Show(captured.Get(), devices.Get(), kCapturedDevices, kTreeAttributes, owners);
  for (const Name& name : NamesIn(captured.Get(), kRootFiles / 2)) {
    const UniqueFd device = OpenPath(captured.Get(), name.text);
    const mode_t type = TypeOf(device.Get());
    if (name.text == "null" || name.text == kCapturedDevices) continue;
    if (type == S_IFLNK) Show(device.Get(), devices.Get(), name.text, 0);
    if (type != S_IFREG && type != S_IFDIR) continue;
    const std::string target = std::string(kCapturedDevices) + "/" + name.text;
    RequireEntered(::symlinkat(target.c_str(), devices.Get(), name.text.c_str()) == 0, name.text);
  }
}

void ShowTree(int tree, int root, const SystemParts& system, int owners) {
  for (const auto& [name, directory] : system.directories)
    Show(directory.Get(), root, name, kSystemAttributes);
  ShowDevices(tree, root, system, owners);
  for (const Name& name : NamesIn(tree, kMostTopNames)) {
    const bool isOurs = name.text == "dev" || IsOfSystem(name.text) || name.text == kClosedFile + 1;
    if (!isOurs) Show(OpenPath(tree, name.text).Get(), root, name.text, kTreeAttributes, owners);
  }
}

// ---- what is closed in it

// What the kernel makes up, where somebody mounted it into the tree, has no pipes and no end.
bool IsOfKernel(int directory) {
  struct statfs info {};
  return ::fstatfs(directory, &info) == 0 && (info.f_type == PROC_SUPER_MAGIC || info.f_type == SYSFS_MAGIC);
}

// Opening a pipe waits for its other end, sockets and devices cannot be opened here anyway.
class PipeCloser {
 public:
  explicit PipeCloser(int closedFile) : m_ClosedFile(closedFile) {}

  void Walk(int directory, unsigned int depth) {
    if (IsOfKernel(directory)) return;
    const std::vector<Name> names = NamesIn(directory, kMostFiles);
    if ((m_Files += names.size()) > kMostFiles) RefuseTree("too many files", std::to_string(m_Files));
    for (const Name& name : names) {
      if (depth == 0 && IsOfSystem(name.text)) continue;
      if (IsPipe(directory, name)) {
        if (++m_Pipes > kMostPipes) RefuseTree("too many pipes", name.text);
        ShowAt(m_ClosedFile, directory, name.text, kTreeAttributes);
      }
      if (name.type != DT_DIR && name.type != DT_UNKNOWN) continue;
      const UniqueFd below = OpenDirectory(directory, name.text);
      if (below && depth == kDeepestDirectory) RefuseTree("too many directories below each other", name.text);
      if (below) Walk(below.Get(), depth + 1);
    }
  }

 private:
  static bool IsPipe(int directory, const Name& name) {
    if (name.type != DT_UNKNOWN) return name.type == DT_FIFO;
    const UniqueFd file = OpenPath(directory, name.text);
    return file && TypeOf(file.Get()) == S_IFIFO;
  }

  int m_ClosedFile;
  size_t m_Files = 0;
  size_t m_Pipes = 0;
};

// Seen from inside.
void CloseWhatWaitsOrLoads() {
  MakeFile(AT_FDCWD, kClosedFile, 0);
  const UniqueFd closed(::open(kClosedFile, O_PATH | O_CLOEXEC));
  const UniqueFd root = OpenDirectory(AT_FDCWD, "/");
  RequireEntered(closed && root, kClosedFile);
  for (const char* path : kLoaderFiles) {
    const UniqueFd file(::open(path, O_PATH | O_CLOEXEC));
    if (file && TypeOf(file.Get()) == S_IFREG) ShowAt(closed.Get(), file.Get(), "", kTreeAttributes);
  }
  PipeCloser(closed.Get()).Walk(root.Get(), 0);
  Restrict(root.Get(), kTreeAttributes);
}

// The variables that configure the library are settings of this machine.
void ForgetVariables() {
  std::vector<std::string> names;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    if (text.starts_with("QN_") || text.starts_with("LD_") || text.starts_with("TraceFileLimit="))
      names.emplace_back(text.substr(0, text.find('=')));
  }
  for (const std::string& name : names)
    ::unsetenv(name.c_str());
}

// Its traces bear the times of the machine's own zone, where the tree tells that.
void TakeTimeZone() {
  constexpr const char* kZoneFile = "/etc/localtime";
  if (::access(kZoneFile, R_OK) != 0) return;
  ::setenv("TZ", (std::string(":") + kZoneFile).c_str(), 1);
  ::tzset();
}

// ---- the tree

struct Tree {
  UniqueFd file;
  struct stat info {};

  explicit Tree(const std::string& path) : file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    if (!file || ::fstat(file.Get(), &info) != 0) throw SystemFailure("cannot open the tree", path, errno);
    if (!IsDirectory() && !S_ISREG(info.st_mode)) {
      throw CommandError(ExitCode::kInputMissing, "neither a directory nor a bundle", path, "see ravctl bundle --help");
    }
  }
  bool IsDirectory() const { return S_ISDIR(info.st_mode); }
};

int UnpackConfined(int bundle, const std::string& path, int directory, const Reader& reader, int reportFd) {
  try {
    Confine(reader);
    UnpackBundle(bundle, path, directory);
    return 0;
  } catch (const CommandError& error) {
    const std::string_view what = error.what();
    return ::write(reportFd, what.data(), what.size()) > 0 ? static_cast<int>(error.Code()) : -1;
  }
}

// The bundle's files in memory of their own.
UniqueFd Unpack(int bundle, const std::string& path, const Reader& reader) {
  UniqueFd tree = MountMemory(kLargestBundle + kLargestManifest, 2 * kMostEntries, reader.user);
  const ChildResult child = RunInChild(
      kUnpackSeconds, [&](int reportFd) { return UnpackConfined(bundle, path, tree.Get(), reader, reportFd); });
  if (child.status == 0) return tree;
  if (!child.report.empty()) throw CommandError(static_cast<ExitCode>(child.status), child.report, "", "");
  throw CommandError(ExitCode::kInputDamaged, "the bundle is damaged",
                     path + (child.isTimeout ? ": it takes too long to unpack" : ": it takes too much to unpack"),
                     "copy it anew");
}

}  // namespace

void EnterSysroot(const std::string& directoryOrBundle) {
  const Tree seen(directoryOrBundle);
  EnterNamespaces();
  // What is opened in the namespace can be shown again in it; what was open before cannot.
  Tree tree(directoryOrBundle);
  const SystemParts system;
  KeepMountsPrivate();
  const Reader reader = ReaderOf(tree.info);
  if (!tree.IsDirectory()) tree.file = Unpack(tree.file.Get(), directoryOrBundle, reader);
  const bool isOfRoot = tree.IsDirectory() && tree.info.st_uid == 0 && reader.user != 0 && ::geteuid() == 0;
  const UniqueFd owners = isOfRoot ? MapOwner(0, reader.user) : UniqueFd();
  const UniqueFd root = MountMemory(kRootSize, kRootFiles, ::geteuid());
  ShowTree(tree.file.Get(), root.Get(), system, owners.Get());
  ::tzset();  // before the tree is the root: the zone of who looks, unless the tree tells its own
  RequireEntered(::fchdir(root.Get()) == 0 && ::chroot(".") == 0 && ::chdir("/") == 0, "chroot");
  CloseWhatWaitsOrLoads();
  ForgetVariables();
  Confine(reader);
  TakeTimeZone();
  isInSysroot = true;
}

bool IsInSysroot() {
  return isInSysroot;
}

int64_t PresentTime() {
  struct stat manifest {};
  const bool isBundle = isInSysroot && ::stat((std::string("/") + kManifestPath).c_str(), &manifest) == 0;
  return isBundle ? manifest.st_mtime : std::time(nullptr);
}

}  // namespace ravctl
