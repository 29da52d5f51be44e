#include "ravctl/daemon/signal_watch.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "ravctl/base/error.h"

namespace ravctl {

std::chrono::milliseconds Seconds(double seconds) {
  return std::chrono::milliseconds(static_cast<long long>(seconds * 1000.0));
}

int TimeoutUntil(Clock::time_point end) {
  constexpr std::chrono::milliseconds kLongest = std::chrono::hours(1);
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
  return static_cast<int>(std::clamp(rest, std::chrono::milliseconds(0), kLongest).count());
}

SignalWatch::SignalWatch(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals)
    sigaddset(&set, signal);
  ::pthread_sigmask(SIG_BLOCK, &set, &m_Previous);
  m_Signals.Reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  const int error = errno;
  if (m_Signals) return;
  ::pthread_sigmask(SIG_SETMASK, &m_Previous, nullptr);
  throw SystemFailure("cannot wait for signals", "signalfd", error);
}

SignalWatch::~SignalWatch() {
  ::pthread_sigmask(SIG_SETMASK, &m_Previous, nullptr);
}

int SignalWatch::Take() const {
  signalfd_siginfo info{};
  return ::read(m_Signals.Get(), &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

int SignalWatch::WaitUntil(Clock::time_point end) const {
  do {
    std::array<pollfd, 2> files = {{{m_Signals.Get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    ::poll(files.data(), files.size(), TimeoutUntil(end));
    if (const int signal = Take(); signal != 0) return signal;
    if ((files[1].revents & (POLLERR | POLLHUP)) != 0) return SIGPIPE;
  } while (Clock::now() < end);
  return 0;
}

bool IsOutputClosed() {
  pollfd file = {STDOUT_FILENO, 0, 0};
  return ::poll(&file, 1, 0) > 0 && (file.revents & (POLLERR | POLLHUP)) != 0;
}

}  // namespace ravctl
