#include "platform/directory.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include "platform/directory_stream.h"
#include "platform/owned_text.h"
#include "trace/debug.h"

namespace {

bool IsSelfOrParent(std::string_view name) {
  return name == "." || name == "..";
}

}  // namespace

bool CDirectory::GetDirectoryContent(std::vector<std::string>& entries, const std::string& directory, bool fullPath) {
  const DirectoryStream stream(::opendir(directory.c_str()));
  int error = errno;
  if (stream == nullptr) {
    TRACE(1, "\nCDirectory::GetDirectoryContent :Cannot open directory: \"%s\". Error message: %s", directory.c_str(),
          std::strerror(error));
    return false;
  }
  std::string prefix;
  if (fullPath) {
    const MallocText canonical(::realpath(directory.c_str(), nullptr));
    error = errno;
    if (canonical == nullptr) {
      TRACE(1, "\nCDirectory::GetDirectoryContent : Cannot get absolute directory of path: \"%s\". Error message: %s",
            directory.c_str(), std::strerror(error));
      return false;
    }
    prefix = std::string(canonical.get()) + "/";
  }
  while (const dirent* entry = ::readdir(stream.get())) {
    if (!IsSelfOrParent(entry->d_name)) entries.push_back(prefix + entry->d_name);
  }
  return !entries.empty();
}
