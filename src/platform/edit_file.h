#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

// Edits a text file so that the old content or the new one is there, whenever the process is killed or the power fails:
// the new content is written to a temporary file beside it, brought to the disk and renamed, under an advisory lock
// that makes one writer wait for the other. Owner, group, mode and extended attributes stay; a symbolic link stays and
// its target is edited. The temporary file of "name.ini" is ".name~ini.new"; a writer that was killed leaves it for the
// next one to use.
//
// Where a rename cannot do that the file is edited in place, under a lock of its own: one with several names, one that
// is a mount point or has no name any more, one in a directory that cannot be written, and one whose owner or
// attributes this process may not give to another. What a kill or a power failure in the middle leaves is then a
// mixture of the old and the new content from the first changed byte on. A write that fails puts the old bytes back.
//
// Never traces; any thread may call it.

enum class FileEdit {
  kDone,       // also when there was nothing to write
  kRefused,    // by the change
  kFailed,     // the file is as it was
  kNotOpened,  // or not made; what is no regular file is not opened
};

// Makes the new content out of the old one, which is empty when there is no file (isThere false). May be called several
// times, each time with the content of that moment; the last call counts. False refuses.
using FileChange = std::function<bool(std::string& content, bool isThere)>;

// What does not change the content writes nothing. A file that is made gets the mode newFileMode; one that somebody
// else makes meanwhile is edited instead. Waits about a second for another writer.
FileEdit EditFile(const char* path, mode_t newFileMode, const FileChange& change);
