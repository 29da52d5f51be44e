#include "trace/resident_memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstring>

#include "platform/process.h"
#include "platform/regular_file.h"

namespace {

constexpr const char* kStatm = "/proc/self/statm";

// "62541 2561 1780 83 0 1208 0" => 2561
bool ParseResidentPages(const char* text, size_t length, size_t& pages) {
  const void* blank = std::memchr(text, ' ', length);
  if (blank == nullptr) return false;
  const char* number = static_cast<const char*>(blank) + 1;
  return std::from_chars(number, text + length, pages).ec == std::errc();
}

bool ReadDescriptor(int fd, size_t& pages) {
  char text[128];
  const ssize_t length = ::pread(fd, text, sizeof text, 0);
  return length > 0 && ParseResidentPages(text, static_cast<size_t>(length), pages);
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
  if (m_Fd >= 0 && ReadDescriptor(m_Fd, pages)) return true;
  // Somebody else closed the descriptor, and the number may be theirs by now: forget it without closing it.
  m_Fd = -1;
  if (Open() && ReadDescriptor(m_Fd, pages)) return true;
  Close();
  return false;
}

bool ResidentMemory::Open() {
  m_Fd = AboveStandardDescriptors(UniqueFd(::open(kStatm, O_RDONLY | O_CLOEXEC))).Release();
  m_PageKb = static_cast<size_t>(::sysconf(_SC_PAGESIZE)) / 1024;
  return m_Fd >= 0;
}

void ResidentMemory::Close() {
  if (m_Fd >= 0) ::close(m_Fd);
  m_Fd = -1;
}

void ResidentMemory::ForgetInChild() {
  m_Fd = -1;
  m_ReadAt = -kMillisecond;
}
