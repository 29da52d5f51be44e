#include "daemon/file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <thread>
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

// Several starters lock, hold and release at once; two of them must never hold the lock together.
TEST(FileLock, NeverTwoHolders) {
  const FixtureRoot root;
  root.Run([] {
    std::atomic<int> holders = 0;
    std::atomic<int> rounds = 0;
    std::atomic<bool> overlapped = false;
    std::vector<std::thread> contenders;
    for (int contender = 0; contender < 4; ++contender) {
      contenders.emplace_back([&] {
        while (rounds < 400) {
          CFileLock lock;
          if (!lock.Lock(kPath, "ravd", 0)) continue;
          if (++holders != 1) overlapped = true;
          ++rounds;
          std::this_thread::yield();
          --holders;
        }
      });
    }
    for (std::thread& contender : contenders)
      contender.join();
    EXPECT_FALSE(overlapped);
  });
}
