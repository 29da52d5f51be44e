#include "platform/directory_list.h"

#include <cstring>

int CDirectoryList::SelectFilesInDir(const dirent* entry) {
  return std::strstr(entry->d_name, ".ini") != nullptr ? 1 : 0;
}
