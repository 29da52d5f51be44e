#pragma once

#include <cstdint>
#include <string>

// Lets only one process of a kind run: an exclusive advisory lock (flock) on a lock file that names its owner.
//
// The file's existence means nothing: a stale one is locked and reused. The lock belongs to the open file description,
// so a child forked after Lock keeps it when the parent leaves without running the destructor; the file then still
// names the parent. One thread only. Failures are results; the reasons are traced, and kept in LastError.
//
// Several starters at once end with one holder: the file is deleted while its lock is still held, and a lock counts
// only when the file at the path is still the one that was locked.
class CFileLock {
 public:
  CFileLock() = default;
  // Deletes the lock file when this object holds it, and gives the lock back.
  ~CFileLock();
  CFileLock(const CFileLock&) = delete;
  CFileLock& operator=(const CFileLock&) = delete;

  // Takes the lock on lockPath + ".lock" and writes ownerName (may be null), "#" and the PID into the file; missing
  // directories are created with mode 0711. A lock that another process holds is tried again every 100 ms, at least
  // once, for timeoutMs. True when this object now holds the lock. A failure leaves an existing file in place.
  bool Lock(const char* lockPath, const char* ownerName, int timeoutMs);

  // Text of the lock file of another process that kept the lock from being taken: "ravd#1234".
  const std::string& OwnerInfo() const { return ownerInfo; }
  // errno of the last failed system call of Lock, 0 when none.
  int GetLastError() const { return LastError; }

 private:
  static constexpr size_t kPathSize = 260;

  bool CreateLockDirectory(const std::string& directory);
  bool IsLockable(int nrRetries);
  bool TryProbe(int nrRetries);
  void ReadOwner();
  bool TakeLock(const char* ownerName);
  bool OpenLocked();
  bool IsFileAtPath() const;
  void WriteOwner(const char* ownerName);
  void Close();

  int32_t fd = -1;
  bool isOpen = false;
  bool isLocked = false;  // closing flushes and unlocks first
  char lockFileName[kPathSize] = {};
  int32_t LastError = 0;
  std::string ownerInfo;
};
