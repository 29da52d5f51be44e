#include "platform/descriptor_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/unique_fd.h"

namespace {

constexpr size_t kBlockSize = 8192;

}  // namespace

ssize_t ReadSome(int fd, char* buffer, size_t size) {
  ssize_t count = -1;
  do {
    count = ::read(fd, buffer, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

bool ReadToEnd(int fd, std::string& content) {
  char block[kBlockSize];
  ssize_t count = 0;
  while ((count = ReadSome(fd, block, sizeof block)) > 0) {
    content.append(block, static_cast<size_t>(count));
  }
  return count == 0;
}

bool OpenAndReadToEnd(const char* path, std::string& content) {
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  ReadToEnd(file.Get(), content);
  return true;
}

bool WriteAllAt(int fd, std::string_view data, off_t offset) {
  while (!data.empty()) {
    const ssize_t count = ::pwrite(fd, data.data(), data.size(), offset);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    data.remove_prefix(static_cast<size_t>(count));
    offset += count;
  }
  return true;
}
