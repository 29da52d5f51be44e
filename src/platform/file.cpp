#include "platform/file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "trace/debug.h"

bool CFile::GetSymbolicLink(std::string& target, const std::string& path) {
  char text[1024];
  const ssize_t length = ::readlink(path.c_str(), text, sizeof text - 1);
  const int error = errno;
  if (length < 0) {
    TRACE(2, "\nCFile::GetSymbolicLink  : Cannot get symbolic link for: '%s'. Error message: %s.\n", path.c_str(),
          std::strerror(error));
    return false;
  }
  target.assign(text, static_cast<size_t>(length));
  return true;
}
