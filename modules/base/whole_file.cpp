#include "base/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/unique_fd.h"

namespace {

bool WriteAll(int file, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t written = ::write(file, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    done += static_cast<size_t>(written);
  }
  return true;
}

}  // namespace

std::optional<std::string> ReadWhole(const std::string& path, size_t limit) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return std::nullopt;
  std::string text;
  while (text.size() < limit) {
    char piece[4096];
    const ssize_t length = ::read(file.Get(), piece, sizeof piece);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0) return std::nullopt;
    if (length == 0) break;
    text.append(piece, static_cast<size_t>(length));
  }
  if (text.size() > limit) text.resize(limit);
  return text;
}

std::string ReadLine(const std::string& path) {
  std::string text = ReadWhole(path, 4096).value_or("");
  text.resize(std::min(text.find('\n'), text.size()));
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
    text.pop_back();
  return text;
}

bool ReplaceText(const std::string& path, const std::string& text, mode_t mode) {
  const std::string beside = path + ".new";
  ::unlink(beside.c_str());
  bool done = false;
  {
    const UniqueFd file(::open(beside.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return false;
    done = WriteAll(file.Get(), text) && ::fchmod(file.Get(), mode) == 0;
  }
  if (done && ::rename(beside.c_str(), path.c_str()) == 0) return true;
  const int error = errno;
  ::unlink(beside.c_str());
  errno = error;
  return false;
}
