#pragma once

#include <string>
#include <vector>

// Lists directories. Stateless, so any thread may call it. A failure is traced at level 1 and gives false.
class CDirectory {
 public:
  // Appends the names of a directory's entries, all but "." and "..", in the order in which the system returns them.
  // fullPath: each name is preceded by the directory's canonical absolute path and a "/", so that an entry of the root
  // directory begins with "//".
  // Result: whether entries is not empty afterwards; what the caller left in it counts. Nothing is appended when the
  // directory cannot be opened or resolved; a listing that breaks off keeps the entries read so far.
  static bool GetDirectoryContent(std::vector<std::string>& entries, const std::string& directory, bool fullPath);
};
