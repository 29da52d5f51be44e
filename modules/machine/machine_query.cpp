#include "machine/machine_query.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "trace/debug.h"

namespace {

constexpr size_t kMaxAnswer = size_t{4} << 20;
constexpr int kReapMs = 20;  // how long a killed child may take to be gone

using Clock = std::chrono::steady_clock;

int MsUntil(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
  return static_cast<int>(std::max<decltype(left)>(left, 0));
}

}  // namespace

std::string MachineQuery::FindProgram() {
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&MachineQuery::FindProgram), &info) != 0) {
    const std::string module = info.dli_fname;
    const std::string program = module.substr(0, module.rfind('/') + 1) + "../ravd-machine";
    if (::access(program.c_str(), X_OK) == 0) return program;
  }
  return RAVD_MACHINE_PROGRAM;
}

MachineQuery::MachineQuery(std::string program)
    : m_Program(std::move(program)), m_Stop(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

MachineQuery::~MachineQuery() {
  if (m_Child != 0) Reap(kReapMs);
}

void MachineQuery::Stop() {
  ::eventfd_write(m_Stop.Get(), 1);
}

bool MachineQuery::IsStopped() const {
  pollfd stop{m_Stop.Get(), POLLIN, 0};
  return ::poll(&stop, 1, 0) > 0;
}

bool MachineQuery::Ask(const char* arguments, int timeoutMs, MachineRecords& records) {
  if (IsStopped()) return false;
  if (m_Child != 0 && !Reap(0)) {
    TRACE(2, "\nMachineQuery        : %s is not asked, the last one is still there", arguments);
    return false;
  }
  UniqueFd answer;
  if (!Start(arguments, answer)) return false;
  std::string text;
  const bool isWhole = ReadAnswer(answer.Get(), timeoutMs, text);
  if (!isWhole) ::kill(m_Child, SIGKILL);
  if (!Reap(kReapMs)) {
    ::kill(m_Child, SIGKILL);
    if (!Reap(kReapMs)) TRACE(1, "\nMachineQuery        : WARNING! Process %d does not end", static_cast<int>(m_Child));
  }
  if (isWhole && ParseRecords(text, records)) return true;
  if (!IsStopped()) {
    TRACE(1, "\nMachineQuery        : WARNING! %s %s gives no answer within %d ms", m_Program.c_str(), arguments,
          timeoutMs);
  }
  return false;
}

// The child takes every signal and has nothing of the daemon but the standard descriptors.
bool MachineQuery::Start(const char* arguments, UniqueFd& answer) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  answer = UniqueFd(ends[0]);
  const UniqueFd writing(ends[1]);

  std::vector<std::string> words = {m_Program, arguments};
  if (const size_t blank = words[1].find(' '); blank != std::string::npos) {
    words.push_back(words[1].substr(blank + 1));
    words[1].resize(blank);
  }
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  char* const environment[] = {nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_adddup2(&actions, writing.Get(), STDOUT_FILENO);
  sigset_t signals;
  ::sigemptyset(&signals);
  ::posix_spawnattr_setsigmask(&attributes, &signals);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int error = ::posix_spawn(&m_Child, m_Program.c_str(), &actions, &attributes, argv.data(), environment);
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  if (error == 0) return true;
  m_Child = 0;
  TRACE(1, "\nMachineQuery        : WARNING! %s cannot be run: %s", m_Program.c_str(), ::strerror(error));
  return false;
}

bool MachineQuery::ReadAnswer(int answer, int timeoutMs, std::string& text) {
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (text.size() < kMaxAnswer) {
    pollfd sources[] = {{answer, POLLIN, 0}, {m_Stop.Get(), POLLIN, 0}};
    const int ready = ::poll(sources, 2, MsUntil(end));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || sources[1].revents != 0) return false;
    char piece[4096];
    const ssize_t length = ::read(answer, piece, sizeof piece);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return length == 0;
    text.append(piece, static_cast<size_t>(length));
  }
  return false;
}

// Whether the child is gone.
bool MachineQuery::Reap(int timeoutMs) {
  for (int waitedMs = 0;; ++waitedMs) {
    const pid_t ended = ::waitpid(m_Child, nullptr, WNOHANG);
    if (ended == m_Child || (ended < 0 && errno == ECHILD)) {
      m_Child = 0;
      return true;
    }
    if (waitedMs >= timeoutMs) return false;
    ::usleep(1000);
  }
}
