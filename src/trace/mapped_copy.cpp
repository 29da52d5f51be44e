#include "trace/mapped_copy.h"

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstring>

namespace mapped_copy {
namespace {

// What the thread is copying to, and where it goes on when that is gone.
struct Copy {
  const char* begin;
  size_t size;
  sigjmp_buf back;
};

constinit thread_local Copy* current = nullptr;
struct sigaction previous;

// Gives the signal to whoever had it before. Without a handler the fault is repeated, or the signal raised again, and
// takes its default course.
void PassOn(int signal, siginfo_t* info, void* context) {
  if ((previous.sa_flags & SA_SIGINFO) != 0) return previous.sa_sigaction(signal, info, context);
  const bool isFault = info->si_code > 0;
  if (previous.sa_handler == SIG_IGN && !isFault) return;
  if (previous.sa_handler != SIG_IGN && previous.sa_handler != SIG_DFL) return previous.sa_handler(signal);
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  ::sigaction(signal, &standard, nullptr);
  if (!isFault) ::raise(signal);
}

void OnBusError(int signal, siginfo_t* info, void* context) {
  Copy* const copy = current;
  const auto at = reinterpret_cast<uintptr_t>(info->si_addr);
  const bool isOurs =
      copy != nullptr && info->si_code > 0 && at - reinterpret_cast<uintptr_t>(copy->begin) < copy->size;
  if (!isOurs) return PassOn(signal, info, context);
  current = nullptr;
  siglongjmp(copy->back, 1);
}

bool Install() {
  struct sigaction action {};
  action.sa_sigaction = OnBusError;
  // Without SA_NODEFER the jump would leave the signal blocked; saving the mask would cost two system calls a copy.
  action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
  ::sigemptyset(&action.sa_mask);
  return ::sigaction(SIGBUS, &action, &previous) == 0;
}

template <class Body>
__attribute__((noinline)) bool Run(char* to, size_t size, const Body& body) {
  Copy copy;
  copy.begin = to;
  copy.size = size;
  if (sigsetjmp(copy.back, 0) != 0) return false;
  current = &copy;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  body();
  std::atomic_signal_fence(std::memory_order_seq_cst);
  current = nullptr;
  return true;
}

}  // namespace

void CatchLostPages() {
  [[maybe_unused]] static const bool installed = Install();
}

constinit thread_local time_t unblockedIn = -1;

void UnblockNow(time_t second) {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGBUS);
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  unblockedIn = second;
}

bool Put(char* to, std::string_view first, std::string_view second) {
  return Run(to, first.size() + second.size(), [=] {
    std::memcpy(to, first.data(), first.size());
    std::memcpy(to + first.size(), second.data(), second.size());
  });
}

bool Fill(char* to, char character, size_t count) {
  return Run(to, count, [=] { std::memset(to, character, count); });
}

}  // namespace mapped_copy
