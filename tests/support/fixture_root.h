#pragma once

// What nearly every test stands on comes with it, so that a test names what is special to it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// A directory tree that a test fills and then enters as its root, so that the code under test opens its real absolute
// paths and finds what the test wrote.
//
//   FixtureRoot root;
//   root.WriteFile("/etc/pelrix/registry", "...");
//   root.Run([] { CRegistry registry; EXPECT_EQ(...); });
//
// The tree lies below the system's temporary directory and is removed with the object. Paths are absolute as seen from
// inside. The calling test must have one thread only when it calls Run.
class FixtureRoot {
 public:
  enum Mounts : unsigned int {
    kNone = 0,
    kUsr = 1,      // /usr read-only with the links /bin, /sbin, /lib, /lib64, and /dev/null: commands run
    kProc = 2,     // the machine's /proc, read-only where the kernel allows
    kNetwork = 4,  // a network namespace of its own, with the loopback interface down
  };

  FixtureRoot();
  ~FixtureRoot();
  FixtureRoot(const FixtureRoot&) = delete;
  FixtureRoot& operator=(const FixtureRoot&) = delete;

  // Missing parent directories are made. A file that exists is replaced.
  void WriteFile(std::string_view path, std::string_view content, mode_t mode = 0644) const;
  void MakeDirectory(std::string_view path, mode_t mode = 0755) const;
  void MakeLink(std::string_view path, const std::string& target) const;
  // A regular file of that size with nothing stored in it, as a stand-in for a device such as /dev/mem.
  void MakeSparseFile(std::string_view path, off_t size) const;
  void WriteAt(std::string_view path, off_t offset, std::string_view bytes) const;
  void Remove(std::string_view path) const;

  bool Exists(std::string_view path) const;
  std::string ReadFile(std::string_view path) const;
  mode_t Mode(std::string_view path) const;
  // Where the path lies on the machine.
  std::filesystem::path HostPath(std::string_view path) const;

  // Runs the body in a child process whose root is this tree. Assertions that fail inside print their message there
  // and fail the calling test; so do a crash and a leak. Files that the body wrote can be read afterwards.
  void Run(unsigned int mounts, const std::function<void()>& body) const;
  void Run(const std::function<void()>& body, unsigned int mounts = kNone) const { Run(mounts, body); }

 private:
  std::filesystem::path m_Path;
};

// A test with a root of its own.
class RootedTest : public ::testing::Test {
 protected:
  FixtureRoot root;
};

// For the environment of a program of this build that changes its root or its user: there the leak checker, which
// looks at the process from outside, fails.
inline constexpr const char* kNoLeakCheck = "ASAN_OPTIONS=detect_leaks=0";

// Called in a forked child inside a root before it executes a program of this build: an instrumented one needs its
// own /proc/self even where the root has no /proc. Does nothing in a build without sanitizers.
void ShowOwnProcess();

// Reads a whole file of the machine; fails the test when it cannot.
std::string ReadWholeFile(const std::filesystem::path& path);
// Puts the text in the place of what the file held; for a body, which sees the paths of its root.
void WriteWholeFile(const std::filesystem::path& path, std::string_view text);
