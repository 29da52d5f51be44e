#include "daemon/file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <new>
#include <random>
#include <vector>

#include "support/fixture_root.h"
#include "support/trace_capture.h"

namespace {

constexpr const char* kPath = "/var/lock/deep/ravd";
constexpr const char* kFile = "/var/lock/deep/ravd.lock";

std::string Owner(pid_t pid) {
  return "ravd#" + std::to_string(pid);
}

}  // namespace

TEST(FileLock, NamesItsOwnerAndVanishesWithTheObject) {
  const FixtureRoot root;
  root.Run([] {
    ::umask(0);
    {
      CFileLock lock;
      EXPECT_FALSE(lock.Lock(nullptr, "ravd", 0));
      EXPECT_FALSE(lock.Lock("", "ravd", 0));
      ASSERT_TRUE(lock.Lock(kPath, "ravd", 0));
      EXPECT_EQ(ReadWholeFile(kFile), Owner(::getpid()));
      struct stat info {};
      ::stat("/var/lock/deep", &info);
      EXPECT_EQ(info.st_mode & 07777U, 0711U);
      ::stat(kFile, &info);
      EXPECT_EQ(info.st_mode & 07777U, 0644U);
      // The same object may lock again, and elsewhere.
      ASSERT_TRUE(lock.Lock("/var/lock/other", nullptr, 0));
      EXPECT_EQ(ReadWholeFile("/var/lock/other.lock"), "#" + std::to_string(::getpid()));
    }
    EXPECT_NE(::access("/var/lock/other.lock", F_OK), 0);
    // A stale file of a killed process is taken over, and its longer text does not shine through.
    FILE* stale = std::fopen(kFile, "w");
    std::fputs("ravd#1234567890 and more", stale);
    std::fclose(stale);
    const TraceCapture trace(5);
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(kPath, "ravd", 0));
    EXPECT_EQ(ReadWholeFile(kFile), Owner(::getpid()));
    EXPECT_TRUE(trace.Has("CFileLock           :   apply file lock using file /var/lock/deep/ravd..."));
    EXPECT_TRUE(trace.Has("CFileLock::Lock     : LockFileDir.c_str() = /var/lock/deep"));
    EXPECT_TRUE(trace.Has("CFileLock::Lock     : Successfully locked lockfile /var/lock/deep/ravd.lock"));
    EXPECT_TRUE(trace.Has("CFileLock::Lock     : fileIsLockable = true"));
  });
}

TEST(FileLock, HeldLockIsRefusedAndItsOwnerRead) {
  const FixtureRoot root;
  root.Run([] {
    CFileLock holder;
    ASSERT_TRUE(holder.Lock(kPath, "ravd", 0));
    const TraceCapture trace(5);
    {
      CFileLock second;
      EXPECT_FALSE(second.Lock(kPath, "ravd", 250));
      EXPECT_EQ(second.OwnerInfo(), Owner(::getpid()));
      EXPECT_EQ(second.GetLastError(), EWOULDBLOCK);
    }
    EXPECT_EQ(trace.Count("Error Sharing Violation while trying to lock lockfile"), 2);
    EXPECT_TRUE(trace.Has("CFileLock::Lock     : fileIsLockable = false"));
    EXPECT_EQ(ReadWholeFile(kFile), Owner(::getpid()));
  });
}

TEST(FileLock, UnusableDirectoriesAreReported) {
  const FixtureRoot root;
  root.WriteFile("/file", "");
  root.Run([] {
    const TraceCapture trace(1);
    CFileLock lock;
    EXPECT_FALSE(lock.Lock("relative/ravd", "ravd", 0));
    EXPECT_FALSE(lock.Lock("/file/below/ravd", "ravd", 0));
    EXPECT_EQ(lock.GetLastError(), ENOTDIR);
    EXPECT_EQ(
        trace.Lines(),
        (std::vector<std::string>{
            "CFileLock           : ## ERROR! Failed to open/create lock directory relative (LastError = 0x00000000)",
            "CFileLock           : ## ERROR! Failed to open/create lock directory /file/below (LastError = 0x00000014)"}));
  });
}

TEST(FileLock, ForkedChildKeepsTheLockOfItsParent) {
  const FixtureRoot root;
  root.Run([] {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t parent = ::fork();
    if (parent == 0) {
      CFileLock lock;
      if (!lock.Lock(kPath, "ravd", 0)) ::_exit(1);
      if (::fork() > 0) ::_exit(0);
      const pid_t self = ::getpid();
      if (::write(ready[1], &self, sizeof self) < 0) ::_exit(1);
      ::pause();
    }
    ::close(ready[1]);
    pid_t child = 0;
    ASSERT_EQ(::read(ready[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    int status = 0;
    ASSERT_EQ(::waitpid(parent, &status, 0), parent);
    CFileLock second;
    EXPECT_FALSE(second.Lock(kPath, "ravd", 0));
    EXPECT_EQ(second.OwnerInfo(), Owner(parent));
    ::kill(child, SIGKILL);
  });
}

// A name that does not fit is cut, but traced whole.
TEST(FileLock, LongPathIsCutButTracedWhole) {
  const FixtureRoot root;
  root.Run([] {
    const TraceCapture trace(3);
    const std::string path = "/" + std::string(100, 'a') + "/" + std::string(200, 'b');
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(path.c_str(), "ravd", 0));
    EXPECT_EQ(ReadWholeFile((path + ".lock").substr(0, 259)), Owner(::getpid()));
    EXPECT_TRUE(trace.Has("CFileLock::Lock     : LockFileName.c_str() = " + path + ".lock"));
  });
}

namespace {

// What can be seen of the lock file: its owner's name, and which file of which age it is.
std::string LookAtLock() {
  struct stat info {};
  if (::stat(kFile, &info) != 0) return "none";
  std::ifstream file(kFile);
  std::string owner;
  std::getline(file, owner);
  return owner + " " + std::to_string(info.st_ino) + " " + std::to_string(info.st_mtim.tv_nsec);
}

// Shared between the contenders for the lock.
struct Arena {
  std::atomic<int> holders;
  std::atomic<int> overlaps;
  std::atomic<int> changes;  // of a holder's lock file
  std::atomic<int> held;

  // The holder's time: nobody else holds it, and the lock file stays its own.
  void Hold(int microseconds) {
    if (holders.fetch_add(1) != 0) ++overlaps;
    const std::string before = LookAtLock();
    if (!before.starts_with(Owner(::getpid()) + " ")) ++changes;
    if (microseconds > 0) ::usleep(static_cast<useconds_t>(microseconds));
    if (LookAtLock() != before) ++changes;
    holders.fetch_sub(1);
    ++held;
  }
};

void Contend(Arena& arena, int seed) {
  std::mt19937 random(static_cast<unsigned int>(seed));
  while (arena.held < 1000) {
    CFileLock lock;
    if (lock.Lock(kPath, "ravd", 0)) arena.Hold(static_cast<int>(random() % 4 == 0 ? random() % 300 : 0));
  }
}

}  // namespace

// Several processes lock, hold and release at once.
TEST(FileLock, NeverTwoHoldersAndTheFileStaysTheHolders) {
  void* memory = ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Arena& arena = *new (memory) Arena{};
  const FixtureRoot root;
  root.Run([&arena] {
    for (int contender = 0; contender < 8; ++contender) {
      if (::fork() != 0) continue;
      Contend(arena, contender);
      ::_exit(0);
    }
    while (::wait(nullptr) > 0) {
    }
  });
  EXPECT_GE(arena.held, 1000);
  EXPECT_EQ(arena.overlaps, 0);
  EXPECT_EQ(arena.changes, 0);
  ::munmap(memory, sizeof(Arena));
}
