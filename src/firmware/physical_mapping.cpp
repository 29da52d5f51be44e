#include "firmware/physical_mapping.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

namespace {

bool ReachesBehindEnd(int device, uint64_t base, uint64_t length) {
  struct stat info {};
  if (::fstat(device, &info) != 0 || !S_ISREG(info.st_mode)) return false;
  const auto size = static_cast<uint64_t>(info.st_size);
  return base > size || length > size - base;
}

}  // namespace

uint64_t CPhysicalMapping::PageSize() {
  static const auto size = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

int CPhysicalMapping::Map(int device, uint64_t address, uint64_t length, bool writable) {
  Unmap();
  const uint64_t offset = address % PageSize();
  const uint64_t base = address - offset;
  if (length == 0) return EINVAL;
  if (length > std::numeric_limits<uint32_t>::max() - offset) return EOVERFLOW;
  if (base > static_cast<uint64_t>(std::numeric_limits<off_t>::max())) return EOVERFLOW;
  if (ReachesBehindEnd(device, base, offset + length)) return ENXIO;
  const int protection = PROT_READ | (writable ? PROT_WRITE : 0);
  void* mapped = ::mmap(nullptr, offset + length, protection, MAP_SHARED, device, static_cast<off_t>(base));
  if (mapped == MAP_FAILED) return errno;
  m_Base = base;
  m_Offset = static_cast<uint32_t>(offset);
  m_Length = static_cast<uint32_t>(offset + length);
  m_MappedAddress = static_cast<unsigned char*>(mapped);
  return 0;
}

void CPhysicalMapping::Unmap() {
  if (IsMapped()) ::munmap(m_MappedAddress, m_Length);
  m_Base = 0;
  m_Offset = 0;
  m_Length = 0;
  m_MappedAddress = nullptr;
}
