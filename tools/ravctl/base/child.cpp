#include "ravctl/base/child.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>

#include "platform/descriptor_io.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

using Clock = std::chrono::steady_clock;
using Work = std::function<int(int)>;

constexpr const char* kOwnChildren = "/proc/thread-self/children";
constexpr int kPollMs = 10;
constexpr int kMeanwhileMs = 100;
constexpr int kRoundsOfKilling = 200;  // where /proc does not tell whom to kill

struct Pipe {
  UniqueFd reader;
  UniqueFd writer;

  Pipe() {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) throw SystemFailure("cannot start a child", "pipe", errno);
    reader.Reset(ends[0]);
    writer.Reset(ends[1]);
  }
};

struct Pipes {
  Pipe report;  // work => command
  Pipe ending;  // keeper => command: the status of waitpid
  Pipe life;    // command => keeper: a byte to go on to its next step, or the end of the command
};

// ---- the child

[[noreturn]] void RunWork(pid_t keeper, int reportFd, const Work& work) {
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != keeper) ::_exit(70);
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

// ---- the keeper

// Whatever lost its parent below the keeper has become a child of the keeper.
void KillDescendants() {
  for (int round = 0; round < kRoundsOfKilling; ++round) {
    std::string children;
    ReadFileInto(kOwnChildren, children);
    for (const std::string& word : SplitList(children, ' ')) {
      pid_t child = 0;
      std::from_chars(word.data(), word.data() + word.size(), child);
      if (child > 0) ::kill(child, SIGKILL);
    }
    pid_t ended = 0;
    while ((ended = ::waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    if (ended < 0) return;
    ::poll(nullptr, 0, kPollMs);
  }
}

// Whether the command is there and wants the keeper to go on.
bool IsToldToGoOn(int life) {
  char byte = 0;
  return ReadSome(life, &byte, 1) == 1;
}

// Until the child has ended by itself, or is to be killed. False when the command is gone.
bool Watch(pid_t child, int life) {
  siginfo_t info{};
  pollfd file{life, POLLIN, 0};
  while (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0) {
    if (::poll(&file, 1, kPollMs) > 0) return IsToldToGoOn(life);
  }
  return true;
}

[[noreturn]] void Keep(Pipes& pipes, const Work& work, const std::function<void()>& whenGone) {
  sigset_t all, before;
  ::sigfillset(&all);
  ::sigprocmask(SIG_SETMASK, &all, &before);
  std::signal(SIGCHLD, SIG_DFL);
  ::setpgid(0, 0);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const pid_t keeper = ::getpid();
  pipes.report.reader.Reset();
  pipes.ending.reader.Reset();
  pipes.life.writer.Reset();
  const pid_t child = ::fork();
  if (child < 0) ::_exit(errno);
  if (child == 0) {
    pipes.ending.writer.Reset();
    pipes.life.reader.Reset();
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    RunWork(keeper, pipes.report.writer.Get(), work);
  }
  pipes.report.writer.Reset();
  const int life = pipes.life.reader.Get();
  bool isWanted = Watch(child, life);
  ::kill(-child, SIGKILL);
  ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  KillDescendants();
  const bool isTold = ::write(pipes.ending.writer.Get(), &status, sizeof status) == sizeof status;
  isWanted = isWanted && isTold && IsToldToGoOn(life);
  if (!isWanted && whenGone) whenGone();
  ::_exit(0);
}

// ---- the command

// Takes what is there; false at the end.
bool TakeReport(int fd, std::string& report) {
  std::array<char, 4096> bytes{};
  const ssize_t got = ReadSome(fd, bytes.data(), bytes.size());
  if (got > 0) report.append(bytes.data(), static_cast<size_t>(got));
  return got > 0;
}

int MsUntil(Clock::time_point end, int64_t most) {
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(rest, 0, most));
}

}  // namespace

KeptChild::KeptChild(const Work& work, const std::function<void()>& whenGone) {
  Pipes pipes;
  std::fflush(nullptr);
  m_Keeper = ::fork();
  if (m_Keeper < 0) throw SystemFailure("cannot start a child", "fork", errno);
  if (m_Keeper == 0) Keep(pipes, work, whenGone);
  m_Report = std::move(pipes.report.reader);
  m_Ending = std::move(pipes.ending.reader);
  m_Life = std::move(pipes.life.writer);
}

KeptChild::~KeptChild() {
  Tell(2);  // kill it, and that is all
  ::waitpid(m_Keeper, nullptr, 0);
}

void KeptChild::Tell(size_t steps) const {
  constexpr std::array<char, 2> kBytes{};
  [[maybe_unused]] const ssize_t written = ::write(m_Life.Get(), kBytes.data(), steps);
}

ChildResult KeptChild::Wait(int timeoutSeconds, const std::function<void(const std::string&)>& meanwhile) {
  ChildResult result;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(timeoutSeconds);
  std::array<pollfd, 2> files = {{{m_Ending.Get(), POLLIN, 0}, {m_Report.Get(), POLLIN, 0}}};
  const int64_t longestMs = meanwhile ? kMeanwhileMs : 3600000;
  while (files[0].revents == 0) {
    if (::poll(files.data(), files.size(), result.isTimeout ? -1 : MsUntil(end, longestMs)) < 0) continue;
    if (files[1].revents != 0 && !TakeReport(m_Report.Get(), result.report)) files[1].fd = -1;
    if (meanwhile) meanwhile(result.report);
    if (result.isTimeout || Clock::now() < end || files[0].revents != 0) continue;
    result.isTimeout = true;
    Tell(1);
  }
  while (files[1].fd >= 0 && ::poll(&files[1], 1, 0) > 0 && TakeReport(m_Report.Get(), result.report)) {
  }
  int status = 0;
  if (::read(m_Ending.Get(), &status, sizeof status) != sizeof status) {
    siginfo_t keeper{};
    ::waitid(P_PID, static_cast<id_t>(m_Keeper), &keeper, WEXITED | WNOWAIT);
    if (keeper.si_code == CLD_EXITED) throw SystemFailure("cannot start a child", "fork", keeper.si_status);
    status = keeper.si_status;
  }
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

ChildResult RunInChild(int timeoutSeconds, const Work& work) {
  return KeptChild(work).Wait(timeoutSeconds);
}

ChildResult RunProgram(int timeoutSeconds, const std::string& path, const std::vector<std::string>& words) {
  return RunInChild(timeoutSeconds, [&path, &words](int reportFd) {
    std::vector<std::string> texts = {path};
    texts.insert(texts.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& text : texts)
      argv.push_back(text.data());
    argv.push_back(nullptr);
    ::dup2(reportFd, STDOUT_FILENO);
    ::close(STDERR_FILENO);
    ::open("/dev/null", O_WRONLY);
    ::execv(path.c_str(), argv.data());
    return 127;
  });
}

}  // namespace ravctl
