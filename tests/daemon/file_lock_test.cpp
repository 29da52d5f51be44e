#include "daemon/file_lock.h"

#include <sys/mman.h>

#include <new>

#include "support/trace_capture.h"

namespace {

constexpr const char* kPath = "/var/lock/deep/ravd";
constexpr const char* kFile = "/var/lock/deep/ravd.lock";

std::string Owner() {
  return "ravd#" + std::to_string(::getpid());
}

}  // namespace

using FileLock = RootedTest;

TEST_F(FileLock, NamesItsOwnerAndVanishesWithTheObject) {
  RunTraced(root, 5, [](const TraceCapture& trace) {
    ::umask(0);
    {
      CFileLock lock;
      EXPECT_FALSE(lock.Lock(nullptr, "ravd", 0));
      EXPECT_FALSE(lock.Lock("", "ravd", 0));
      ASSERT_TRUE(lock.Lock(kPath, "ravd", 0));
      EXPECT_EQ(ReadWholeFile(kFile), Owner());
      EXPECT_EQ(std::filesystem::status(kFile).permissions(), std::filesystem::perms(0644));
      // The same object may lock again, and elsewhere.
      ASSERT_TRUE(lock.Lock("/var/lock/other", nullptr, 0));
      EXPECT_EQ("ravd" + ReadWholeFile("/var/lock/other.lock"), Owner());
    }
    EXPECT_NE(::access("/var/lock/other.lock", F_OK), 0);
    // A stale file of a killed process is taken over, and its longer text does not shine through.
    WriteWholeFile(kFile, "ravd#1234567890 and more");
    CFileLock lock;
    ASSERT_TRUE(lock.Lock(kPath, "ravd", 0));
    EXPECT_EQ(ReadWholeFile(kFile), Owner());
    EXPECT_EQ(trace.Missing("CFileLock           :   apply file lock using file /var/lock/deep/ravd...\n"
                            "CFileLock::Lock     : LockFileDir.c_str() = /var/lock/deep\n"
                            "CFileLock::Lock     : Successfully locked lockfile /var/lock/deep/ravd.lock\n"
                            "CFileLock::Lock     : fileIsLockable = true\n"),
              "");
  });
  EXPECT_EQ(root.Mode("/var/lock/deep") & 07777U, 0711U);
}

TEST_F(FileLock, HeldLockIsRefusedAndItsOwnerRead) {
  RunTraced(root, 5, [](const TraceCapture& trace) {
    CFileLock holder;
    ASSERT_TRUE(holder.Lock(kPath, "ravd", 0));
    {
      CFileLock second;
      EXPECT_FALSE(second.Lock(kPath, "ravd", 250));
      EXPECT_EQ(second.OwnerInfo(), Owner());
      EXPECT_EQ(second.GetLastError(), EWOULDBLOCK);
    }
    EXPECT_EQ(trace.Count("Error Sharing Violation while trying to lock lockfile"), 2);
    EXPECT_TRUE(trace.Has("CFileLock::Lock     : fileIsLockable = false"));
    EXPECT_EQ(ReadWholeFile(kFile), Owner());
  });
}

// A name that does not fit is cut, but traced whole.
TEST_F(FileLock, UnusableDirectoriesAndLongPathsAreTraced) {
  root.WriteFile("/file", "");
  RunTraced(root, 3, [](const TraceCapture& trace) {
    const std::string longPath = "/" + std::string(100, 'a') + "/" + std::string(200, 'b');
    const std::string error = "CFileLock           : ## ERROR! Failed to open/create lock directory ";
    CFileLock lock;
    EXPECT_FALSE(lock.Lock("relative/ravd", "ravd", 0));
    EXPECT_FALSE(lock.Lock("/file/below/ravd", "ravd", 0));
    EXPECT_EQ(lock.GetLastError(), ENOTDIR);
    ASSERT_TRUE(lock.Lock(longPath.c_str(), "ravd", 0));
    EXPECT_EQ(ReadWholeFile((longPath + ".lock").substr(0, 259)), Owner());
    EXPECT_EQ(trace.Missing(error + "relative (LastError = 0x00000000)\n" + error +
                            "/file/below (LastError = 0x00000014)\nCFileLock::Lock     : LockFileName.c_str() = " +
                            longPath + ".lock\n"),
              "");
  });
}

namespace {

// Shared between the contenders for the lock.
struct Arena {
  std::atomic<int> holders, overlaps, changes, held;  // changes: of a holder's lock file
};

// What can be seen of the lock file: its owner's name, and which file of which age it is.
std::string LookAtLock() {
  struct stat info {};
  ::stat(kFile, &info);
  return ReadWholeFile(kFile) + " " + std::to_string(info.st_ino) + " " + std::to_string(info.st_mtim.tv_nsec);
}

void Contend(Arena& arena) {
  while (arena.held < 1000) {
    CFileLock lock;
    if (!lock.Lock(kPath, "ravd", 0)) continue;
    if (arena.holders++ != 0) ++arena.overlaps;
    const std::string before = LookAtLock();
    if (const int held = arena.held; held % 4 == 0) ::usleep(static_cast<useconds_t>(held % 300));
    if (!before.starts_with(Owner() + " ") || LookAtLock() != before) ++arena.changes;
    --arena.holders;
    ++arena.held;
  }
}

}  // namespace

// Several processes lock, hold and release at once.
TEST_F(FileLock, NeverTwoHoldersAndTheFileStaysTheHolders) {
  void* memory = ::mmap(nullptr, sizeof(Arena), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Arena& arena = *new (memory) Arena{};
  root.Run([&arena] {
    for (int contender = 0; contender < 8; ++contender) {
      if (::fork() != 0) continue;
      Contend(arena);
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
