#pragma once

#include <cstdio>

#include "platform/unique_fd.h"

// registry.new while it is written: one process at a time, held by a lock on the file itself.
//
// What lies at the path is taken as it is when it is a regular file of this user with no other name, as an interrupted
// save leaves it: it is emptied under the lock. Everything else - a link, a pipe, somebody else's file - is taken away
// and a new file made. The lock ends with the object, also for a child that was forked meanwhile, or with the process.
// Never traces; one thread at a time. On failure errno tells why.
class CRegistryTempFile {
 public:
  enum class Opening { kDone, kNotOpened, kNotLocked };

  explicit CRegistryTempFile(const char* path) : m_Path(path) {}
  ~CRegistryTempFile();
  CRegistryTempFile(const CRegistryTempFile&) = delete;
  CRegistryTempFile& operator=(const CRegistryTempFile&) = delete;

  // Waits about a second for another process that writes the file (kNotLocked, EWOULDBLOCK): one that is stopped must
  // not stop the others for good.
  Opening Open();
  // A stream of its own for the text; closing it does not give up the lock. Null on failure.
  FILE* MakeStream() const;
  // Whether the path still names this file.
  bool IsInPlace() const;
  void Remove() const;

 private:
  enum class Attempt { kDone, kAgain, kBusy, kNotOpened, kNotLocked };

  Attempt TryOpen();
  Attempt TakeAway() const;

  const char* m_Path;
  UniqueFd m_File;
};
