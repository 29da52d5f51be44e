#include "ravctl/trace/read_at.h"

#include <unistd.h>

#include <cerrno>

namespace ravctl {

std::string ReadAt(const UniqueFd& file, off_t offset, size_t length) {
  std::string bytes(length, '\0');
  size_t have = 0;
  while (have < length) {
    const ssize_t got = ::pread(file.Get(), bytes.data() + have, length - have, offset + static_cast<off_t>(have));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    have += static_cast<size_t>(got);
  }
  bytes.resize(have);
  return bytes;
}

}  // namespace ravctl
