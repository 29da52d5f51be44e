#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <utility>

#include "platform/unique_fd.h"

// The new content of a file while it is written beside it: one process at a time, held by an advisory lock on the
// temporary file itself. The steps of a durable replacement, each of which may fail:
//
//   CTempFile temp("/etc/agent.new");
//   temp.Open() == CTempFile::kDone && WriteAllAt(temp.Get(), text, 0) && temp.Sync() &&
//       temp.TakeAttributesOf(oldFile) && temp.RenameTo("/etc/agent") && SyncDirectoryOf("/etc/agent");
//
// A reader then finds the old content or the new one, whenever a process is killed or the power fails.
//
// What lies at the temporary path is taken as it is when it is a regular file of this user with no other name that
// nobody else may open, as an interrupted writer leaves it: it is emptied under the lock. Everything else - a link, a
// pipe, somebody else's file - is taken away and a new file made, which nobody else may open until it gets another
// mode. It gets that right before it is renamed: whoever may open a file may hold its lock for good. The lock ends with
// the object, also for a child that was forked meanwhile, or with the process. Never traces; an object belongs to one
// thread. On failure errno tells why.
class CTempFile {
 public:
  enum Opening { kDone, kNotOpened, kNotLocked };

  explicit CTempFile(std::string path) : m_Path(std::move(path)) {}
  ~CTempFile();
  CTempFile(const CTempFile&) = delete;
  CTempFile& operator=(const CTempFile&) = delete;

  // Waits so long for another process that writes the file (kNotLocked, EWOULDBLOCK): one that is stopped must not stop
  // the others for good. A locked file that others may open all that time is no longer written: a writer was killed
  // right before its rename, and somebody holds what it left. That file is taken away, too.
  Opening Open(std::chrono::milliseconds longestWait = std::chrono::seconds(1));
  // For writing; the object keeps it.
  int Get() const { return m_File.Get(); }
  // A stream of its own for the text; closing it does not give up the lock. Null on failure.
  FILE* MakeStream() const;

  // Owner, group, mode and extended attributes become those of the other file. False when one of them cannot.
  bool TakeAttributesOf(int other) const;
  // The content is on the disk when this is true.
  bool Sync() const;

  // Whether the path still names this file.
  bool IsInPlace() const;
  // Takes the place of what is there; refused (ESTALE) when the temporary path names another file by now.
  bool RenameTo(const char* path) const;
  // The same where nothing is; what is there stays (EEXIST).
  bool RenameToNew(const char* path) const;
  void Remove() const;

 private:
  enum class Attempt { kDone, kAgain, kBusy, kBusyLeftOver, kNotOpened, kNotLocked };

  Attempt TryOpen();
  Attempt TakeAway() const;

  std::string m_Path;
  UniqueFd m_File;
};

// Makes renames in the directory of that path last. A file system that cannot do so for a directory counts as done.
bool SyncDirectoryOf(const char* path);

// Takes the advisory lock of an open file that is written in place; waits about a second, as Open does. It ends with
// the descriptor. A file system without locks counts as locked.
bool LockFile(int fd);

// Where a file that the path names lies, or would be made: the path without symbolic links, also without one that
// points to what is not there. Empty on failure.
std::string ResolvePath(const char* path);
