#include "trace/resident_memory.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstring>

#include "platform/process.h"

namespace {

constexpr const char* kStatm = "/proc/self/statm";

// How many forks lie between this process and the one that was started; asking the kernel for the PID at every entry
// would cost a system call. Starts at 1: an object that has opened nothing yet holds 0.
constinit std::atomic<unsigned int> forkGeneration = 1;

void CountForks() {
  [[maybe_unused]] static const int registered =
      ::pthread_atfork(nullptr, nullptr, [] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
}

// "62541 2561 1780 83 0 1208 0" => 2561
bool ParseResidentPages(const char* text, size_t length, size_t& pages) {
  const void* blank = std::memchr(text, ' ', length);
  if (blank == nullptr) return false;
  const char* number = static_cast<const char*>(blank) + 1;
  return std::from_chars(number, text + length, pages).ec == std::errc();
}

}  // namespace

size_t ResidentMemory::ReadKb() {
  size_t pages = 0;
  if (ReadPages(pages)) return pages * m_PageKb;
  uint64_t kb = 0;
  CProcess::GetProcessMemorySpecificInfo(static_cast<unsigned int>(::getpid()), kb, "VmRSS:", CProcess::kilobytes);
  return static_cast<size_t>(kb);
}

bool ResidentMemory::ReadPages(size_t& pages) {
  const unsigned int generation = forkGeneration.load(std::memory_order_relaxed);
  // After a fork the number may be anything of the child's own by now: it is forgotten without closing it.
  if (m_Generation != generation) m_Fd = -1;
  if (m_Fd < 0 && !Open()) return false;
  if (ReadKeptDescriptor(pages)) return true;
  // Somebody else closed the descriptor, and the number may be theirs by now: forget it without closing it.
  m_Fd = -1;
  return Open() && ReadKeptDescriptor(pages);
}

bool ResidentMemory::ReadKeptDescriptor(size_t& pages) {
  char text[128];
  const ssize_t length = ::pread(m_Fd, text, sizeof text, 0);
  return length > 0 && ParseResidentPages(text, static_cast<size_t>(length), pages);
}

bool ResidentMemory::Open() {
  Close();
  m_Fd = ::open(kStatm, O_RDONLY | O_CLOEXEC);
  CountForks();
  m_Generation = forkGeneration.load(std::memory_order_relaxed);
  m_PageKb = static_cast<size_t>(::sysconf(_SC_PAGESIZE)) / 1024;
  return m_Fd >= 0;
}

void ResidentMemory::Close() {
  if (m_Fd >= 0) ::close(m_Fd);
  m_Fd = -1;
}
