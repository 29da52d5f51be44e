#include "ravctl/tree/mounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "platform/descriptor_io.h"
#include "ravctl/base/error.h"

namespace ravctl {

namespace {

UniqueFd MakeFileSystem(const char* type, std::initializer_list<std::pair<const char*, std::string>> options,
                        uint64_t attributes) {
  const UniqueFd context(::fsopen(type, FSOPEN_CLOEXEC));
  if (!context) return {};
  for (const auto& [key, value] : options) {
    if (::fsconfig(context.Get(), FSCONFIG_SET_STRING, key, value.c_str(), 0) != 0) return {};
  }
  if (::fsconfig(context.Get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0) return {};
  return UniqueFd(::fsmount(context.Get(), FSMOUNT_CLOEXEC, static_cast<unsigned int>(attributes)));
}

bool SetAttributes(int mount, unsigned int flags, uint64_t attributes, int owners) {
  struct mount_attr attr {};
  attr.attr_set = attributes | (owners >= 0 ? uint64_t{MOUNT_ATTR_IDMAP} : 0);
  attr.userns_fd = static_cast<decltype(attr.userns_fd)>(owners >= 0 ? owners : 0);
  return attr.attr_set == 0 || ::mount_setattr(mount, "", AT_EMPTY_PATH | flags, &attr, sizeof attr) == 0;
}

bool WriteMap(int process, const char* name, uid_t inside, uid_t outside) {
  const UniqueFd file(::openat(process, name, O_WRONLY | O_CLOEXEC));
  const std::string map = std::to_string(inside) + " " + std::to_string(outside) + " 1";
  return file && ::write(file.Get(), map.data(), map.size()) == static_cast<ssize_t>(map.size());
}

// A child that waits in a user namespace of its own until it is killed.
class NamespaceHolder {
 public:
  NamespaceHolder() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    m_Child = ::fork();
    if (m_Child == 0) {
      // No user namespace is made below a changed root; entering the mount namespace anew goes back to its own.
      const UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
      if (self) ::setns(self.Get(), CLONE_NEWNS);
      if (::unshare(CLONE_NEWUSER) == 0 && ::write(writer.Get(), "", 1) == 1) ::pause();
      ::_exit(0);
    }
    writer.Reset();
    char byte = 0;
    m_IsReady = m_Child > 0 && ReadSome(reader.Get(), &byte, 1) == 1;
  }
  ~NamespaceHolder() {
    if (m_Child <= 0) return;
    ::kill(m_Child, SIGKILL);
    ::waitpid(m_Child, nullptr, 0);
  }
  NamespaceHolder(const NamespaceHolder&) = delete;
  NamespaceHolder& operator=(const NamespaceHolder&) = delete;

  pid_t Child() const { return m_IsReady ? m_Child : -1; }

 private:
  pid_t m_Child = -1;
  bool m_IsReady = false;
};

}  // namespace

void RequireEntered(bool isDone, std::string_view what) {
  if (isDone) return;
  const int error = errno;
  const bool isOld = error == ENOSYS || error == EINVAL;
  throw CommandError(ExitCode::kPermission, "cannot enter the tree", std::string(what) + ": " + std::strerror(error),
                     isOld              ? "it needs Linux 5.12 or newer"
                     : ::geteuid() == 0 ? "the system allows no private namespaces here"
                                        : "run as root, or allow user namespaces");
}

UniqueFd MountMemory(uint64_t size, uint64_t files, uid_t user) {
  UniqueFd memory = MakeFileSystem("tmpfs",
                                   {{"mode", "0755"},
                                    {"size", std::to_string(size)},
                                    {"nr_inodes", std::to_string(files)},
                                    {"uid", std::to_string(user)}},
                                   MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC);
  RequireEntered(memory && ::move_mount(memory.Get(), "", AT_FDCWD, "/", MOVE_MOUNT_F_EMPTY_PATH) == 0, "tmpfs");
  return memory;
}

UniqueFd MapOwner(uid_t owner, uid_t shown) {
  // The root may be a fixture without /proc.
  const UniqueFd processes = MakeFileSystem("proc", {}, 0);
  const NamespaceHolder holder;
  if (!processes || holder.Child() < 0) return {};
  const UniqueFd process(
      ::openat(processes.Get(), std::to_string(holder.Child()).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!process || !WriteMap(process.Get(), "uid_map", owner, shown) ||
      !WriteMap(process.Get(), "gid_map", owner, shown)) {
    return {};
  }
  return UniqueFd(::openat(process.Get(), "ns/user", O_RDONLY | O_CLOEXEC));
}

void ShowAt(int from, int directory, const std::string& name, uint64_t attributes, int owners) {
  const unsigned int kClone = OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH | AT_RECURSIVE;
  const UniqueFd copy(::open_tree(from, "", kClone));
  RequireEntered(static_cast<bool>(copy), "open_tree " + name);
  const bool isMapped = owners >= 0 && SetAttributes(copy.Get(), AT_RECURSIVE, attributes, owners);
  RequireEntered(isMapped || SetAttributes(copy.Get(), AT_RECURSIVE, attributes, -1), "mount_setattr " + name);
  const unsigned int place = MOVE_MOUNT_F_EMPTY_PATH | (name.empty() ? MOVE_MOUNT_T_EMPTY_PATH : 0);
  RequireEntered(::move_mount(copy.Get(), "", directory, name.c_str(), place) == 0, "move_mount " + name);
}

void Restrict(int mount, uint64_t attributes) {
  RequireEntered(SetAttributes(mount, 0, attributes, -1), "mount_setattr");
}

}  // namespace ravctl
