#include "platform/child_start.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

bool WaitForEnd(pid_t child, int& status) {
  pid_t ended = -1;
  do {
    ended = ::waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended == child;
}

namespace {

constexpr const char* kOwnDescriptors = "/proc/self/fd";
constexpr char kShell[] = "/bin/sh";
constexpr const char* kPathWithoutVariable = "/bin:/usr/bin";
constexpr unsigned int kFirstClosedDescriptor = 3;
constexpr int kCannotRun = 255;
constexpr int kUnblockedSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGALRM};

// "ls" and "/bin::/usr/bin" => "/bin/ls", "ls", "/usr/bin/ls"
std::vector<std::string> PathsOfProgram(const std::string& program) {
  if (program.empty() || program.find('/') != std::string::npos) return {program};
  const char* variable = std::getenv("PATH");
  std::string_view rest = variable == nullptr ? kPathWithoutVariable : variable;
  std::vector<std::string> paths;
  for (;;) {
    const size_t length = rest.find(':');
    std::string path(rest.substr(0, length));
    if (!path.empty()) path += '/';
    paths.push_back(path + program);
    if (length == std::string_view::npos) return paths;
    rest.remove_prefix(length + 1);
  }
}

// From here to the end of the namespace: called between fork and exec.

// The way of a kernel without close_range: asks which descriptors are open. The entry is parsed by hand.
bool CloseListedDescriptors(unsigned int first, unsigned int end) {
  const int directory = ::open(kOwnDescriptors, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) return false;
  alignas(dirent64) char block[2048];
  long length = 0;
  while ((length = ::syscall(SYS_getdents64, directory, block, sizeof block)) > 0) {
    for (long place = 0; place < length;) {
      const char* entry = block + place;
      unsigned int fd = 0;
      const char* digit = entry + offsetof(dirent64, d_name);
      for (; *digit >= '0' && *digit <= '9'; ++digit) {
        fd = fd * 10 + static_cast<unsigned int>(*digit - '0');
      }
      if (fd >= first && fd < end && static_cast<int>(fd) != directory) ::close(static_cast<int>(fd));
      unsigned short size = 0;
      std::memcpy(&size, entry + offsetof(dirent64, d_reclen), sizeof size);
      place += size;
    }
  }
  ::close(directory);
  return length == 0;
}

void ResetSignals() {
  for (int signal = 1; signal < NSIG; ++signal) {
    ::signal(signal, SIG_DFL);
  }
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : kUnblockedSignals) {
    ::sigaddset(&signals, signal);
  }
  ::sigprocmask(SIG_UNBLOCK, &signals, nullptr);
}

// Whether the next directory of PATH may have the program that this one does not give.
bool IsWorthAnotherTry(int error) {
  switch (error) {
    case EACCES:
    case ENAMETOOLONG:
    case ENODEV:
    case ENOENT:
    case ENOTDIR:
    case ESTALE:
    case ETIMEDOUT:
      return true;
    default:
      return false;
  }
}

}  // namespace

void CloseDescriptors(unsigned int first, unsigned int end) {
  if (::syscall(SYS_close_range, first, end - 1, 0U) == 0) return;
  if (CloseListedDescriptors(first, end)) return;
  for (unsigned int fd = first; fd < end; ++fd) {
    ::close(static_cast<int>(fd));
  }
}

unsigned int DescriptorLimit() {
  const long limit = ::sysconf(_SC_OPEN_MAX);
  return limit <= 255 ? 1024 : static_cast<unsigned int>(std::min(limit, long{INT32_MAX}));
}

CChildStart::CChildStart(std::vector<std::string> words, bool inheritHandles, int directory)
    : m_Words(std::move(words)), m_Directory(directory), m_FirstKeptDescriptor(inheritHandles ? 0 : DescriptorLimit()) {
  m_Candidates = PathsOfProgram(m_Words.empty() ? std::string() : m_Words.front());
  for (std::string& word : m_Words) {
    m_Arguments.push_back(word.data());
  }
  m_Arguments.push_back(nullptr);
  // The second place is for the path of the script.
  m_ShellArguments = {const_cast<char*>(kShell), nullptr};
  if (!m_Words.empty()) m_ShellArguments.insert(m_ShellArguments.end(), m_Arguments.begin() + 1, m_Arguments.end());
}

pid_t CChildStart::Start() {
  const pid_t child = ::fork();
  if (child == 0) RunChild();
  return child;
}

// The child in between ends at once and tells by its status whether it could start the other.
bool CChildStart::StartOrphan() {
  const pid_t between = ::fork();
  if (between == 0) {
    const pid_t child = ::_Fork();
    if (child == 0) RunChild();
    ::_exit(child > 0 ? 0 : kCannotRun);
  }
  if (between < 0) return false;  // waited for, that would be any child
  int status = 0;
  return WaitForEnd(between, status) && status == 0;
}

void CChildStart::RunChild() {
  if (m_Directory >= 0 && ::fchdir(m_Directory) != 0) ::_exit(kCannotRun);
  if (m_FirstKeptDescriptor > kFirstClosedDescriptor) CloseDescriptors(kFirstClosedDescriptor, m_FirstKeptDescriptor);
  ResetSignals();
  ExecuteCandidates();
  ::_exit(kCannotRun);
}

void CChildStart::ExecuteCandidates() {
  for (std::string& path : m_Candidates) {
    ::execve(path.c_str(), m_Arguments.data(), environ);
    if (errno == ENOEXEC) {
      m_ShellArguments[1] = path.data();
      ::execve(kShell, m_ShellArguments.data(), environ);
    }
    if (!IsWorthAnotherTry(errno)) return;
  }
}
