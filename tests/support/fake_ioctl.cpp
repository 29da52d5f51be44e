#include "support/fake_ioctl.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <system_error>

namespace {

FakeIoctl::Handler& CurrentHandler() {
  static FakeIoctl::Handler handler;
  return handler;
}

// Without a /proc in the caller's root, /dev is searched for the file behind the descriptor.
std::string PathOfDescriptor(int fd) {
  std::error_code error;
  const auto link = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
  if (!error) return link.string();
  struct stat wanted {};
  if (::fstat(fd, &wanted) != 0) return "";
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/dev", error)) {
    struct stat found {};
    if (::stat(entry.path().c_str(), &found) == 0 && found.st_ino == wanted.st_ino && found.st_dev == wanted.st_dev) {
      return entry.path().string();
    }
  }
  return "";
}

}  // namespace

FakeIoctl::FakeIoctl(Handler handler) {
  CurrentHandler() = std::move(handler);
}

FakeIoctl::~FakeIoctl() {
  CurrentHandler() = nullptr;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (CurrentHandler()) {
    if (const std::optional<int> answer = CurrentHandler()(PathOfDescriptor(fd), request, argument)) {
      if (*answer >= 0) return *answer;
      errno = -*answer;
      return -1;
    }
  }
  return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}
