#pragma once

#include <dirent.h>

// Filters for directory scans with scandir. Stateless, so any thread may call them.
class CDirectoryList {
 public:
  // Non-zero when the entry's name contains ".ini", wherever that stands in it.
  static int SelectFilesInDir(const dirent* entry);
};
