#include "support/failing_call.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

const char* failingFunction = nullptr;
int callsLeft = 0;
std::function<void()> actionBefore;

bool ShallFail(const char* function) {
  if (failingFunction == nullptr || std::strcmp(failingFunction, function) != 0 || --callsLeft != 0) return false;
  if (actionBefore) {
    actionBefore();
    return false;
  }
  errno = EIO;
  return true;
}

}  // namespace

FailingCall::FailingCall(const char* function, int callNumber, std::function<void()> action) {
  actionBefore = std::move(action);
  callsLeft = callNumber;
  failingFunction = function;
}

FailingCall::~FailingCall() {
  failingFunction = nullptr;
}

bool FailingCall::HasHappened() const {
  return callsLeft <= 0;
}

extern "C" int fsync(int fd) {
  return ShallFail("fsync") ? -1 : static_cast<int>(::syscall(SYS_fsync, fd));
}

extern "C" int link(const char* from, const char* to) noexcept {
  return ShallFail("link") ? -1 : static_cast<int>(::syscall(SYS_link, from, to));
}

extern "C" int rename(const char* from, const char* to) noexcept {
  return ShallFail("rename") ? -1 : static_cast<int>(::syscall(SYS_rename, from, to));
}

// The stream is gone even when closing it fails.
extern "C" int fclose(FILE* file) {
  static auto* const system = reinterpret_cast<int (*)(FILE*)>(::dlsym(RTLD_NEXT, "fclose"));
  const bool fails = ShallFail("fclose");
  const int result = system(file);
  if (!fails) return result;
  errno = EIO;
  return -1;
}
