#include "ravctl/tree/enter.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/unique_fd.h"
#include "ravctl/base/error.h"
#include "ravctl/tree/bundle_format.h"
#include "ravctl/tree/bundle_reader.h"

namespace ravctl {

namespace {

constexpr const char* kUserMap = "/proc/self/uid_map";
constexpr const char* kGroupMap = "/proc/self/gid_map";
constexpr const char* kSetGroups = "/proc/self/setgroups";
constexpr const char* kNullDevice = "/dev/null";

// What the commands of the library come from: this machine's, whatever the tree has.
constexpr auto kSystemDirectories =
    std::to_array<std::string_view>({"usr", "bin", "sbin", "lib", "lib32", "lib64", "libx32"});

constexpr uint64_t kTreeAttributes = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC;
constexpr uint64_t kSystemAttributes = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV;

// Of the root that is put together: places to mount at, and links.
constexpr uint64_t kRootSize = uint64_t{16} << 20;
constexpr uint64_t kRootFiles = 65536;

bool isInSysroot = false;

CommandError Refused(std::string_view what, int error) {
  const bool isOld = error == ENOSYS || error == EINVAL;
  return {ExitCode::kPermission, "cannot enter the tree", std::string(what) + ": " + std::strerror(error),
          isOld              ? "it needs Linux 5.12 or newer"
          : ::geteuid() == 0 ? "the system allows no private namespaces here"
                             : "run as root, or allow user namespaces"};
}

void Require(bool isDone, std::string_view what) {
  if (!isDone) throw Refused(what, errno);
}

// ---- namespaces

void WriteTo(const char* path, const std::string& text) {
  const UniqueFd file(::open(path, O_WRONLY | O_CLOEXEC));
  Require(file && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
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
  Require(self && ::setns(self.Get(), CLONE_NEWNS) == 0, "setns");
  Require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

void EnterNamespaces() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  constexpr int kFlags = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC;
  if (::unshare(kFlags) != 0) {
    Require(errno == EPERM && ::unshare(kFlags | CLONE_NEWUSER) == 0, "unshare");
    MapCaller(user, group);
  }
}

// ---- mounts

// A file system in memory, mounted over the root of the namespace (which the process's own root stays below) and known
// by its descriptor.
UniqueFd MountMemory(uint64_t size, uint64_t files) {
  const UniqueFd context(::fsopen("tmpfs", FSOPEN_CLOEXEC));
  Require(static_cast<bool>(context), "fsopen");
  const std::pair<const char*, std::string> options[] = {
      {"mode", "0755"}, {"size", std::to_string(size)}, {"nr_inodes", std::to_string(files)}};
  for (const auto& [key, value] : options)
    Require(::fsconfig(context.Get(), FSCONFIG_SET_STRING, key, value.c_str(), 0) == 0, key);
  Require(::fsconfig(context.Get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) == 0, "tmpfs");
  UniqueFd memory(::fsmount(context.Get(), FSMOUNT_CLOEXEC, MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC));
  Require(memory && ::move_mount(memory.Get(), "", AT_FDCWD, "/", MOVE_MOUNT_F_EMPTY_PATH) == 0, "fsmount");
  return memory;
}

// Shows what the descriptor stands for at a place that exists, with more restrictions than it has.
void Bind(int from, int directory, const std::string& name, uint64_t attributes) {
  const UniqueFd copy(::open_tree(from, "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH | AT_RECURSIVE));
  Require(static_cast<bool>(copy), "open_tree " + name);
  struct mount_attr attr {};
  attr.attr_set = attributes;
  Require(attributes == 0 || ::mount_setattr(copy.Get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &attr, sizeof attr) == 0,
          "mount_setattr " + name);
  Require(::move_mount(copy.Get(), "", directory, name.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0, "move_mount " + name);
}

UniqueFd OpenPath(int directory, const std::string& name) {
  return UniqueFd(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

std::string ReadLink(int link) {
  std::array<char, 4096> target{};
  const ssize_t length = ::readlinkat(link, "", target.data(), target.size());
  return length > 0 ? std::string(target.data(), static_cast<size_t>(length)) : std::string();
}

// Shows an open file, directory or link under its name in another directory. What is neither, such as a device or a
// pipe, is left out.
void Show(int from, int directory, const std::string& name, uint64_t attributes) {
  struct stat info {};
  if (::fstat(from, &info) != 0) return;
  if (S_ISLNK(info.st_mode)) {
    Require(::symlinkat(ReadLink(from).c_str(), directory, name.c_str()) == 0, name);
  } else if (S_ISDIR(info.st_mode)) {
    Require(::mkdirat(directory, name.c_str(), 0755) == 0, name);
    Bind(from, directory, name, attributes);
  } else if (S_ISREG(info.st_mode)) {
    const UniqueFd place(::openat(directory, name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0444));
    Require(static_cast<bool>(place), name);
    Bind(from, directory, name, attributes);
  }
}

std::vector<std::string> NamesIn(int directory) {
  std::vector<std::string> names;
  UniqueFd copy(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, decltype([](DIR* stream) { ::closedir(stream); })> stream(::fdopendir(copy.Get()));
  if (stream == nullptr) throw SystemFailure("cannot list", "the tree", errno);
  copy.Release();
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
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

void ShowDevices(int tree, int root, const SystemParts& system) {
  Require(::mkdirat(root, "dev", 0755) == 0, "dev");
  const UniqueFd devices(::openat(root, "dev", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  Require(static_cast<bool>(devices), "dev");
  if (system.null) {
    const UniqueFd place(::openat(devices.Get(), "null", O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666));
    Require(static_cast<bool>(place), "dev/null");
    Bind(system.null.Get(), devices.Get(), "null", 0);
  }
  const UniqueFd captured(::openat(tree, "dev", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!captured) return;
  for (const std::string& name : NamesIn(captured.Get())) {
    if (name != "null") Show(OpenPath(captured.Get(), name).Get(), devices.Get(), name, kTreeAttributes);
  }
}

void ShowTree(int tree, int root, const SystemParts& system) {
  for (const auto& [name, directory] : system.directories)
    Show(directory.Get(), root, name, kSystemAttributes);
  ShowDevices(tree, root, system);
  for (const std::string& name : NamesIn(tree)) {
    const bool isOurs = name == "dev" || std::ranges::find(kSystemDirectories, name) != kSystemDirectories.end();
    if (!isOurs) Show(OpenPath(tree, name).Get(), root, name, kTreeAttributes);
  }
}

// ---- what would tell about this machine all the same

// The variables that configure the library are settings of this machine.
void ForgetVariables() {
  std::vector<std::string> names;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    if (text.starts_with("QN_") || text.starts_with("TraceFileLimit="))
      names.emplace_back(text.substr(0, text.find('=')));
  }
  for (const std::string& name : names)
    ::unsetenv(name.c_str());
}

// statfs and fstatfs see the file system that holds the tree.
void RefuseFileSystemCalls() {
  const auto refuse = static_cast<uint32_t>(SECCOMP_RET_ERRNO) | ENOSYS;
  std::array<sock_filter, 8> program = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_statfs, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fstatfs, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, refuse),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  Require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0,
          "seccomp");
}

UniqueFd OpenTree(const std::string& path, bool& isDirectory) {
  UniqueFd tree(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!tree || ::fstat(tree.Get(), &info) != 0) throw SystemFailure("cannot open the tree", path, errno);
  isDirectory = S_ISDIR(info.st_mode);
  if (!isDirectory && !S_ISREG(info.st_mode)) {
    throw CommandError(ExitCode::kInputMissing, "neither a directory nor a bundle", path, "see ravctl bundle --help");
  }
  return tree;
}

// The bundle's files in memory of their own.
UniqueFd Unpack(int bundle, const std::string& path) {
  UniqueFd tree = MountMemory(kLargestBundle + kLargestManifest, 2 * kMostEntries);
  UnpackBundle(bundle, path, tree.Get());
  return tree;
}

}  // namespace

void EnterSysroot(const std::string& directoryOrBundle) {
  bool isDirectory = false;
  OpenTree(directoryOrBundle, isDirectory);
  EnterNamespaces();
  // What is opened in the namespace can be shown again in it; what was open before cannot.
  UniqueFd tree = OpenTree(directoryOrBundle, isDirectory);
  const SystemParts system;
  KeepMountsPrivate();
  if (!isDirectory) tree = Unpack(tree.Get(), directoryOrBundle);
  const UniqueFd root = MountMemory(kRootSize, kRootFiles);
  ShowTree(tree.Get(), root.Get(), system);
  ::tzset();  // times are shown in the zone of who looks at them
  Require(::fchdir(root.Get()) == 0 && ::chroot(".") == 0 && ::chdir("/") == 0, "chroot");
  ForgetVariables();
  RefuseFileSystemCalls();
  isInSysroot = true;
}

bool IsInSysroot() {
  return isInSysroot;
}

}  // namespace ravctl
