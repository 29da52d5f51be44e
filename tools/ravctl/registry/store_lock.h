#pragma once

#include "platform/replace_file.h"

namespace ravctl {

// Whoever holds one is the only ravctl that edits the registry of this machine. The lock is on a file of its own that
// nobody but root can open; it is there while the lock is held, and what a killed edit left of it locks nothing. Saves
// of the library wait for each other by a lock of theirs.
class StoreLock {
 public:
  // Waits as long as one edit comes after the other. Throws CommandError with the name of a process that holds it for
  // several seconds.
  StoreLock();
  ~StoreLock() { m_File.Remove(); }

 private:
  CTempFile m_File;
};

}  // namespace ravctl
