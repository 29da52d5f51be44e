#include "ravctl/base/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>

#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/base/error.h"

namespace ravctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 10;

[[noreturn]] void RunWork(int reportFd, const std::function<int(int)>& work) {
  ::setpgid(0, 0);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  int status = 70;
  try {
    status = work(reportFd);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
  }
  std::fflush(nullptr);
  ::_exit(status);
}

enum class Report { kNothingNow, kSome, kEnd };

// Takes what is there within the time.
Report ReadReport(int fd, int waitMs, std::string& report) {
  pollfd file{fd, POLLIN, 0};
  if (::poll(&file, 1, waitMs) <= 0) return Report::kNothingNow;
  std::array<char, 4096> bytes{};
  const ssize_t got = ReadSome(fd, bytes.data(), bytes.size());
  if (got > 0) report.append(bytes.data(), static_cast<size_t>(got));
  return got > 0 ? Report::kSome : Report::kEnd;
}

}  // namespace

ChildResult RunInChild(int timeoutSeconds, const std::function<int(int reportFd)>& work) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) throw SystemFailure("cannot start a child", "pipe", errno);
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) throw SystemFailure("cannot start a child", "fork", errno);
  if (child == 0) RunWork(writer.Get(), work);
  ::setpgid(child, child);
  writer.Reset();

  ChildResult result;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(timeoutSeconds);
  int status = 0;
  bool isOpen = true;
  pid_t ended = 0;
  while ((ended = ::waitpid(child, &status, WNOHANG)) == 0) {
    if (Clock::now() >= end) {
      result.isTimeout = true;
      ::kill(-child, SIGKILL);
      ended = ::waitpid(child, &status, 0);
      break;
    }
    if (isOpen) {
      isOpen = ReadReport(reader.Get(), kPollMs, result.report) != Report::kEnd;
    } else {
      ::poll(nullptr, 0, kPollMs);
    }
  }
  ::kill(-child, SIGKILL);  // what it left behind
  while (isOpen && ReadReport(reader.Get(), 0, result.report) == Report::kSome) {
  }
  if (ended == child && WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  if (ended == child && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

}  // namespace ravctl
