#include "ravctl/trace/file_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace ravctl {

namespace {

constexpr int kProcessPollMs = 250;  // where a process cannot be waited for

}  // namespace

FileWatch::FileWatch(const std::string& directory, pid_t pid)
    : m_Watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), m_Pid(pid) {
  constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM | IN_MODIFY;
  if (m_Watch && ::inotify_add_watch(m_Watch.Get(), directory.c_str(), kEvents) < 0) m_Watch.Reset();
  if (pid == 0) return;
  m_Process.Reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!m_Process && errno == ESRCH) m_IsProcessGone = true;
}

bool FileWatch::Wait(int timeoutMs) {
  if (m_Pid != 0 && !m_Process && (timeoutMs < 0 || timeoutMs > kProcessPollMs)) timeoutMs = kProcessPollMs;
  std::array<pollfd, 3> files = {{{m_Watch.Get(), POLLIN, 0}, {m_Process.Get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
  ::poll(files.data(), files.size(), timeoutMs);
  m_IsReaderGone = (files[2].revents & POLLERR) != 0;
  if (m_Process && files[1].revents != 0) m_IsProcessGone = true;
  if (m_Pid != 0 && !m_Process && ::kill(m_Pid, 0) != 0 && errno == ESRCH) m_IsProcessGone = true;
  if (!m_Watch) return true;
  bool hasHappened = false;
  alignas(inotify_event) std::array<char, 4096> events{};
  while (::read(m_Watch.Get(), events.data(), events.size()) > 0)
    hasHappened = true;
  return hasHappened;
}

}  // namespace ravctl
