#include "support/fixture_root.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include <fstream>

#include "platform/unique_fd.h"

extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();
extern "C" __attribute__((weak)) void __gcov_dump();

namespace fs = std::filesystem;

namespace {

// Where a root of an instrumented build holds the machine's /proc for ShowOwnProcess.
constexpr const char* kHiddenProc = "/.proc";

constexpr int kSetUpFailed = 90;
constexpr int kAssertionFailed = 91;
constexpr int kLeaked = 92;

// The machine's root, held by a process inside a fixture root.
int machineRoot = -1;

bool ReturnToMachine() {
  return machineRoot < 0 || (::fchdir(machineRoot) == 0 && ::chroot(".") == 0);
}

void Require(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "fixture root: %s: %s\n", what, std::strerror(errno));
  std::_Exit(kSetUpFailed);
}

void WriteTo(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  Require(fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
  ::close(fd);
}

// What is mounted from here on stays here. A root directory that is no mount (that of a package build) cannot be told
// so: the root of the namespace is, and the old one entered again.
void KeepMountsPrivate() {
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return;
  const UniqueFd root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
  Require(root && self && ::setns(self.Get(), CLONE_NEWNS) == 0, "setns");
  Require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  Require(::fchdir(root.Get()) == 0 && ::chroot(".") == 0, "the root before");
}

// A mount namespace of its own; an ordinary user gets it inside a user namespace in which it is root.
void EnterNamespaces(unsigned int mounts) {
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  int flags = CLONE_NEWNS | (uid == 0 ? 0 : CLONE_NEWUSER);
  if ((mounts & FixtureRoot::kNetwork) != 0) flags |= CLONE_NEWNET;
  Require(::unshare(flags) == 0, "unshare");
  if (uid != 0) {
    WriteTo("/proc/self/setgroups", "deny");
    WriteTo("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    WriteTo("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  KeepMountsPrivate();
}

void BindReadOnly(const std::string& from, const std::string& to) {
  ::mkdir(to.c_str(), 0755);
  Require(::mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, from.c_str());
  ::mount(nullptr, to.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
}

void MountInto(const std::string& root, unsigned int mounts) {
  if ((mounts & FixtureRoot::kUsr) != 0) {
    BindReadOnly("/usr", root + "/usr");
    for (const char* name : {"/bin", "/sbin", "/lib", "/lib64"}) {
      if (::access((root + name).c_str(), F_OK) != 0) {
        Require(::symlink((std::string("usr") + name).c_str(), (root + name).c_str()) == 0, name);
      }
    }
    ::mkdir((root + "/dev").c_str(), 0755);
    const std::string null = root + "/dev/null";
    const int fd = ::open(null.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
    if (fd >= 0) ::close(fd);
    Require(::mount("/dev/null", null.c_str(), nullptr, MS_BIND, nullptr) == 0, "/dev/null");
  }
  if ((mounts & FixtureRoot::kProc) != 0)
    BindReadOnly("/proc", root + "/proc");
  else if (kSanitized)
    BindReadOnly("/proc", root + kHiddenProc);
}

[[noreturn]] void RunInside(const std::string& root, const std::function<void()>& body, unsigned int mounts) {
  EnterNamespaces(mounts);
  MountInto(root, mounts);
  machineRoot = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Require(machineRoot >= 0 && ::chroot(root.c_str()) == 0 && ::chdir("/") == 0, "chroot");
  body();
  const bool failed = ::testing::Test::HasFailure();
  std::fflush(nullptr);
  int status = failed ? kAssertionFailed : 0;
  // The leak checker needs the machine's own /proc.
  if (__lsan_do_recoverable_leak_check != nullptr && ReturnToMachine() && __lsan_do_recoverable_leak_check() != 0) {
    status = kLeaked;
  }
  ::_exit(status);
}

}  // namespace

// In place of the system's: a child of the code under test that ends so, or the body of a test, is counted in the
// coverage, whose files lie outside its root.
extern "C" void _exit(int status) {
  if (__gcov_dump != nullptr && ReturnToMachine()) __gcov_dump();
  for (;;)
    ::syscall(SYS_exit_group, status);
}

FixtureRoot::FixtureRoot() {
  std::string pattern = (fs::temp_directory_path() / "ravd-root-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  m_Path = pattern;
  fs::permissions(m_Path, fs::perms(0755));  // a test may look at it as another user
}

FixtureRoot::~FixtureRoot() {
  std::error_code ignored;
  fs::remove_all(m_Path, ignored);
}

fs::path FixtureRoot::HostPath(std::string_view path) const {
  return m_Path / path.substr(path.starts_with('/') ? 1 : 0);
}

void FixtureRoot::WriteFile(std::string_view path, std::string_view content, mode_t mode) const {
  const fs::path file = HostPath(path);
  fs::create_directories(file.parent_path());
  WriteWholeFile(file, content);
  ASSERT_EQ(::chmod(file.c_str(), mode), 0) << file;
}

void FixtureRoot::MakeDirectory(std::string_view path, mode_t mode) const {
  fs::create_directories(HostPath(path));
  ASSERT_EQ(::chmod(HostPath(path).c_str(), mode), 0) << path;
}

void FixtureRoot::MakeLink(std::string_view path, const std::string& target) const {
  fs::create_directories(HostPath(path).parent_path());
  ASSERT_EQ(::symlink(target.c_str(), HostPath(path).c_str()), 0) << path;
}

void FixtureRoot::MakeSparseFile(std::string_view path, off_t size) const {
  WriteFile(path, "");
  ASSERT_EQ(::truncate(HostPath(path).c_str(), size), 0) << path;
}

void FixtureRoot::WriteAt(std::string_view path, off_t offset, std::string_view bytes) const {
  std::fstream stream(HostPath(path), std::ios::binary | std::ios::in | std::ios::out);
  stream.seekp(offset);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  stream.close();
  ASSERT_TRUE(stream.good()) << path;
}

void FixtureRoot::Remove(std::string_view path) const {
  fs::remove_all(HostPath(path));
}

bool FixtureRoot::Exists(std::string_view path) const {
  return fs::exists(fs::symlink_status(HostPath(path)));
}

std::string FixtureRoot::ReadFile(std::string_view path) const {
  return ReadWholeFile(HostPath(path));
}

mode_t FixtureRoot::Mode(std::string_view path) const {
  struct stat info {};
  EXPECT_EQ(::lstat(HostPath(path).c_str(), &info), 0) << path;
  return info.st_mode;
}

void FixtureRoot::Run(unsigned int mounts, const std::function<void()>& body) const {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0) << std::strerror(errno);
  if (child == 0) RunInside(m_Path.string(), body, mounts);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the body ended by signal " << WTERMSIG(status);
  ASSERT_NE(WEXITSTATUS(status), kSetUpFailed) << "the fixture root could not be entered";
  ASSERT_NE(WEXITSTATUS(status), kLeaked) << "the body leaked memory";
  ASSERT_EQ(WEXITSTATUS(status), 0) << "an assertion failed inside the fixture root";
}

void ShowOwnProcess() {
  const std::string pid = std::to_string(::getpid());
  if (!kSanitized || ::access((kHiddenProc + ("/" + pid)).c_str(), F_OK) != 0) return;
  Require(::unshare(CLONE_NEWNS) == 0, "unshare");
  ::mkdir("/proc", 0755);
  for (const std::string& name : {std::string("self"), pid})
    BindReadOnly(kHiddenProc + ("/" + pid), "/proc/" + name);
}

std::string ReadWholeFile(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  EXPECT_TRUE(stream.good()) << path;
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

void WriteWholeFile(const fs::path& path, std::string_view text) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream << text << std::flush;
  EXPECT_TRUE(stream.good()) << path;
}
